"""The Debian packages on a bare system under its own service manager, from installing to purging. One story: each test
goes on where the one before it left off, in the order of their numbers."""

import json
import os
import pathlib
import shutil
import sqlite3
import subprocess
import tempfile
import time
import unittest

from machine import HELPER_UNITS, MEMORY_REPORTS, PATH_UNITS, PREFERENCES, RECORDER, SERVICE, SOCKET, SPOOL, wait_until

MACHINE = None  # set by run.py
BEFORE = set()  # the machine's files before anything was installed

INSTALLED = ("quorvixd", "quorvix-tools", "libquorvix0")
APPS = [f"app-{number}" for number in range(8)]
# What the service manager, the journal and the package manager write by themselves.
OF_THE_SYSTEM = ("/var/lib/dpkg/", "/var/log/", "/var/cache/", "/var/lib/systemd/catalog/", "/var/lib/systemd/timers/",
                 "/var/lib/systemd/random-seed", "/var/lib/systemd/coredump", "/var/tmp/", "/etc/.pwd.lock",
                 "/etc/machine-id")
LATER = "+later"


def prepare(root, packages, build):
    """The packages, those of a later version, an app and a trace library that never comes back, as files."""
    for folder in ("root/debs", "root/later", "root/stuck"):
        (root / folder).mkdir(parents=True)
    for name in INSTALLED:
        (package,) = packages.glob(f"{name}_*.deb")
        shutil.copy(package, root / "root/debs")
        make_later(package, root / "root/later")
    shutil.copy(build / "bin/quorvix_poll_app", root / "root/app")
    # The folder that the node exporter's package brings.
    (root / "var/lib/prometheus/node-exporter").mkdir(parents=True)
    shutil.copy(build / "standin/standin_swivex_stuck/libswivex.dylib", root / "root/stuck/libswivex.dylib")


def make_later(package, folder):
    """The same package under a later version."""
    with tempfile.TemporaryDirectory() as content:
        subprocess.run(["dpkg-deb", "--raw-extract", package, content], check=True)
        control = pathlib.Path(content, "DEBIAN/control")
        version = subprocess.run(["dpkg-deb", "--field", package, "Version"], check=True, capture_output=True,
                                 text=True).stdout.strip()
        control.write_text(control.read_text().replace(version, version + LATER))
        subprocess.run(["dpkg-deb", "--root-owner-group", "--build", content, str(folder / package.name)], check=True,
                       stdout=subprocess.DEVNULL)


def look_at_the_boot():
    BEFORE.update(files())


def files():
    """Every file and folder of the parts of the system that packages write to."""
    found = MACHINE.must("find", "/etc", "/usr", "/lib/systemd", "/var", "/Library", "/run/vex", "-xdev") \
        if MACHINE.path("/Library").exists() else MACHINE.must("find", "/etc", "/usr", "/lib/systemd", "/var", "-xdev")
    return {name for name in found.splitlines() if not name.startswith(OF_THE_SYSTEM)}


def dpkg(*arguments):
    result = MACHINE.run("dpkg", *arguments, seconds=90)
    if result.returncode != 0:
        raise AssertionError(f"dpkg {' '.join(arguments)} ended with {result.returncode}: {result.stdout}{result.stderr}")
    return result.stdout + result.stderr


def debs(folder):
    return [f"/root/{folder}/{path.name}" for path in sorted(MACHINE.path(f"/root/{folder}").iterdir())]


def counters():
    """What the store of the counters holds."""
    with MACHINE.counter_store() as store:
        try:
            return dict(store.execute("SELECT key, count FROM distribution"))
        except sqlite3.OperationalError:
            return {}


def use_trace_library(name):
    shutil.copy(MACHINE.path(f"/root/{name}"), MACHINE.path("/usr/lib/libswivex.dylib.new"))
    MACHINE.path("/usr/lib/libswivex.dylib.new").rename(MACHINE.path("/usr/lib/libswivex.dylib"))


