"""Preferences that are missing, damaged, of the wrong kind or out of range, and that change all the time."""

import os
import pathlib
import signal
import subprocess
import threading
import time

import harness

STORE = harness.PREFERENCES / "com.norvane.da.plist"
MANAGED = pathlib.Path("/Library/Managed Preferences/mobile/.GlobalPreferences.plist")
EXIT_LINE = "<default> quorvixd is exiting. All sources turned off"


def property_list(content):
    return f'<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0">\n<dict>{content}</dict>\n</plist>\n'


def write(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    temporary = path.with_name(path.name + ".new")
    temporary.write_text(text)
    temporary.rename(path)


class AtStartUp(harness.DaemonTest):
    def expect_exit(self):
        daemon = self.world.launch()
        daemon.wait_ready()
        self.assertEqual(daemon.process.wait(30), 0)
        daemon.reader.join(30)
        self.assertTrue(daemon.has_line(EXIT_LINE))
        return daemon

    def test_missing_list_means_all_off(self):
        self.expect_exit()

    def test_all_switched_off(self):
        self.world.prefer("QuorvixEnabled", "false")
        self.expect_exit()

    def test_damaged_lists(self):
        for text in ("", "this is no list", property_list("<key>QuorvixEnabled</key><true/>")[:-20],
                     property_list("<key>QuorvixEnabled</key>"), property_list("<true/>"), "<plist>" * 5000,
                     "\0" * 4096, property_list("<key>QuorvixEnabled</key><true/>" + " " * (1 << 20))):
            with self.subTest(text=text[:60]):
                write(STORE, text)
                self.expect_exit()

    def test_list_that_is_a_folder(self):
        STORE.mkdir(parents=True)
        self.expect_exit()

    def test_damaged_list_is_moved_aside_by_the_first_write(self):
        write(STORE, "this is no list")
        self.world.prefer("QuorvixEnabled", "true")
        self.assertEqual((harness.PREFERENCES / "com.norvane.da.plist.damaged-1").read_text(), "this is no list")
        self.world.start()

    def test_switch_of_the_wrong_kind(self):
        for value in ("<string>true</string>", "<integer>0</integer>", "<real>nan</real>", "<data>AQ==</data>", "<array><true/></array>",
                      "<dict><key>a</key><true/></dict>", "<date>2026-01-31T23:59:59Z</date>", "<false/>"):
            with self.subTest(value=value):
                write(STORE, property_list(f"<key>QuorvixEnabled</key>{value}"))
                self.expect_exit()

    def test_switch_that_is_another_number(self):
        for value in ("<integer>-1</integer>", "<integer>2</integer>", "<real>0.5</real>", "<real>-infinity</real>"):
            with self.subTest(value=value):
                write(STORE, property_list(f"<key>QuorvixEnabled</key>{value}"))
                daemon = self.world.launch()
                daemon.wait_ready()
                daemon.wait_line("<info> refreshPreferences: Hang Tracing Enabled")
                self.assertEqual(daemon.end(), -signal.SIGTERM)

    def test_managed_profile_wins(self):
        self.world.prefer("QuorvixEnabled", "true")
        write(MANAGED, property_list("<key>QXProfile.QuorvixEnabled</key><false/>"))
        self.expect_exit()
        for text in ("damaged", property_list("<key>QXProfile.QuorvixEnabled</key><string>false</string>")):
            write(MANAGED, text)
            daemon = self.world.launch()
            daemon.wait_ready()
            daemon.wait_line("<info> refreshPreferences: Hang Tracing Enabled")
            daemon.end()


class WhileRunning(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        self.daemon = self.world.start()

    def apply(self, content):
        """Writes the list, posts it and waits until it is applied; gives the state then."""
        before = self.daemon.count_lines("refreshPreferences: App Activation Logging ")
        write(STORE, property_list("<key>QuorvixEnabled</key><true/>" + content))
        harness.ctl("notify", "com.norvane.quorvix.pref_changed")
        harness.wait_until(lambda: self.daemon.count_lines("refreshPreferences: App Activation Logging ") > before)
        return self.daemon.status()

    def test_all_switched_off_ends_the_daemon(self):
        client = self.world.watched_client(self.daemon)
        self.world.prefer("QuorvixEnabled", "false")
        self.assertEqual(self.daemon.process.wait(30), 0)
        self.daemon.reader.join(30)
        self.assertEqual(self.daemon.log()[-1], EXIT_LINE)
        with self.assertRaises(OSError):
            client.stop_watching()

    def test_list_damaged_while_running_ends_the_daemon_too(self):
        write(STORE, "no list any more")
        harness.ctl("notify", "com.norvane.quorvix.pref_changed")
        self.assertEqual(self.daemon.process.wait(30), 0)

    def test_report_period_out_of_range(self):
        for value, ticks in (("0", 0), ("-1", 0), ("-infinity", 0), ("nan", 0), ("infinity", 2**64 - 1), ("1e300", 2**64 - 1)):
            with self.subTest(value=value):
                state = self.apply(f"<key>QuorvixReportPeriod</key><real>{value}</real>")
                self.assertEqual(state["settings"]["reportPeriodTicks"], ticks)
        state = self.apply("<key>QuorvixReportPeriod</key><real>60</real>")
        self.assertAlmostEqual(state["settings"]["reportPeriodTicks"], 1_440_000_000, delta=1000)

    def test_daily_limit_out_of_range(self):
        for value, limit in (("<integer>0</integer>", 0), ("<integer>-5</integer>", -5), ("<integer>4294967297</integer>", 1),
                             ("<real>1e300</real>", 2**31 - 1), ("<real>-1e300</real>", -2**31), ("<real>nan</real>", 0),
                             ("<real>7.9</real>", 7), ("<true/>", 1)):
            with self.subTest(value=value):
                state = self.apply(f"<key>QuorvixDailyLogLimit</key>{value}")
                self.assertEqual(state["dailyCredits"], {"left": limit, "limit": limit})

    def test_values_of_the_wrong_kind_change_nothing(self):
        before = self.daemon.status()
        wrong = "".join(f"<key>{key}</key><string>12</string>" for key in
                        ("QuorvixReportPeriod", "QuorvixDailyLogLimit", "QuorvixEnableHUD", "QuorvixMemoryLoggingInterval",
                         "QuorvixEnableSwivex", "QuorvixEnableMemoryLogging", "QuorvixAppActivationLoggingMaxActivationCount",
                         "QuorvixAppActivationLoggingCPUUtilizationThreshold"))
        after = self.apply(wrong)
        self.assertEqual((after["settings"], after["dailyCredits"]), (before["settings"], before["dailyCredits"]))

    def test_memory_logging_interval_of_0_does_not_spin(self):
        state = self.apply("<key>QuorvixEnableMemoryLogging</key><true/><key>QuorvixMemoryLoggingInterval</key><integer>0</integer>")
        self.assertEqual(state["settings"]["memoryLoggingIntervalSeconds"], 0)
        before = self.turns()
        time.sleep(2)
        self.assertLess(self.turns() - before, 20)

    def turns(self):
        return self.daemon.platform("queues")["com.norvane.quorvix"]["turns"]

    def test_activation_limits_out_of_range(self):
        for value, count in (("<integer>-1</integer>", 2**32 - 1), ("<real>-1</real>", 0), ("<real>1e300</real>", 2**32 - 1), ("<real>nan</real>", 0)):
            state = self.apply(f"<key>QuorvixAppActivationLoggingMaxActivationCount</key>{value}")
            self.assertEqual(state["settings"]["maxActivationCount"], count)
        for value in ("0", "-1", "nan", "-infinity"):
            state = self.apply(f"<key>QuorvixAppActivationLoggingCPUUtilizationThreshold</key><real>{value}</real>")
            self.assertEqual(state["settings"]["cpuUtilizationThresholdMs"], 50)

    def test_changes_many_times_a_second(self):
        """Five writers at once, each with a key of its own, while a client goes on; the last values are in force."""
        client = self.world.watched_client(self.daemon)
        stop = threading.Event()

        def post():
            while not stop.is_set():
                pathlib.Path("/run/vex/notify/com.norvane.quorvix.pref_changed").write_text("x")
                stop.wait(0.001)

        poster = threading.Thread(target=post)
        poster.start()
        keys = ("QuorvixReportPeriod", "QuorvixDailyLogLimit", "QuorvixMemoryLoggingInterval",
                "QuorvixAppActivationLoggingMaxActivationCount", "QuorvixAppActivationLoggingCPUUtilizationThreshold")
        writers = [subprocess.Popen(["/bin/sh", "-c", f'for n in 1 2 3 4 5 6 7 8; do "{harness.BUILD}/bin/quorvixctl" prefs set {key} 1$n || exit 1; done'],
                                    stdout=subprocess.DEVNULL) for key in keys]
        client.hang_detected("between the changes")
        self.assertEqual([writer.wait() for writer in writers], [0] * len(writers))
        stop.set()
        poster.join()
        self.daemon.wait_line("(between the changes)")
        harness.wait_until(lambda: self.settled(), what="the last values")
        self.assertEqual([process["pid"] for process in self.daemon.status()["watched"]], [os.getpid()])

    def settled(self):
        state = self.daemon.status()
        settings = state["settings"]
        return (state["dailyCredits"]["limit"] == 18 and settings["memoryLoggingIntervalSeconds"] == 18 and settings["maxActivationCount"] == 18
                and settings["cpuUtilizationThresholdMs"] == 18 and abs(settings["reportPeriodTicks"] - 18 * 24_000_000) < 1000)
