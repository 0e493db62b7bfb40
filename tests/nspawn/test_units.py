"""quorvixd's units under a real service manager. Every test starts from everything switched off and the daemon down."""

import json
import shutil
import time
import unittest

from machine import CACHES, MEMORY_REPORTS, PATH_UNITS, PREFERENCES, SERVICE, SOCKET, SPOOL, UNITS, wait_until

MACHINE = None  # set by run.py
AT_BOOT = {}  # unit -> properties, taken some seconds after the boot ended

ENDPOINT = "/run/vex/com.norvane.quorvixd"
APP = "/usr/bin/quorvix_poll_app"
# Long enough for five starts in a row, where there were a loop: that many are what a service manager takes by default.
LOOP_SECONDS = 4


def look_at_the_boot():
    time.sleep(LOOP_SECONDS)
    for unit in UNITS:
        AT_BOOT[unit] = MACHINE.show(unit)


def moment():
    """Now, as the journal counts it."""
    return time.time_ns() // 1000


def starts(since):
    """How often the daemon was started, as the service manager noted it."""
    return len([entry for entry in MACHINE.journal(f"UNIT={SERVICE}", since=since) if entry["MESSAGE"].startswith("Starting ")])


def mode(name):
    return MACHINE.must("stat", "-c", "%A %U", name).strip()


class UnitTest(unittest.TestCase):
    def setUp(self):
        MACHINE.run("systemctl", "stop", SOCKET, SERVICE, "app.service")
        for domain in ("com.norvane.da", "com.norvane.quorvix"):
            MACHINE.path(f"{PREFERENCES}/{domain}.plist").unlink(missing_ok=True)
        # A change of the preferences starts the daemon, which finds nothing to do: let that be over.
        MACHINE.run("systemctl", "stop", *PATH_UNITS)
        self.wait_down()
        MACHINE.run("systemctl", "reset-failed")
        MACHINE.must("systemctl", "start", *PATH_UNITS)
        self.before = moment()

    def state(self, unit=SERVICE):
        shown = MACHINE.show(unit)
        return shown["ActiveState"], shown["SubState"]

    def wait_up(self):
        wait_until(lambda: self.state() == ("active", "running") and MACHINE.status(), 15, "the running daemon")
        return MACHINE.show(SERVICE)

    def wait_down(self):
        wait_until(lambda: self.state()[0] in ("inactive", "failed"), 15, "the end of the daemon")

    def assert_down_but_well(self):
        self.wait_down()
        shown = MACHINE.show(SERVICE)
        self.assertEqual((shown["ActiveState"], shown["Result"]), ("inactive", "success"))
        self.assertEqual(MACHINE.failed_units(), "")
        for unit in PATH_UNITS:
            self.assertEqual(self.state(unit), ("active", "waiting"))

    def switch_on(self):
        MACHINE.ctl("prefs", "set", "QuorvixEnabled", "true")
        return self.wait_up()

    def start_app(self, *arguments):
        MACHINE.start_app("app", APP, *arguments)

    def wait_watched(self):
        wait_until(lambda: "quorvix_poll_app" in MACHINE.watched(), 15, "the watched app")


class AtBoot(UnitTest):
    def setUp(self):
        pass  # looks back only

    def test_the_preset_switches_on_service_and_path_units_but_not_the_socket(self):
        self.assertEqual({unit: AT_BOOT[unit]["UnitFileState"] for unit in UNITS},
                         {SERVICE: "enabled", **dict.fromkeys(PATH_UNITS, "enabled"), SOCKET: "disabled"})

    def test_with_everything_off_the_daemon_becomes_ready_once_and_ends_well(self):
        shown = AT_BOOT[SERVICE]
        self.assertEqual((shown["ActiveState"], shown["Result"], shown["ExecMainStatus"], shown["NRestarts"]),
                         ("inactive", "success", "0", "0"))
        # Active for a moment: readiness was told before the end.
        self.assertNotEqual(shown["ActiveEnterTimestampMonotonic"], "0")
        first = [entry["MESSAGE"] for entry in MACHINE.journal(f"UNIT={SERVICE}", "INVOCATION_ID=" + shown["InvocationID"])]
        self.assertEqual([line.split(" ")[0] for line in first if line.split(" ")[0] in ("Starting", "Started")],
                         ["Starting", "Started"])

    def test_the_path_units_wait(self):
        for unit in PATH_UNITS:
            self.assertEqual((AT_BOOT[unit]["ActiveState"], AT_BOOT[unit]["SubState"]), ("active", "waiting"))

    def test_the_folders_have_their_modes(self):
        expected = {"/run/vex": "drwxr-xr-x root", "/run/vex/notify": "drwxr-xr-x root", "/var/lib/quorvix": "drwx------ root",
                    "/var/root": "drwx------ root", "/var/root/Library": "drwx------ root",
                    "/var/root/Library/Caches": "drwx------ root", CACHES: "drwxr-xr-x root", CACHES + "/tmp": "drwxr-xr-x root",
                    SPOOL: "drwxr-xr-x root", PREFERENCES: "drwxr-xr-x root", MEMORY_REPORTS: "drwx------ root"}
        self.assertEqual({name: mode(name) for name in expected}, expected)

    def test_systemd_finds_nothing_wrong_with_the_units(self):
        result = MACHINE.run("systemd-analyze", "verify", "--man=no", *(f"/lib/systemd/system/{unit}" for unit in UNITS))
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))

    def test_the_sandbox_leaves_little_exposed(self):
        text = MACHINE.must("systemd-analyze", "security", "--no-pager", SERVICE)
        print(text, flush=True)
        exposure = float(text.split("Overall exposure level for quorvixd.service:")[1].split()[0])
        self.assertLessEqual(exposure, 4.0)


