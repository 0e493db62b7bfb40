"""One short life of the daemon under valgrind: it must end without an error and without a lost byte.

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
# The daemon ends by a signal, so that what valgrind found stands in its log alone.
VALGRIND = ["valgrind", f"--log-file={LOGS}.%p", "--leak-check=full", "--show-leak-kinds=definite,indirect,possible",
            "--errors-for-leak-kinds=definite,indirect", "--num-callers=30", "--fair-sched=try"]


class OneLife(harness.DaemonTest):
    def start(self):
        self.world.install_trace_library("swivex")
        for key, value in {"QuorvixEnabled": "true", "QuorvixEnableSwivex": "true", "QuorvixEnableMemoryLogging": "true",
                           "QuorvixMemoryLoggingInterval": "3"}.items():
            self.world.prefer(key, value)
        REPORTS.mkdir(parents=True)
        self.daemon = self.world.launch(VALGRIND)
        self.daemon.wait_ready(120)

    def log_of(self, pid):
        return pathlib.Path(f"{LOGS}.{pid}").read_text()

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

    def test_connects_hangs_reports_activates_snapshots_changes_and_ends(self):
        self.start()
        client = self.hang()
        client.activation_begin(412, APP)
        client.activation_end(412, APP)
        wait_stored(APP, seconds=120)
        harness.wait_until(lambda: list(REPORTS.glob("*.ips")), 120, "a memory snapshot")
        before = self.daemon.count_lines("refreshPreferences: App Activation Logging ")
        self.world.prefer("QuorvixDailyLogLimit", "7")
        harness.wait_until(lambda: self.daemon.count_lines("refreshPreferences: App Activation Logging ") > before, 120,
                           "the changed preferences")
        self.assertEqual(self.daemon.status()["dailyCredits"]["limit"], 7)
        client.close()
        self.daemon.wait_line("Client disconnected", 120)
        self.assertEqual(self.daemon.end(signal.SIGTERM, 120), -signal.SIGTERM)
        log = self.log_of(self.daemon.pid)
        self.assertRegex(log, r"ERROR SUMMARY: 0 errors from 0 contexts", log)
        for kind in ("definitely lost", "indirectly lost"):
            lost = re.search(rf"{kind}: ([\d,]+) bytes", log)
            # Without the line there was no block left at all.
            self.assertIn(lost.group(1) if lost else "0", ("0",), log)
        self.assertIn("in use at exit", log, "valgrind looked for leaks")


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
        self.assertIn("definitely lost: 77 bytes", log)
        self.assertIn("ERROR SUMMARY: 1 errors", log)
