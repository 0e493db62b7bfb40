"""Hang reports: what a hang leaves behind, the two budgets, names that make no file, the trace library's failures."""

import json
import os
import sqlite3
import stat
import subprocess

import harness
from quorvix_client import TICKS_PER_SECOND, ticks_now

PROGRAM = os.path.basename(os.path.realpath("/proc/self/exe"))
COUNTERS = "/var/lib/quorvix/tallisk.db"
PREFIX = "com.norvane.quorvix."


def counter(key):
    """A scalar's value, or how often a distribution was pushed to; None while there is none."""
    if not os.path.exists(COUNTERS):
        return None
    store = sqlite3.connect(f"file:{COUNTERS}?mode=ro", uri=True, timeout=10)
    try:
        row = store.execute("SELECT value FROM scalar WHERE key = ?1 UNION ALL SELECT count FROM distribution WHERE key = ?1",
                            (PREFIX + key,)).fetchone()
        return row and row[0]
    except sqlite3.OperationalError:  # the tables are not there yet
        return None
    finally:
        store.close()


def wait_counter(key, value):
    harness.wait_until(lambda: counter(key) == value, what=f"{key} = {value}")


def mode(path):
    return stat.S_IMODE(os.stat(path).st_mode)


class HangsEndToEnd(harness.SharedWorldTest):
    """An app of libquorvix that really hangs, and the Python client's slot, both found by the daemon's own look."""

    @classmethod
    def arrange(cls):
        cls.daemon = cls.world.start_reporting()
        cls.app = subprocess.Popen([str(harness.BUILD / "bin/quorvix_poll_app"), "300", "hang", "200", "after", "0.2"],
                                   stdout=subprocess.DEVNULL)
        cls.client = cls.world.client()
        cls.region = cls.world.region()
        cls.client.start_watching(cls.region)
        cls.start = ticks_now() - 42 * TICKS_PER_SECOND
        cls.region.begin(5, "slow work", cls.start, save_report=True, thread=4711)
        cls.daemon.wait_line("Moving swivex to spool: ")
        cls.report = harness.wait_until(lambda: next((path for path in harness.reports() if path.name.startswith("slow work-")), None))
        cls.app_report = harness.wait_until(lambda: next((path for path in harness.reports() if "quorvix_poll_app" in path.name), None))

    @classmethod
    def tearDownClass(cls):
        if hasattr(cls, "app"):
            cls.app.kill()
            cls.app.wait()
        super().tearDownClass()

    def test_report_is_named_after_work_program_and_time(self):
        self.assertRegex(self.report.name, rf"^slow work-{PROGRAM}-\d{{4}}-\d\d-\d\d-\d{{6}}\.swivex$")
        self.assertRegex(self.app_report.name, r"^poll-app main-quorvix_poll_app-\d{4}-\d\d-\d\d-\d{6}\.swivex$")

    def test_reason_record(self):
        reason = harness.reason_of(self.report)
        end = reason.pop("EndTime")
        milliseconds = (end - self.start) / 24000
        self.assertGreater(milliseconds, 42000)
        self.assertEqual(reason.pop("Reason"), f"slow work-{PROGRAM}: timeout {milliseconds:.0f}ms")
        self.assertEqual(reason, {"ServiceName": "slow work", "ProcessPath": os.path.realpath("/proc/self/exe"), "PID": os.getpid(),
                                  "ThreadID": 4711, "StartTime": self.start})
        app = harness.reason_of(self.app_report)
        self.assertEqual((app["PID"], app["ThreadID"]), (self.app.pid, self.app.pid))

    def test_trace_library_gets_the_span_and_the_wish_for_no_names(self):
        text = self.report.read_text()
        self.assertIn("NoSymbolicate bool true\n", text)
        self.assertIn(f"MinTimestamp uint64 {self.start}\n", text)
        self.assertIn(f"MaxTimestamp uint64 {harness.reason_of(self.report)['EndTime']}\n", text)
        self.assertTrue(text.endswith("end\n"))

    def test_slot_is_marked_as_reported(self):
        self.assertEqual(self.region.start_time(5), 0xFFFFFFFFFFFFFFFF)

    def test_hang_is_counted_once(self):
        wait_counter(f"slow work.{PROGRAM}", 1)
        wait_counter("poll-app main.quorvix_poll_app", 1)

    def test_status_shows_the_credits(self):
        state = self.daemon.status()
        self.assertEqual(state["appCredits"], {PROGRAM: 3, "quorvix_poll_app": 3})
        self.assertEqual(state["dailyCredits"], {"left": 23, "limit": 25})

    def test_modes(self):
        wait_counter(f"slow work.{PROGRAM}", 1)
        self.assertEqual(mode(self.report), 0o644)
        self.assertEqual([mode(path) for path in (harness.CACHES, harness.TMP, harness.SPOOL)], [0o755] * 3)
        self.assertEqual(mode(COUNTERS), 0o600)
        self.assertEqual(mode(harness.ENDPOINT), 0o666)
        self.assertEqual(mode(harness.ENDPOINT + ".state"), 0o600)