class SwitchedOnAndOff(UnitTest):
    def test_a_preference_switched_on_starts_the_daemon(self):
        shown = self.switch_on()
        self.assertEqual((shown["Type"], shown["NRestarts"]), ("notify", "0"))
        self.assertTrue(MACHINE.status()["settings"]["hangTracingEnabled"])
        self.assertEqual(mode(ENDPOINT), "srw-rw-rw- root")
        self.assertEqual(mode(ENDPOINT + ".state"), "srw------- root")
        time.sleep(LOOP_SECONDS)
        self.assertEqual(MACHINE.show(SERVICE)["InvocationID"], shown["InvocationID"])

    def test_a_preferences_file_written_by_another_tool_starts_the_daemon(self):
        MACHINE.path(f"{PREFERENCES}/com.norvane.da.plist").write_text(
            '<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict><key>QuorvixEnabled</key><true/></dict></plist>')
        self.wait_up()

    def test_the_managed_profile_starts_the_daemon(self):
        profile = MACHINE.path("/Library/Managed Preferences/mobile/.GlobalPreferences.plist")
        profile.parent.mkdir(parents=True, exist_ok=True)
        self.addCleanup(profile.unlink)
        profile.write_text('<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>'
                           "<key>QXProfile.QuorvixEnabled</key><true/></dict></plist>")
        self.wait_up()

    def test_switched_off_the_daemon_ends_by_itself_and_on_again_it_comes_back(self):
        for _ in range(3):
            self.switch_on()
            MACHINE.ctl("prefs", "set", "QuorvixEnabled", "false")
            self.assert_down_but_well()
        self.assertEqual(starts(self.before), 3)
        self.switch_on()

    def test_switched_off_and_on_many_times_at_once_the_units_stay_well(self):
        """Whether it is up then is open: a path unit does not see a change between the daemon's end and its own notice of
        it, some hundredths of a second. A start by hand always helps."""
        self.switch_on()
        for _ in range(20):
            MACHINE.ctl("prefs", "set", "QuorvixEnabled", "false")
            MACHINE.ctl("prefs", "set", "QuorvixEnabled", "true")
        wait_until(lambda: self.state() in (("active", "running"), ("inactive", "dead")), 15, "rest")
        self.assertEqual(MACHINE.failed_units(), "")
        MACHINE.must("systemctl", "start", SERVICE)
        self.wait_up()
        self.assertTrue(MACHINE.status()["settings"]["hangTracingEnabled"])

    def test_many_changes_with_everything_off_do_not_wear_the_units_out(self):
        for limit in range(30):
            MACHINE.ctl("prefs", "set", "QuorvixDailyLogLimit", str(limit))
        self.assert_down_but_well()
        self.assertGreater(starts(self.before), 0)
        self.switch_on()