class Packages(unittest.TestCase):
    story_ended = False

    def setUp(self):
        if Packages.story_ended:
            self.fail("an earlier step failed")

    def run(self, result=None):
        before = len(result.failures) + len(result.errors)
        super().run(result)
        if len(result.failures) + len(result.errors) > before and not Packages.story_ended:
            Packages.story_ended = True
            print(MACHINE.run("journalctl", "--no-pager", "-n", "60").stdout, flush=True)

    def assert_nothing_failed(self):
        self.assertEqual(MACHINE.failed_units(), "")

    def wait_all_watched(self, number=len(APPS)):
        wait_until(lambda: len(MACHINE.watched()) == number, 30, "the watched apps")

    def test_01_installing_starts_cleanly(self):
        dpkg("--install", *debs("debs"))
        self.assertEqual(MACHINE.must("dpkg", "--audit"), "")
        self.assertEqual(MACHINE.must("dpkg", "--verify", *INSTALLED), "")
        wait_until(lambda: MACHINE.show(SERVICE)["ActiveState"] == "inactive", 15, "the end of a daemon with nothing to do")
        self.assertEqual(MACHINE.show(SERVICE)["Result"], "success")
        self.assertNotEqual(MACHINE.show(SERVICE)["ActiveEnterTimestampMonotonic"], "0")
        self.assert_nothing_failed()

    def test_02_what_the_preset_names_is_switched_on_and_nothing_else(self):
        enabled = {unit: MACHINE.show(unit)["UnitFileState"]
                   for unit in (SERVICE, RECORDER, *PATH_UNITS, SOCKET, "quorvixd-prune.timer", "quorvixd-reports.path")}
        self.assertEqual(enabled, {**dict.fromkeys(enabled, "enabled"), SOCKET: "disabled"})
        for unit in (*PATH_UNITS, "quorvixd-prune.timer", "quorvixd-reports.path"):
            self.assertEqual(MACHINE.show(unit)["ActiveState"], "active", unit)
        # The flight recorder is not for containers.
        self.assertEqual((MACHINE.show(RECORDER)["ActiveState"], MACHINE.show(RECORDER)["ConditionResult"]), ("inactive", "no"))
        preset = MACHINE.must("cat", "/usr/lib/systemd/system-preset/50-quorvixd.preset")
        for unit, state in enabled.items():
            self.assertIn(f"{'enable' if state == 'enabled' else 'disable'} {unit}\n", preset)

    def test_03_systemd_finds_nothing_wrong_and_little_exposed(self):
        units = [f"/lib/systemd/system/{unit}" for unit in (SERVICE, *PATH_UNITS, SOCKET, *HELPER_UNITS)]
        result = MACHINE.run("systemd-analyze", "verify", "--man=no", *units)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))
        for unit in (SERVICE, "quorvixd-prune.service"):
            text = MACHINE.must("systemd-analyze", "security", "--no-pager", unit)
            exposure = float(text.split(f"Overall exposure level for {unit}:")[1].split()[0])
            print(f"{unit}: exposure {exposure}", flush=True)
            self.assertLessEqual(exposure, 4.0)

    def test_04_enabling_a_job_starts_the_daemon(self):
        MACHINE.ctl("enable", "hang")
        self.assertEqual(MACHINE.show(SERVICE)["ActiveState"], "active")
        settings = MACHINE.status()["settings"]
        self.assertTrue(settings["hangTracingEnabled"])
        self.assertTrue(settings["swivexEnabled"])
        MACHINE.ctl("enable", "memory")
        self.assertTrue(MACHINE.status()["settings"]["memoryLoggingEnabled"])

    def test_04b_the_doctor_finds_nothing_wrong_and_knows_a_container(self):
        result = MACHINE.run("quorvixctl", "doctor", "--json")
        findings = json.loads(result.stdout)["findings"]
        self.assertEqual([finding for finding in findings if finding["kind"] == "problem"], [], result.stdout)
        self.assertEqual(result.returncode, 0)
        (tracing,) = [finding for finding in findings if finding["area"] == "tracing"]
        self.assertIn("can't tell this container's processes", tracing["text"])
        self.assertIn("trace library", {finding["area"] for finding in findings if finding["kind"] == "good"})

    def test_05_a_hang_becomes_a_report_that_is_handed_on(self):
        hook = MACHINE.path("/etc/quorvix/report.d/note")
        hook.write_text('#!/bin/sh\necho "$1" >>/root/handed-on\n')
        hook.chmod(0o755)
        MACHINE.start_app("hanging", "/root/app", "60", "hang", "20", "after", "1")
        report = wait_until(lambda: next(iter(MACHINE.reports()), None), 40, "the report")
        noted = MACHINE.path("/root/handed-on")
        wait_until(noted.exists, 20, "the hand-over")
        self.assertEqual(noted.read_text(), f"{SPOOL}/{report.name}\n")
        MACHINE.must("systemctl", "start", "quorvixd-reports.service")
        self.assertEqual(len(noted.read_text().splitlines()), 1, "each report once")
        MACHINE.run("systemctl", "stop", "hanging")

    def test_05b_the_report_is_listed_and_shown(self):
        (report,) = MACHINE.reports()
        (listed,) = json.loads(MACHINE.ctl("report", "list", "--json"))
        self.assertEqual((listed["file"], listed["app"], listed["complete"]), (report.name, "app", True))
        shown = json.loads(MACHINE.ctl("report", "show", report.name, "--json"))
        # A container has no events of its own: that is all that stands in the way of another verdict.
        self.assertEqual((shown["verdict"]["cause"], listed["cause"]), ("unknown", "unknown"))
        self.assertTrue([frame for frame in shown["stack"] if "nanosleep" in frame["name"] + frame.get("symbol", "")], shown["stack"])
        self.assertIn("Verdict: unknown", MACHINE.ctl("report", "show", report.name))

    def test_05c_the_report_is_drawn(self):
        (report,) = MACHINE.reports()
        page = MACHINE.path("/root/page.html")
        MACHINE.must("quorvixctl", "report", "html", f"{SPOOL}/{report.name}", "--output", "/root/page.html")
        text = page.read_text()
        self.assertTrue(text.lstrip().lower().startswith("<!doctype html>"), text[:80])
        self.assertNotRegex(text, r"""(src|href)=["']?https?:""")
        page.unlink()

    def test_05d_the_counters_are_scraped(self):
        exporter = shutil.which("prometheus-node-exporter")
        if not exporter:
            self.skipTest("prometheus-node-exporter is not installed")
        export = MACHINE.path("/var/lib/prometheus/node-exporter/quorvix.prom")
        wait_until(export.exists, 60, "the exported counters")
        shutil.copy(exporter, MACHINE.path("/root/node-exporter"))
        MACHINE.start_app("exporter", "/root/node-exporter", "--web.listen-address=127.0.0.1:9100", "--collector.disable-defaults",
                          "--collector.textfile", f"--collector.textfile.directory=/var/lib/prometheus/node-exporter")
        scraped = wait_until(lambda: MACHINE.fetch("http://127.0.0.1:9100/metrics"), 20, "the exporter")
        MACHINE.run("systemctl", "stop", "exporter")
        self.assertIn("node_textfile_scrape_error 0", scraped)
        hangs = [line for line in scraped.splitlines() if line.startswith("quorvix_") and "app" in line]
        self.assertTrue(hangs, scraped)

    def test_06_the_journal_explains_the_hang(self):
        ids = {}
        for entry in MACHINE.journal("SYSLOG_IDENTIFIER=quorvixd"):
            if "MESSAGE_ID" in entry:
                ids[entry["MESSAGE_ID"]] = entry["MESSAGE"]
        hang = next(key for key, text in ids.items() if ": Hang detected " in text)
        self.assertTrue(any(text.startswith("Report written: ") for text in ids.values()))
        explained = MACHINE.must("journalctl", "--no-pager", "-x", "-t", "quorvixd", f"MESSAGE_ID={hang}")
        self.assertIn("Subject: An app's main thread did not finish its work in time", explained)
        self.assertIn("What to do next", explained)

    def test_06b_the_journal_explains_a_refused_report(self):
        MACHINE.ctl("prefs", "set", "QuorvixEnableSwivex", "false")
        MACHINE.start_app("hanging", "/root/app", "60", "hang", "20", "after", "1")
        refused = wait_until(lambda: [entry for entry in MACHINE.journal("QUORVIX_REASON=switched-off")], 40, "the refusal")
        explained = MACHINE.must("journalctl", "--no-pager", "-x", f"MESSAGE_ID={refused[0]['MESSAGE_ID']}")
        self.assertIn("Subject: No report of this hang has been written: switched-off", explained)
        self.assertIn("quorvixctl enable hang", explained)
        MACHINE.run("systemctl", "stop", "hanging")
        MACHINE.ctl("prefs", "set", "QuorvixEnableSwivex", "true")

    def test_07_pruning_runs_in_its_sandbox_and_keeps_the_newest(self):
        spool = MACHINE.path(SPOOL)
        for number in range(3):
            old = spool / f"main-old-2026-01-0{number + 1}-120000.swivex"
            old.write_text("old")
            moment = time.time() - (90 - number) * 24 * 3600
            os.utime(old, (moment, moment))
        kept = len(MACHINE.reports()) - 2
        MACHINE.must("systemctl", "start", "quorvixd-prune.service")
        self.assertEqual(MACHINE.show("quorvixd-prune.service")["Result"], "success")
        self.assertEqual(len(MACHINE.reports()), kept)
        self.assertTrue((spool / "main-old-2026-01-03-120000.swivex").exists())

    def test_08_killed_under_load_it_watches_its_apps_again(self):
        for name in APPS:
            MACHINE.start_app(name, "/root/app", "3600")
        hanging = [f"hanging-{number}" for number in range(4)]
        for name in hanging:
            MACHINE.start_app(name, "/root/app", "300", "hang", "240", "after", "1")
        MACHINE.start_app("messages", "/bin/sh", "-c", "while :; do for verb in begin end; do "
                          "quorvixctl activation $verb --pid $$ --bundle com.example.load; done; done")
        self.wait_all_watched(len(APPS) + len(hanging))
        for _ in range(3):
            before = MACHINE.show(SERVICE)["MainPID"]
            MACHINE.must("systemctl", "kill", "--signal=KILL", SERVICE)
            wait_until(lambda: MACHINE.show(SERVICE)["MainPID"] not in ("0", before) and MACHINE.status(), 20, "the restart")
            self.wait_all_watched(len(APPS) + len(hanging))
            wait_until(lambda: MACHINE.status()["platform"]["messages"]["messages"] > 20, 20, "messages")
        MACHINE.must("systemctl", "stop", "messages", *hanging)
        self.wait_all_watched()
        self.assert_nothing_failed()

    def test_09_a_stuck_queue_is_seen_and_ended(self):
        """The daemon's queue waits for ever in the trace library; its other threads are well."""
        original = MACHINE.path("/usr/lib/libswivex.dylib").read_bytes()
        use_trace_library("stuck/libswivex.dylib")
        folder = MACHINE.path(f"/run/systemd/system/{SERVICE}.d")
        folder.mkdir(parents=True)
        (folder / "quick.conf").write_text("[Service]\nWatchdogSec=4s\n")
        MACHINE.must("systemctl", "daemon-reload")
        MACHINE.must("systemctl", "restart", SERVICE)
        before = MACHINE.show(SERVICE)
        self.wait_all_watched()
        time.sleep(6)
        self.assertEqual(MACHINE.show(SERVICE)["MainPID"], before["MainPID"], "a daemon that is well is left alone")
        MACHINE.start_app("hanging-again", "/root/app", "30", "hang", "20", "after", "1")
        wait_until(lambda: int(MACHINE.show(SERVICE)["NRestarts"]) > int(before["NRestarts"]), 40, "the watchdog")
        self.assertTrue([entry for entry in MACHINE.journal(f"UNIT={SERVICE}") if "Watchdog timeout" in entry["MESSAGE"]])
        MACHINE.run("systemctl", "stop", "hanging-again")
        MACHINE.path("/root/original").write_bytes(original)
        use_trace_library("original")
        shutil.rmtree(folder)
        MACHINE.must("systemctl", "daemon-reload")
        MACHINE.must("systemctl", "restart", SERVICE)
        self.wait_all_watched()

    def test_10_upgrading_keeps_stores_preferences_and_watched_apps(self):
        wait_until(counters, 30, "the stored counters")
        before, shown, kept = counters(), MACHINE.show(SERVICE), [path.name for path in MACHINE.reports()]
        lists = {path.name: path.read_bytes() for path in MACHINE.path(PREFERENCES).glob("*.plist")}
        self.assertTrue(lists)
        dpkg("--install", *debs("later"))
        self.assertTrue(MACHINE.must("dpkg-query", "-W", "-f", "${Version}", "quorvixd").endswith(LATER))
        wait_until(lambda: MACHINE.show(SERVICE)["ActiveState"] == "active" and MACHINE.status(), 20, "the new daemon")
        self.assertNotEqual(MACHINE.show(SERVICE)["MainPID"], shown["MainPID"])
        self.wait_all_watched()
        self.assertEqual({path.name: path.read_bytes() for path in MACHINE.path(PREFERENCES).glob("*.plist")}, lists)
        self.assertLessEqual(before.items(), counters().items())
        self.assertEqual([path.name for path in MACHINE.reports()], kept)
        self.assertTrue(MACHINE.path("/etc/quorvix/report.d/note").exists())
        for unit in (*PATH_UNITS, "quorvixd-prune.timer", "quorvixd-reports.path"):
            self.assertEqual(MACHINE.show(unit)["ActiveState"], "active", unit)
        self.assert_nothing_failed()

    def test_11_an_upgrade_starts_no_unit_that_was_switched_off(self):
        MACHINE.must("systemctl", "disable", "--now", "quorvixd-prune.timer")
        dpkg("--install", *debs("later"))
        self.assertEqual(MACHINE.show("quorvixd-prune.timer")["UnitFileState"], "disabled")
        MACHINE.must("systemctl", "enable", "--now", "quorvixd-prune.timer")

    def test_12_removing_ends_the_daemon_and_keeps_data(self):
        dpkg("--remove", "quorvixd", "quorvix-tools")
        self.assertFalse(MACHINE.path("/usr/sbin/quorvixd").exists())
        self.assertFalse(MACHINE.path("/run/vex").exists())
        self.assertEqual(MACHINE.must("systemctl", "list-units", "--all", "--plain", "--no-legend", "--state=active",
                                      "quorvixd*"), "")
        self.assertTrue(MACHINE.reports())
        self.assertTrue(counters())
        self.assertTrue(list(MACHINE.path(PREFERENCES).glob("*.plist")))
        # The apps live on.
        for name in APPS:
            self.assertEqual(MACHINE.show(f"{name}.service")["ActiveState"], "active")
            MACHINE.run("systemctl", "stop", name)

    def test_13_purging_leaves_the_users_data_only(self):
        MACHINE.run("systemctl", "stop", *APPS)
        # The administrator's own, and what this test put there.
        MACHINE.path("/etc/quorvix/report.d/note").unlink(missing_ok=True)
        dpkg("--purge", *INSTALLED)
        left = files() - BEFORE
        data = {name for name in left if name.startswith((SPOOL, PREFERENCES, MEMORY_REPORTS))}
        parents = {str(parent) for name in data for parent in pathlib.Path(name).parents}
        self.assertEqual(sorted(left - data - parents), [])
        self.assertTrue(MACHINE.reports())
        self.assertTrue(list(MACHINE.path(PREFERENCES).glob("*.plist")))
        self.assertEqual(sorted(BEFORE - files()), [])
        self.assert_nothing_failed()

    def test_14_installing_again_finds_the_preferences(self):
        dpkg("--install", *debs("debs"))
        wait_until(lambda: MACHINE.show(SERVICE)["ActiveState"] == "active" and MACHINE.status(), 20, "the daemon")
        self.assertTrue(MACHINE.status()["settings"]["hangTracingEnabled"])

    def test_15_the_init_script_does_without_the_service_manager(self):
        MACHINE.must("systemctl", "stop", *PATH_UNITS, SERVICE)
        shutil.rmtree(MACHINE.path("/run/vex"))

        def script(action):
            # Or the functions that it uses would hand it to the service manager, which runs here.
            return MACHINE.run("env", "_SYSTEMCTL_SKIP_REDIRECT=1", "/etc/init.d/quorvixd", action).returncode
        self.assertEqual(script("status"), 3)
        self.assertEqual(script("start"), 0)
        pid = wait_until(MACHINE.status, 15, "the daemon")["pid"]
        self.assertEqual(script("start"), 0)
        self.assertEqual(script("status"), 0)
        self.assertEqual(MACHINE.status()["pid"], pid)
        self.assertEqual(script("restart"), 0)
        wait_until(lambda: (MACHINE.status() or {"pid": pid})["pid"] != pid, 15, "another daemon")
        self.assertEqual(script("stop"), 0)
        self.assertIsNone(MACHINE.status())
        self.assertEqual(script("stop"), 0)
