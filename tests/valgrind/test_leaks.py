"""One short life of the daemon under valgrind: it must end without an error and without a lost byte, and the workers
that it forks without an error.

Run by tests/e2e/run.py --folder tests/valgrind, in a file system of its own. Of the dev build: valgrind and the
sanitizers do not go together.
"""

import pathlib
import re
import signal
import subprocess
import unittest

import harness
from test_activations import APP, wait_stored

LOGS = "/tmp/valgrind"
REPORTS = pathlib.Path("/Library/Logs/Faultbox")
# The daemon ends by a signal, so that what valgrind found stands in its log alone. Each process that it forks has a log.
VALGRIND = ["valgrind", f"--log-file={LOGS}.%p", "--leak-check=full", "--show-leak-kinds=definite,indirect,possible",
            "--errors-for-leak-kinds=definite,indirect", "--num-callers=30", "--fair-sched=try"]
# Of a worker no leak is asked for: it is a copy of one thread, to which all is lost that only the others knew of.
ERRORS = re.compile(r"==\d+== (?:Invalid|Conditional jump|Use of uninit|Syscall param|Mismatched free|Source and destination overlap|"
                    r"Process terminating with default action of signal (?:4|6|7|8|11)\b).*")


def problems_of(log):
    """What valgrind found in the daemon: errors and lost blocks."""
    found = re.findall(r"ERROR SUMMARY: (?!0 errors from 0 contexts).*", log)
    for kind in ("definitely lost", "indirectly lost"):
        # Without the line there was no block left at all.
        found += [f"{kind}: {size} bytes" for size in re.findall(rf"{kind}: ([\d,]+) bytes", log) if size != "0"]
    return found


class OneLife(harness.DaemonTest):
    def start(self):
        self.world.install_trace_library("swivex")
        for key, value in {"QuorvixEnabled": "true", "QuorvixEnableSwivex": "true", "QuorvixEnableMemoryLogging": "true",
                           "QuorvixMemoryLoggingInterval": "3"}.items():
            self.world.prefer(key, value)
        REPORTS.mkdir(parents=True)
        self.daemon = self.world.launch(VALGRIND)
        self.daemon.wait_ready(120)

    def require_clean_logs(self):
        logs = {path: path.read_text() for path in pathlib.Path(LOGS).parent.glob(pathlib.Path(LOGS).name + ".*")}
        own = logs[pathlib.Path(f"{LOGS}.{self.daemon.pid}")]
        self.assertIn("ERROR SUMMARY", own)
        self.assertIn("in use at exit", own, "valgrind looked for leaks")
        self.assertGreater(len(logs), 1, "the workers have logs too")
        self.assertEqual(problems_of(own), [], own)
        for path, log in logs.items():
            self.assertEqual(ERRORS.findall(log), [], f"{path}:\n{log}")

    def hang(self):
        """One that the client tells of, and one that the daemon finds by itself."""
        client = self.world.client()
        region = self.world.region()
        client.start_watching(region)
        self.daemon.wait_line("Initialization complete now watching hangs for ", 120)
        client.hang_detected("told", save_report=True)
        region.begin(0, "found", save_report=True)
        harness.wait_until(lambda: len(harness.reports()) == 2, 240, "two reports")
        region.end(0)
        client.fence_begin(1)
        client.fence_end(1)
        client.fence_blown(1, 2)
        self.daemon.wait_line("QXFenceTracking: Fence blown", 120)
        client.send_datagram(b"no message")
        self.daemon.wait_line("<undecodable message, 10 bytes: ", 120)
        return client

    def die_while_watched(self, child):
        client = harness.Client().connect()
        region = harness.Region()
        client.start_watching(region, "short life")
        region.begin(0, "never done", save_report=True)
        child.say()
        child.wait_for_end()

    def test_connects_hangs_reports_activates_snapshots_changes_and_ends(self):
        self.start()
        client = self.hang()
        client.activation_begin(412, APP)
        client.activation_end(412, APP)
        wait_stored(APP, seconds=120)
        harness.wait_until(lambda: list(REPORTS.glob("*.ips")), 120, "a memory snapshot")
        # A client that dies while it is watched and hangs, and an activation that never ends.
        dying = self.world.child(self.die_while_watched)
        dying.hear()
        self.daemon.wait_line("short life", 120)
        dying.end()
        client.activation_begin(413, "com.example.never-ends")
        harness.wait_until(lambda: self.daemon.status()["counters"]["activations"]["open"] == 1, 120, "the activation")
        harness.wait_until(lambda: self.daemon.status()["counters"]["activations"]["open"] == 0, 240, "its time-out")
        before = self.daemon.count_lines("refreshPreferences: App Activation Logging ")
        self.world.prefer("QuorvixDailyLogLimit", "7")
        harness.wait_until(lambda: self.daemon.count_lines("refreshPreferences: App Activation Logging ") > before, 120,
                           "the changed preferences")
        self.assertEqual(self.daemon.status()["dailyCredits"]["limit"], 7)
        client.close()
        self.daemon.wait_line("Client disconnected", 120)
        self.assertEqual(self.daemon.end(signal.SIGTERM, 120), -signal.SIGTERM)
        self.require_clean_logs()


class ThatItFinds(unittest.TestCase):
    def test_a_leak_that_is_there(self):
        """What the check would say of a daemon that loses memory."""
        source = pathlib.Path("/tmp/leak.c")
        source.write_text("#include <signal.h>\n#include <stdlib.h>\nvoid *volatile p;\n"
                          "int main(void) { p = malloc(77); p = 0; raise(SIGTERM); }\n")
        subprocess.run(["cc", "-o", "/tmp/leak", str(source)], check=True)
        leaking = subprocess.Popen([*VALGRIND, "/tmp/leak"])
        self.assertEqual(leaking.wait(60), -signal.SIGTERM)
        log = pathlib.Path(f"{LOGS}.{leaking.pid}").read_text()
        self.assertEqual(problems_of(log), ["ERROR SUMMARY: 1 errors from 1 contexts (suppressed: 0 from 0)", "definitely lost: 77 bytes"])

    def test_an_error_of_a_worker(self):
        self.assertEqual(ERRORS.findall("==7== Invalid read of size 8\n==7==    at 0x1\n"), ["==7== Invalid read of size 8"])
        self.assertEqual(ERRORS.findall("==7== Memcheck, a memory error detector\n==7==    definitely lost: 16 bytes\n"), [])