class Endings(UnitTest):
    def test_a_killed_daemon_is_restarted_and_watches_its_apps_again(self):
        before = self.switch_on()
        self.start_app("60")
        self.wait_watched()
        MACHINE.must("systemctl", "kill", "--signal=KILL", SERVICE)
        wait_until(lambda: MACHINE.show(SERVICE)["NRestarts"] == "1", 15, "the restart")
        after = self.wait_up()
        self.assertNotEqual(after["MainPID"], before["MainPID"])
        self.wait_watched()

    def test_a_stopped_daemon_stays_down(self):
        self.switch_on()
        MACHINE.must("systemctl", "stop", SERVICE)
        self.assert_down_but_well()
        time.sleep(LOOP_SECONDS)
        self.assert_down_but_well()
        self.assertEqual(starts(self.before), 1)

    def test_a_second_daemon_ends_with_71_and_leaves_the_first_alone(self):
        shown = self.switch_on()
        result = MACHINE.run("/usr/sbin/quorvixd")
        self.assertEqual(result.returncode, 71)
        self.assertEqual(MACHINE.show(SERVICE)["MainPID"], shown["MainPID"])
        self.assertIsNotNone(MACHINE.status())

    def test_where_it_can_not_listen_it_fails_once(self):
        # Not a socket, so nobody's leftover: the daemon must not remove it.
        MACHINE.path(ENDPOINT).unlink(missing_ok=True)
        MACHINE.path(ENDPOINT).write_text("")
        self.addCleanup(MACHINE.path(ENDPOINT).unlink)
        MACHINE.run("systemctl", "start", SERVICE)
        time.sleep(LOOP_SECONDS)
        shown = MACHINE.show(SERVICE)
        self.assertEqual((shown["ActiveState"], shown["ExecMainStatus"], shown["NRestarts"]), ("failed", "71", "0"))