class Reports(harness.DaemonTest):
    """Hangs told by message, which need no wait."""

    def watch(self, variant="standin_swivex", **preferences):
        self.daemon = self.world.start_reporting(variant, **preferences)
        self.client = self.world.watched_client(self.daemon)

    def hang(self, name, line):
        """A hang with a report wished for, and the line it ends in."""
        before = self.daemon.count_lines(line)
        self.client.hang_detected(name, save_report=True)
        harness.wait_until(lambda: self.daemon.count_lines(line) > before, what=f"line {line!r}")

    def test_four_reports_use_the_apps_credits_up(self):
        self.watch()
        for number in range(4):
            self.hang(f"work {number}", f"<info> {PROGRAM} Log credits: {4 - number} -> {3 - number}")
        self.hang("one too many", f"<default> {PROGRAM} is out of credits. Not saving a report!")
        self.assertEqual(len(harness.reports()), 4)
        self.assertEqual(self.daemon.status()["appCredits"], {PROGRAM: 0})
        wait_counter("QXLogsMissedDueToProcessLimit.Total", 1)
        wait_counter(f"QXLogsMissedDueToProcessLimit.{PROGRAM}", 1)

    def test_daily_limit(self):
        self.watch(QuorvixDailyLogLimit="1")
        self.hang("work", "<info> Daily Log credits: 1 -> 0")
        self.hang("more work", "<default> Device is out of Daily Log credits, hit the Daily Log limit of 1. Not saving a report!")
        wait_counter("QXLogsMissedDueToGlobalLimit.Total", 1)
        wait_counter(f"QXLogsMissedDueToGlobalLimit.{PROGRAM}", 1)

    def test_second_report_of_one_second_is_not_moved_and_paid_for(self):
        self.watch()
        # Two in one second; where the second changes between them, the next two are.
        for _ in range(2):
            self.client.hang_detected("twice", save_report=True)
            self.client.hang_detected("twice", save_report=True)
            harness.wait_until(lambda: self.daemon.count_lines("<info> Daily Log credits: ") % 2 == 0 and self.daemon.count_lines("Daily Log credits: "))
            if self.daemon.has_line("Unable to move"):
                break
        self.daemon.wait_line(f"<default> {PROGRAM}: Unable to move swivex to final path: ")
        self.assertEqual(len(harness.reports()), self.daemon.count_lines(" Moving swivex to spool: ") - self.daemon.count_lines("Unable to move"))
        self.assertEqual(self.daemon.status()["dailyCredits"]["left"], 25 - self.daemon.count_lines(" Moving swivex to spool: "))

    def test_no_report_where_none_is_wished_for(self):
        self.watch()
        self.client.hang_detected("quiet")
        self.daemon.wait_line(": Hang detected 6.00s (quiet)")
        wait_counter(f"quiet.{PROGRAM}", 1)
        self.assertEqual(harness.reports(), [])

    def test_reports_switched_off(self):
        self.watch(QuorvixEnableSwivex="false")
        self.hang("work", f"<default> {PROGRAM}: Quorvix swivex support is disabled, not saving a report!")

    def test_fence_hangs_are_captured_one_at_a_time(self):
        self.watch()
        end = ticks_now()
        for _ in range(2):
            self.client.fence_blown(end - TICKS_PER_SECOND, end)
        self.daemon.wait_line(f"<default> {PROGRAM}: Fence-hang, but waiting for FenceHangCapture - not saving another report!")
        harness.wait_until(lambda: len(harness.reports()) == 1)
        self.assertTrue(harness.reports()[0].name.startswith(f"Fence-hang-{PROGRAM}-"))
        wait_counter("QXLogsFenceHang.PreSwivex", 2)

    def refuse_name(self, name, line):
        self.watch()
        self.hang(name, line)
        self.assertEqual(harness.reports(), [])
        self.assertEqual(self.daemon.status()["appCredits"], {})
        self.hang("a good name", "Log credits: 4 -> 3")

    def test_name_with_a_slash(self):
        os.makedirs("/var/root/Library/Caches/quorvixd/tmp/sub/deep", exist_ok=True)
        self.refuse_name("sub/deep/name", f"<default> {PROGRAM}: Could not create file - won't take a swivex: {harness.TMP}/sub/deep/name-")
        self.hang("../../up", f"<default> {PROGRAM}: Could not create file - won't take a swivex: {harness.TMP}/../../up-")
        self.hang("/tmp/absolute", f"<default> {PROGRAM}: Could not create file - won't take a swivex: {harness.TMP}//tmp/absolute-")
        self.assertEqual([name for name in os.listdir("/tmp") if name.startswith("absolute")], [])
        self.assertEqual(os.listdir("/var/root/Library/Caches/quorvixd/tmp/sub/deep"), [])
        os.removedirs("/var/root/Library/Caches/quorvixd/tmp/sub/deep")
        os.makedirs(harness.TMP, exist_ok=True)

    def test_name_of_10_kilobytes(self):
        self.refuse_name("n" * 10240, f"<default> {PROGRAM}: Could not create file - won't take a swivex: ")
        self.assertTrue(self.daemon.has_line("File name too long"))

    def test_name_that_is_not_utf8(self):
        self.refuse_name(b"bad \xff\xfe name", f"<default> {PROGRAM}: Unable to serialize Info Dict into JSON: ")

    def test_name_with_a_newline_is_one_line_and_one_file(self):
        self.watch()
        self.hang("two\nlines", f"<info> {PROGRAM}: Hang detected 6.00s (two\\nlines)")
        harness.wait_until(harness.reports)
        self.assertTrue(harness.reports()[0].name.startswith("two\nlines-"))
        self.assertEqual(harness.reason_of(harness.reports()[0])["ServiceName"], "two\nlines")

    def test_empty_and_absent_names(self):
        self.watch()
        self.hang("", "Log credits: 4 -> 3")
        self.assertTrue(harness.reports()[0].name.startswith(f"-{PROGRAM}-"))
        self.client.send_command(3)
        self.daemon.wait_line(": Hang detected 0.00s ((null))")


