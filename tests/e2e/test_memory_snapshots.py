"""Memory snapshots of the running daemon: the report, and what stays behind when it can't be written."""

import pathlib
import re
import unittest

from harness import CACHES, DaemonTest, ctl, wait_until

REPORTS = pathlib.Path("/Library/Logs/Faultbox")


class MemorySnapshots(DaemonTest):
    def start_snapshots(self):
        return self.world.start(QuorvixEnableMemoryLogging="true", QuorvixMemoryLoggingInterval="1")

    def cached(self):
        return [name for name in CACHES.iterdir() if name.is_file()]

    def test_a_report_comes_every_interval_and_the_tool_reads_it(self):
        REPORTS.mkdir(parents=True)
        daemon = self.start_snapshots()
        daemon.wait_line("[platform] Memory snapshot written: /Library/Logs/Faultbox//memory-snapshot-")
        report = wait_until(lambda: next(iter(sorted(REPORTS.glob("*.ips"))), None), what="a report")
        self.assertRegex(report.name, r"^memory-snapshot-\d{4}-\d\d-\d\d-\d{6}\.ips$")
        self.assertTrue(report.read_text().startswith('{"bug_type":"152","os_version":"'))
        self.assertTrue(report.read_text().endswith("]\n}\n"))
        self.assertEqual(report.stat().st_mode & 0o777, 0o644)
        self.assertIn("quorvixd", ctl("memory", "show", str(report)).stdout)

    def test_without_the_report_folder_it_says_so_and_leaves_nothing(self):
        daemon = self.start_snapshots()
        line = daemon.wait_line("Could not move memory snapshot to /Library/Logs/Faultbox//")
        self.assertTrue(re.search(r"No such file or directory$", line), line)
        wait_until(lambda: not self.cached(), what="an empty cache folder")
        self.assertTrue(daemon.alive())

    def test_without_the_cache_folder_there_is_no_snapshot(self):
        daemon = self.start_snapshots()
        for path in sorted(CACHES.rglob("*"), reverse=True):
            path.rmdir() if path.is_dir() else path.unlink()
        CACHES.rmdir()
        daemon.wait_line("Could not create file - won't take a memory snapshot: /var/root/Library/Caches/quorvixd//memory-snapshot-")
        self.assertTrue(daemon.alive())


if __name__ == "__main__":
    unittest.main()