class HeldSocket(UnitTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(MACHINE.run, "systemctl", "stop", SOCKET)

    def test_an_app_that_connects_before_the_daemon_runs_is_served(self):
        MACHINE.ctl("prefs", "set", "QuorvixEnabled", "true", "--no-notify")
        self.wait_up()
        MACHINE.must("systemctl", "stop", SERVICE)
        MACHINE.must("systemctl", "start", SOCKET)
        self.assertEqual(self.state()[0], "inactive")
        inode = MACHINE.must("stat", "-c", "%i", ENDPOINT)
        self.start_app("60")
        self.wait_watched()
        self.assertEqual(self.state(SOCKET), ("active", "running"))
        # The same socket: it was taken over, not bound anew.
        self.assertEqual(MACHINE.must("stat", "-c", "%i", ENDPOINT), inode)

    def test_it_serves_again_after_the_daemon_was_killed(self):
        MACHINE.must("systemctl", "start", SOCKET)
        self.switch_on()
        self.start_app("60")
        self.wait_watched()
        MACHINE.must("systemctl", "kill", "--signal=KILL", SERVICE)
        wait_until(lambda: MACHINE.show(SERVICE)["NRestarts"] == "1", 15, "the restart")
        self.wait_up()
        self.wait_watched()
        self.assertEqual(self.state(SOCKET), ("active", "running"))

    def test_with_everything_off_a_client_makes_no_loop(self):
        MACHINE.must("systemctl", "start", SOCKET)
        self.start_app("60")
        wait_until(lambda: starts(self.before), 15, "the start by a client")
        time.sleep(LOOP_SECONDS)
        # Between two attempts: the next may come at any moment.
        wait_until(lambda: (self.state()[0], *self.state(SOCKET)) == ("inactive", "active", "listening"), 30, "rest")
        self.assertEqual(MACHINE.failed_units(), "")
        # The app's own attempts, further and further apart: 50 ms at first and then doubling.
        self.assertLess(starts(self.before), 12)
        self.switch_on()
        self.wait_watched()


class Work(UnitTest):
    def test_entries_arrive_in_the_journal_with_their_fields(self):
        self.switch_on()
        entries = MACHINE.journal("SYSLOG_IDENTIFIER=quorvixd", since=self.before)
        self.assertTrue(entries)
        for entry in entries:
            self.assertEqual(entry["QUORVIX_SUBSYSTEM"], "com.norvane.quorvix", entry)
            self.assertIn(entry["QUORVIX_CATEGORY"], ("", "platform"), entry)
            self.assertIn(entry["PRIORITY"], ("5", "6"), entry)
            self.assertEqual(entry["_SYSTEMD_UNIT"], SERVICE)
        self.assertIn(("refreshPreferences: Hang Tracing Enabled", "6", ""),
                      [(entry["MESSAGE"], entry["PRIORITY"], entry["QUORVIX_CATEGORY"]) for entry in entries])

    def test_the_line_of_the_end_has_the_default_level(self):
        self.switch_on()
        MACHINE.ctl("prefs", "set", "QuorvixEnabled", "false")
        self.assert_down_but_well()
        entries = MACHINE.journal("SYSLOG_IDENTIFIER=quorvixd", since=self.before)
        self.assertIn(("quorvixd is exiting. All sources turned off", "5"),
                      [(entry["MESSAGE"], entry["PRIORITY"]) for entry in entries])

    def test_debug_entries_come_only_where_they_are_switched_on(self):
        self.assertFalse(self.debug_lines_of_an_ended_app())
        levels = MACHINE.path("/etc/vex/logging.plist")
        levels.parent.mkdir(exist_ok=True)
        self.addCleanup(levels.unlink)
        levels.write_text('<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict><key>com.norvane.quorvix</key>'
                          "<dict><key></key><string>debug</string></dict></dict></plist>")
        MACHINE.must("systemctl", "restart", SERVICE)
        self.assertTrue(self.debug_lines_of_an_ended_app())

    def debug_lines_of_an_ended_app(self):
        since = moment()
        self.switch_on()
        self.start_app("60")
        self.wait_watched()
        MACHINE.must("systemctl", "stop", "app.service")
        wait_until(lambda: not MACHINE.watched(), 15, "the end of the watch")
        return MACHINE.journal("SYSLOG_IDENTIFIER=quorvixd", "PRIORITY=7", since=since)

    def test_the_journal_does_not_suppress_entries(self):
        self.assertEqual(MACHINE.show(SERVICE)["LogRateLimitIntervalUSec"], "0")

    def test_a_hang_ends_as_a_report_and_in_the_counters(self):
        MACHINE.ctl("prefs", "set", "QuorvixEnableSwivex", "true")
        self.switch_on()
        self.start_app("60", "hang", "12", "after", "1")
        spool = MACHINE.path(SPOOL)
        report = wait_until(lambda: next(spool.glob("*.swivex"), None), 40, "the report")
        self.assertIn(b'"Reason"', report.read_bytes())
        self.assertEqual(list(MACHINE.path(CACHES + "/tmp").iterdir()), [])
        store = MACHINE.path("/var/lib/quorvix/tallisk.db")
        wait_until(store.exists, 30, "the store of the counters")
        self.assertEqual(mode("/var/lib/quorvix/tallisk.db"), "-rw------- root")
        wait_until(self.rows_about_the_app, 30, "the counters' rows")
        wait_until(MACHINE.path("/var/lib/prometheus/node-exporter/quorvix.prom").exists, 30, "the exported counters")

    def rows_about_the_app(self):
        with MACHINE.counter_store() as store:
            tables = [name for (name,) in store.execute("SELECT name FROM sqlite_schema WHERE type = 'table'")]
            return [row for table in tables for row in store.execute(f'SELECT * FROM "{table}"') if "quorvix_poll_app" in str(row)]


class StoryOfAnApp(UnitTest):
    """What the tool tells of one app, out of the real journal."""

    def now(self):
        """Nothing of the tests before this one."""
        return ["--since", time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(self.before // 1_000_000))]

    def story(self, *arguments):
        return [line["message"] for line in json.loads(MACHINE.ctl("log", *arguments, "--json"))]

    def test_it_tells_one_apps_hang_and_nothing_of_another_app(self):
        shutil.copy(MACHINE.path(APP), MACHINE.path("/usr/bin/quiet_app"))
        self.addCleanup(MACHINE.run, "systemctl", "stop", "quiet.service")
        MACHINE.ctl("prefs", "set", "QuorvixEnableSwivex", "true")
        pid = self.switch_on()["MainPID"]
        MACHINE.start_app("quiet", "/usr/bin/quiet_app", "60")
        wait_until(lambda: "quiet_app" in MACHINE.watched(), 15, "the quiet app")
        self.start_app("60", "hang", "12", "after", "1")
        wait_until(lambda: [entry for entry in MACHINE.journal("SYSLOG_IDENTIFIER=quorvixd", since=self.before)
                            if entry["MESSAGE"].startswith("Report written: ")], 40, "the report")
        now = self.now()
        story = self.story("--app", "quorvix_poll_app", *now)
        # The journal is asked by the second: a line of an earlier test's app may stand before this one's.
        connected = max(at for at, line in enumerate(story) if "Client started new connection" in line)
        hang, written = (next(at for at, line in enumerate(story[connected:]) if words in line)
                         for words in (": Hang detected ", "Report written: "))
        self.assertLess(hang, written)
        self.assertEqual([line for line in story if "quiet_app" in line], [])
        self.assertEqual(self.story("quorvix_poll_app", "--lines", "1", *now), story[-1:])
        of_the_quiet = self.story("--app", "quiet_app", *now)
        self.assertTrue(of_the_quiet)
        self.assertEqual([line for line in of_the_quiet if "Hang detected" in line or "Report written" in line], [])
        # By the number of its process, and as text for a person.
        number = next(process["pid"] for process in MACHINE.status()["watched"] if process["name"] == "quorvix_poll_app")
        self.assertIn(story[connected], self.story("--app", str(number), *now))
        self.assertIn(": Hang detected ", MACHINE.ctl("log", "quorvix_poll_app", *now))
        self.assertNotEqual(str(number), pid)

    def test_it_says_why_a_hang_went_without_a_report(self):
        self.switch_on()
        self.start_app("60", "hang", "12", "after", "1")
        asked = ("log", "quorvix_poll_app", *self.now())
        refused = wait_until(lambda: [line for line in json.loads(MACHINE.ctl(*asked, "--json")) if line["reason"]], 40,
                             "the refusal")
        self.assertEqual({line["reason"] for line in refused}, {"switched-off"})
        self.assertIn("(switched-off)", MACHINE.ctl(*asked))

    def test_of_an_app_that_was_never_there_it_tells_nothing(self):
        self.switch_on()
        result = MACHINE.run("quorvixctl", "log", "--app", "never_there")
        self.assertEqual((result.returncode, result.stdout), (0, ""))
        self.assertIn("tells nothing of never_there", result.stderr)


class MemorySnapshots(UnitTest):
    def setUp(self):
        super().setUp()
        for report in self.reports():
            report.unlink()

    def reports(self):
        return sorted(MACHINE.path(MEMORY_REPORTS).iterdir())

    def switch_snapshots_on(self):
        MACHINE.ctl("prefs", "set", "QuorvixMemoryLoggingInterval", "1")
        MACHINE.ctl("prefs", "set", "QuorvixEnableMemoryLogging", "true")
        return self.wait_up()

    def test_a_report_is_complete_although_its_folders_are_different_mounts(self):
        shown = self.switch_snapshots_on()
        mounts = {line.split()[4] for line in MACHINE.must("cat", f"/proc/{shown['MainPID']}/mountinfo").splitlines()}
        self.assertLessEqual({"/var/root/Library/Caches", MEMORY_REPORTS}, mounts)
        wait_until(lambda: len(self.reports()) > 1, 15, "two reports")
        MACHINE.must("systemctl", "stop", SERVICE)
        report = self.reports()[0]
        self.assertRegex(report.name, r"^memory-snapshot-\d{4}-\d\d-\d\d-\d{6}\.ips$")
        self.assertEqual(mode(f"{MEMORY_REPORTS}/{report.name}"), "-rw-r--r-- root")
        text = report.read_text()
        self.assertTrue(text.startswith('{"bug_type":"152","os_version":"Debian GNU/Linux 12 (???)"}\n'), text[:100])
        self.assertTrue(text.endswith(" }]\n}\n"), text[-100:])
        for part in ('{"ProcessName":"quorvixd", ', '{"ProcessName":"systemd", ', '{ "Name" : "dentry", ',
                     '{ "VM_KERN_MEMORY_STACK" : '):
            self.assertIn(part, text)
        # Everything that it may know, it knows: other users' programs, and functions of the kernel.
        self.assertNotIn("No_Name", text)
        self.assertNotIn('{ "site 0x', text)
        self.assertRegex(text, r'\{ "[a-z_.0-9]+" : \d+ \}')
        self.assertEqual([path.name for path in MACHINE.path(CACHES).iterdir() if path.is_file()], [])
        self.assertEqual(MACHINE.journal("SYSLOG_IDENTIFIER=quorvixd", "PRIORITY=5", since=self.before), [])

    def test_what_a_cut_off_snapshot_left_goes_at_the_next_start(self):
        name = "memory-snapshot-2026-01-15-120000.ips"
        left = [MACHINE.path(f"{CACHES}/{name}"), MACHINE.path(f"{MEMORY_REPORTS}/.{name}")]
        for path in left:
            path.write_text("half")
        self.switch_snapshots_on()
        self.assertEqual([path.exists() for path in left], [False, False])

    def test_a_missing_report_folder_is_made_before_the_start(self):
        MACHINE.path(MEMORY_REPORTS).rmdir()
        self.switch_snapshots_on()
        self.assertEqual(mode(MEMORY_REPORTS), "drwx------ root")
        wait_until(self.reports, 15, "a report")
