"""The programs of docs/getting-started.md: built against the installed library, run, and seen to hang by the real daemon.

Run by tests/e2e/run.py --folder tests/toolkits, in a file system of its own.
"""

import os
import pathlib
import re
import subprocess
import sys
import unittest

import harness

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "client/examples/getting-started"
INSTALLED = pathlib.Path("/tmp/installed")


def options(package, *more):
    """Compiler and linker words; every program's own package must be there: this group is for machines that have them."""
    return subprocess.run(["pkg-config", "--cflags", "--libs", *more, package], check=True, text=True,
                          capture_output=True).stdout.split()


class ToolkitTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        subprocess.run(["cmake", "--install", str(harness.BUILD), "--component", "client", "--prefix", str(INSTALLED)],
                       check=True, stdout=subprocess.DEVNULL)
        libraries = next(INSTALLED.rglob("quorvix.pc")).parent
        cls.library_folder = libraries.parent
        os.environ["PKG_CONFIG_PATH"] = str(libraries)

    def setUp(self):
        self.world = harness.World()
        self.addCleanup(lambda: self.world.close())
        self.daemon = self.world.start_reporting()

    def build(self, compiler, source, package):
        program = pathlib.Path("/tmp") / source.stem
        own, theirs = options("quorvix", "--define-prefix"), options(package)
        subprocess.run([*compiler, str(source), "-o", str(program), *own, *theirs, "-Wall", "-Wextra", "-Werror"], check=True)
        return str(program)

    def run_and_expect_a_hang(self, command, **environment):
        before = len(harness.reports())
        program = subprocess.Popen(command, env={**os.environ, "LD_LIBRARY_PATH": str(self.library_folder), **environment})
        try:
            harness.wait_until(lambda: len(harness.reports()) > before, what="the report of a hang")
            reason = harness.reason_of(harness.reports()[0])
            self.assertEqual(reason["PID"], program.pid)
            self.assertGreater(reason["EndTime"] - reason["StartTime"], 5 * 24_000_000)
            self.assertLess(reason["EndTime"] - reason["StartTime"], 13 * 24_000_000)
            # The loop goes on after the hang, watched and not hanging.
            self.assertIsNone(program.poll())
        finally:
            program.kill()
            program.wait()

    def test_a_gtk_app(self):
        program = self.build(["cc", "-std=c11"], EXAMPLES / "gtk_app.c", "gtk4")
        display = f":{os.getpid() % 10000 + 100}"
        server = subprocess.Popen(["Xvfb", display, "-screen", "0", "640x480x24", "-nolisten", "tcp"],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            harness.wait_until(pathlib.Path(f"/tmp/.X11-unix/X{display[1:]}").exists, what="the X server")
            self.run_and_expect_a_hang([program], DISPLAY=display, GSK_RENDERER="cairo", GDK_BACKEND="x11")
        finally:
            server.terminate()
            server.wait()

    def test_a_qt_app(self):
        program = self.build(["c++", "-std=c++20", "-fPIC"], EXAMPLES / "qt_app.cpp", "Qt6Core")
        self.run_and_expect_a_hang([program])

    def test_a_qt_app_without_glib(self):
        program = self.build(["c++", "-std=c++20", "-fPIC"], EXAMPLES / "qt_app.cpp", "Qt6Core")
        self.run_and_expect_a_hang([program], QT_NO_GLIB="1")

    def test_a_game_loop(self):
        program = self.build(["cc", "-std=c11"], EXAMPLES / "game_loop.c", "sdl2")
        self.run_and_expect_a_hang([program], SDL_VIDEODRIVER="dummy")

    def test_a_service_that_is_preloaded(self):
        service = ("import select, time\n"
                   "select.select([], [], [], 2)\n"
                   "end = time.monotonic() + 12\n"
                   "while time.monotonic() < end: time.sleep(0.1)\n"
                   "while True: select.select([], [], [], 0.1)\n")
        self.run_and_expect_a_hang([str(EXAMPLES / "service.sh"), sys.executable, "-c", service])

    def test_a_preloaded_program_that_never_waits_is_not_watched(self):
        result = subprocess.run([str(EXAMPLES / "service.sh"), "/bin/echo", "hello"], capture_output=True, text=True,
                                check=True, env={**os.environ, "LD_LIBRARY_PATH": str(self.library_folder)})
        self.assertEqual((result.stdout, result.stderr), ("hello\n", ""))
        self.assertFalse(self.daemon.has_line("Initialization complete now watching hangs for "))

    def test_a_wait_while_the_preloaded_library_starts_does_not_start_it_again(self):
        waiter = pathlib.Path("/tmp/polls_in_pthread_create.so")
        source = ROOT / "tests/toolkits/polls_in_pthread_create.c"
        subprocess.run(["cc", "-std=c11", "-D_GNU_SOURCE", "-shared", "-fPIC", "-Wall", "-Wextra", "-Werror", str(source),
                        "-o", str(waiter)], check=True)
        environment = {**os.environ, "LD_LIBRARY_PATH": str(self.library_folder),
                       "LD_PRELOAD": f"{waiter}:libquorvix-preload.so"}
        # It would wait for itself, for ever.
        result = subprocess.run([sys.executable, "-c", "import select; select.select([], [], [], 0); print('done')"],
                                env=environment, capture_output=True, text=True, check=True, timeout=60)
        self.assertEqual((result.stdout, result.stderr), ("done\n", "a thread starts\n"))

    def test_the_page_shows_lines_of_the_programs(self):
        page = (ROOT / "docs/getting-started.md").read_text()
        for source in EXAMPLES.iterdir():
            self.assertIn(source.name, page)
            # Without blank lines and comments.
            text = re.sub(r"/\*.*?\*/", "", source.read_text(), flags=re.DOTALL)
            code = [line for line in text.splitlines() if line.strip() and not line.strip().startswith(("//", "#!", "# "))]
            self.assertLess(len(code), 20, source.name)
        for name in ("quorvix_glib_watch_attach(NULL, \"main\", QUORVIX_WATCH_SAVE_REPORT);",
                     "quorvix::client::QtWatch watch(\"main\", quorvix::client::Report::kSave);",
                     "struct quorvix_watch* watch = quorvix_watch_open(\"frame\", QUORVIX_WATCH_SAVE_REPORT);"):
            self.assertIn(name, page)
            self.assertTrue(any(name in source.read_text() for source in EXAMPLES.iterdir()), name)
