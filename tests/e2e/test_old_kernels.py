"""On older kernels: with calls taken away by a filter, the next way down leads to the same report."""

import json
import os
import subprocess
import sys
import unittest

import harness
import old_kernel

FILTER = [sys.executable, "-B", os.path.join(os.path.dirname(os.path.realpath(__file__)), "old_kernel.py")]
PROBES = {
    "openat2": "libc.syscall({openat2}, 0, 0, 0, 0)",
    "renameat2": "libc.syscall({renameat2}, -1, 0, -1, 0, 0)",
    "bpf": "libc.syscall({bpf}, 0, 0, 0)",
    "peer-pidfd": "libc.getsockopt(socket.socketpair()[0].fileno(), 1, 77, 0, 0)",
    "noexec-seal": "libc.memfd_create(b'x', 8)",
}


@unittest.skipUnless(os.uname().machine in old_kernel.NUMBERS, "the calls' numbers are not known for this processor")
class OldKernels(harness.DaemonTest):
    def test_the_filter_answers_as_such_a_kernel(self):
        for name, probe in PROBES.items():
            call = probe.format(**old_kernel.NUMBERS[os.uname().machine])
            code = f"import ctypes, socket; libc = ctypes.CDLL(None, use_errno=True); print({call}, ctypes.get_errno())"
            answer = subprocess.run([*FILTER, name, sys.executable, "-c", code], check=True, capture_output=True,
                                    text=True).stdout
            self.assertEqual(answer, f"-1 {old_kernel.MISSING[name][1]}\n", name)

    def test_a_hang_becomes_a_report_with_everything_taken_away(self):
        self.world.install_trace_library()
        daemon, app, report = self.hang_with_everything_taken_away()
        self.assertEqual(harness.reason_of(report)["PID"], app.pid)
        self.assert_end_is_seen(daemon, app)

    def test_the_trace_library_finds_the_stack_without_the_kernels_help(self):
        self.world.install_trace_library("swivex")
        daemon, app, report = self.hang_with_everything_taken_away()
        shown = subprocess.run([harness.BUILD / "bin/quorvixctl", "report", "show", report, "--json"], check=True,
                               capture_output=True, text=True).stdout
        functions = [frame.get("symbol", frame["name"]) for frame in json.loads(shown)["stack"] if not frame["kernel"]]
        self.assertTrue([name for name in functions if "nanosleep" in name], functions)
        self.assertTrue([name for name in functions if name.startswith("main+")], functions)
        self.assert_end_is_seen(daemon, app)

    def hang_with_everything_taken_away(self):
        """The daemon, an app that has hung and the one report of it; both run where every call of the list is missing."""
        without = [*FILTER, ",".join(old_kernel.MISSING)]
        daemon = self.world.start(prefix=without, QuorvixEnableSwivex="true")
        app = subprocess.Popen([*without, str(harness.BUILD / "bin/quorvix_poll_app"), "300", "hang", "200", "after", "0.1"],
                               stdout=subprocess.DEVNULL)
        self.addCleanup(lambda: (app.kill(), app.wait()))
        daemon.wait_line("Report written: ")
        (report,) = harness.reports()
        return daemon, app, report

    def assert_end_is_seen(self, daemon, app):
        app.kill()
        daemon.wait_line(f"Client disconnected: {app.pid}")