class RealReports(harness.DaemonTest):
    """Reports of the trace library itself."""

    def test_report_tells_its_reason_and_ends_with_its_mark(self):
        self.daemon = self.world.start_reporting("swivex")
        client = self.world.watched_client(self.daemon)
        client.hang_detected("work", save_report=True)
        self.daemon.wait_line("Log credits: 4 -> 3")
        (report,) = harness.reports()
        self.assertEqual(mode(report), 0o644)
        reason = harness.real_reason_of(report)
        self.assertEqual((reason["PID"], reason["ServiceName"]), (os.getpid(), "work"))
        self.assertIn(b"com.norvane.quorvix.end", report.read_bytes()[-80:])

    def test_several_reports_leave_nothing_open(self):
        self.daemon = self.world.start_reporting("swivex")
        client = self.world.watched_client(self.daemon)
        for number in range(3):
            client.hang_detected(f"work {number}", save_report=True)
        self.daemon.wait_line("Log credits: 2 -> 1")
        self.assertEqual(len(harness.reports()), 3)
        # What it holds open is compared when the test ends.


class TraceLibrary(harness.DaemonTest):
    def hangs(self, variant, count=2):
        if variant:
            self.world.install_trace_library(variant)
        self.daemon = self.world.start(QuorvixEnableSwivex="true")
        client = self.world.watched_client(self.daemon)
        for number in range(count):
            client.hang_detected(f"work {number}", save_report=True)
        self.daemon.wait_line(f"(work {count - 1})")

    def expect_no_credit_taken(self):
        self.assertEqual(self.daemon.status()["appCredits"], {})
        self.assertEqual(harness.reports(), [])

    def test_missing_is_said_once(self):
        self.hangs(None)
        line = f"<default> {PROGRAM}: Tried to save swivex, but swivex support is not present on this device!"
        harness.wait_until(lambda: self.daemon.count_lines(line) == 2)
        self.assertEqual(self.daemon.count_lines("<default> libswivex.dylib is not present."), 1)
        self.expect_no_credit_taken()

    def test_without_its_function(self):
        self.hangs("standin_swivex_nosymbol")
        line = f"<default> {PROGRAM}: Tried to save swivex, but swivex support is not present on this device!"
        harness.wait_until(lambda: self.daemon.count_lines(line) == 2)
        self.assertFalse(self.daemon.has_line("libswivex.dylib is not present."))
        self.expect_no_credit_taken()

    def test_failing(self):
        self.hangs("standin_swivex_failing")
        harness.wait_until(lambda: self.daemon.count_lines(f"<default> {PROGRAM}: Unable to save swivex data to file.\\n") == 2)
        self.expect_no_credit_taken()

    def test_slow(self):
        self.hangs("standin_swivex_slow")
        self.daemon.wait_line("Log credits: 3 -> 2")
        self.assertEqual([path.read_text()[-4:] for path in harness.reports()], ["end\n"] * 2)

    def test_without_one_key(self):
        self.hangs("standin_swivex_nokey", 1)
        self.daemon.wait_line("Log credits: 4 -> 3")
        text = harness.reports()[0].read_text()
        self.assertNotIn("NoSymbolicate", text)
        self.assertIn("MinTimestamp", text)

    def test_that_is_no_library(self):
        harness.TRACE_LIBRARY.write_text("this is no library")
        self.hangs(None)
        self.daemon.wait_line("<default> libswivex.dylib is not present.")
        self.expect_no_credit_taken()
