"""Memory snapshots of the running daemon: the report, and what stays behind when it can't be written."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time
import unittest

from harness import CACHES, DaemonTest, ctl, wait_until

REPORTS = pathlib.Path("/Library/Logs/Faultbox")


class MemorySnapshots(DaemonTest):
    def start_snapshots(self):
        return self.world.start(QuorvixEnableMemoryLogging="true", QuorvixMemoryLoggingInterval="1")

    def reports(self):
        return sorted(REPORTS.glob("*.ips"))

    def wait_reports(self, count):
        return wait_until(lambda: len(self.reports()) >= count and self.reports(), what=f"{count} reports")

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

    def test_between_file_systems_reports_are_complete_and_nothing_stays_behind(self):
        self.world.mount_memory(REPORTS, "mode=0700")
        daemon = self.start_snapshots()
        for report in self.wait_reports(3):
            self.assertTrue(report.read_text().endswith("]\n}\n"))
        daemon.end()
        self.assertEqual([name.name for name in REPORTS.iterdir() if name.name.startswith(".")], [])
        self.assertEqual(self.cached(), [])

    def test_a_report_folder_that_fills_up_keeps_whole_reports_only_and_has_more_once_there_is_room(self):
        self.world.mount_memory(REPORTS, "size=64k")
        daemon = self.start_snapshots()
        line = daemon.wait_line("Could not move memory snapshot to /Library/Logs/Faultbox//")
        self.assertTrue(line.endswith("No space left on device"), line)
        for report in self.reports():
            self.assertTrue(report.read_text().endswith("]\n}\n"))
        subprocess.run(["mount", "-o", "remount,size=10m", str(REPORTS)], check=True)
        before = len(self.reports())
        self.wait_reports(before + 1)
        self.assertEqual(self.cached(), [])

    def test_switched_off_and_on_many_times_there_is_one_snapshot_an_interval(self):
        REPORTS.mkdir(parents=True)
        daemon = self.start_snapshots()
        for value in ["false", "true"] * 20:
            self.world.prefer("QuorvixEnableMemoryLogging", value)
        daemon.wait_line("refreshPreferences: Memory Logging Enabled")
        before, begin = daemon.count_lines("Memory snapshot written"), time.monotonic()
        wait_until(lambda: daemon.count_lines("Memory snapshot written") >= before + 4, what="four more")
        self.assertGreater(time.monotonic() - begin, 2.5)
        self.assertTrue(daemon.alive())

    def test_switched_off_there_are_no_more(self):
        REPORTS.mkdir(parents=True)
        daemon = self.start_snapshots()
        self.wait_reports(1)
        self.world.prefer("QuorvixEnableMemoryLogging", "false")
        daemon.wait_line("refreshPreferences: Memory Logging Disabled")
        written = daemon.count_lines("Memory snapshot written")
        time.sleep(2.5)
        self.assertEqual(daemon.count_lines("Memory snapshot written"), written)

    def test_processes_that_die_in_the_middle_break_no_report(self):
        REPORTS.mkdir(parents=True)

        def body(child):
            child.say()
            while True:
                for _ in range(20):
                    if os.fork() == 0:
                        os._exit(0)
                for _ in range(20):
                    os.wait()

        self.world.child(body).hear()
        self.start_snapshots()
        for report in self.wait_reports(3):
            shown = json.loads(ctl("memory", "show", str(report), "--json").stdout)
            self.assertIn("quorvixd", str(shown["Processes"]))

    def test_names_that_break_a_record_are_written_as_they_are_and_the_tool_copes(self):
        REPORTS.mkdir(parents=True)
        names = [b'a "quoted", \\ name', b'lines\nof "],\n"Zones" :\n[\n text', b"\x01\x1b[31mcontrol", b"n" * 255, b"%s%n%@"]
        folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, folder)
        sleepers = []
        for name in [*names, b"not-text-\xff\xfe"]:
            path = os.path.join(os.fsencode(folder), name)
            shutil.copy("/bin/sleep", path)
            # A long command line, which is nobody's business here.
            sleepers.append(subprocess.Popen([b"x" * 100_000, b"60"], executable=path))
        for sleeper in sleepers:
            self.addCleanup(sleeper.wait)
            self.addCleanup(sleeper.kill)
        self.start_snapshots()
        report = self.wait_reports(1)[0]
        text = report.read_bytes()
        for name in names:
            self.assertIn(b'{"ProcessName":"' + name + b'", "Priority":', text)
        self.assertIn(f'{{"ProcessName":"UnknownProcess_{sleepers[-1].pid}", '.encode(), text)
        self.assertNotIn(b"\xff", text)
        shown = json.loads(ctl("memory", "show", str(report), "--json").stdout)
        self.assertIn("UnknownProcess_", str(shown["Processes"]))

    def test_a_hostile_registry_folder_takes_nothing_but_its_own_entries(self):
        REPORTS.mkdir(parents=True)
        registry = pathlib.Path("/run/vex/assertions")
        registry.mkdir()
        start = pathlib.Path(f"/proc/{os.getpid()}/stat").read_text().rsplit(")", 1)[1].split()[19]
        (registry / str(os.getpid())).write_text(f"{os.getpid()} {start} 0x10000000001\n")
        for pid in range(100_000, 103_000):
            (registry / str(pid)).write_text("x" * 10_000)
        os.mkfifo(registry / str(self.world.child(lambda child: child.wait_for_end()).pid))
        daemon = self.start_snapshots()
        text = self.wait_reports(1)[0].read_text()
        self.assertEqual(text.count('"Assertions":["Audio","UnknownAssertion_40"]'), 1)
        counters = daemon.platform("processMemory")
        self.assertGreaterEqual(counters["staleAssertions"], 3000)
        self.assertGreaterEqual(counters["refusedAssertionFiles"], 1, "a pipe")


if __name__ == "__main__":
    unittest.main()
