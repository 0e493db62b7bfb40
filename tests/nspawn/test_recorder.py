"""The flight recorder's unit under a real service manager, with the recorder really on. The kernel has one of that name for
all machines: nothing is done where somebody else has it on."""

import json
import pathlib
import subprocess
import time
import unittest

from machine import RECORDER, SERVICE, wait_until

MACHINE = None  # set by run.py
BUILD = None  # likewise: what the demo is run from
ROOT = pathlib.Path(__file__).resolve().parents[2]
TRACING = "/sys/kernel/tracing"
INSTANCE = TRACING + "/instances/swivex"
# For somebody else's demo to end.
LONGEST_WAIT_FOR_OTHERS = 60
OTHERS = []  # the reason why the recorder is not ours to use, or nothing


def look_at_the_boot():
    # Here no service manager mounts it: that one wants a right that containers don't have.
    MACHINE.run("mount", "-t", "tracefs", "nodev", TRACING)
    if not MACHINE.path(TRACING + "/instances").is_dir():
        OTHERS.append("tracefs can't be mounted in the machine")
        return
    end = time.monotonic() + LONGEST_WAIT_FOR_OTHERS
    while is_on() and time.monotonic() < end:
        time.sleep(1)
    if is_on():
        OTHERS.append("somebody else has the flight recorder on")


def is_on():
    return MACHINE.path(INSTANCE).is_dir()


def instances():
    return {path.name for path in MACHINE.path(TRACING + "/instances").iterdir()}


class Recorder(unittest.TestCase):
    def setUp(self):
        if OTHERS:
            self.skipTest(OTHERS[0])
        self.addCleanup(MACHINE.run, "systemctl", "stop", RECORDER)
        # As on a device: the kernel is this machine's, and nobody else uses the recorder now.
        self.drop_in = MACHINE.path(f"/run/systemd/system/{RECORDER}.d/here.conf")
        self.drop_in.parent.mkdir(parents=True, exist_ok=True)
        self.drop_in.write_text("[Unit]\nConditionVirtualization=\n")
        MACHINE.must("systemctl", "daemon-reload")

    def as_in_a_container(self):
        self.drop_in.unlink()
        MACHINE.must("systemctl", "daemon-reload")

    def state(self):
        shown = MACHINE.show(RECORDER)
        return shown["ActiveState"], shown["Result"]

    def test_in_a_container_it_stays_off_and_that_is_no_failure(self):
        self.as_in_a_container()
        MACHINE.must("systemctl", "start", RECORDER)
        self.assertEqual((*self.state(), MACHINE.show(RECORDER)["ConditionResult"]), ("inactive", "success", "no"))
        self.assertFalse(is_on())

    def test_on_and_off_leave_nothing_behind(self):
        before = instances()
        for _ in range(3):
            MACHINE.must("systemctl", "start", RECORDER)
            self.assertEqual(self.state(), ("active", "success"))
            self.assertEqual(instances() - before, {"swivex"})
            shown = json.loads(MACHINE.ctl("recorder", "status", "--json"))
            self.assertTrue(shown["on"])
            self.assertNotIn("problem", shown)
            self.assertEqual(shown["clock"], "mono")
            self.assertEqual(shown["notRecorded"], [])
            self.assertGreater(sum(cpu["entries"] for cpu in shown["cpus"]), 0)
            MACHINE.must("systemctl", "stop", RECORDER)
            self.assertEqual(self.state(), ("inactive", "success"))
            self.assertEqual(instances(), before)
            self.assertFalse(json.loads(MACHINE.ctl("recorder", "status", "--json"))["on"])

    def test_started_again_it_keeps_what_it_holds(self):
        MACHINE.must("systemctl", "start", RECORDER)
        entries = sum(cpu["entries"] for cpu in json.loads(MACHINE.ctl("recorder", "status", "--json"))["cpus"])
        self.assertTrue(json.loads(MACHINE.ctl("recorder", "on", "--json"))["wasOn"])
        later = sum(cpu["entries"] for cpu in json.loads(MACHINE.ctl("recorder", "status", "--json"))["cpus"])
        self.assertGreaterEqual(later, entries)

    def test_its_sandbox_leaves_little_exposed(self):
        text = MACHINE.must("systemd-analyze", "security", "--no-pager", RECORDER)
        exposure = float(text.split(f"Overall exposure level for {RECORDER}:")[1].split()[0])
        print(f"{RECORDER}: exposure {exposure}", flush=True)
        self.assertLessEqual(exposure, 4.0)

    def test_a_report_of_the_machines_own_daemon_says_that_events_are_of_others_ids(self):
        """A container has process ids of its own: the events would tell of the wrong threads."""
        MACHINE.must("systemctl", "start", RECORDER)
        MACHINE.ctl("enable", "hang")
        self.addCleanup(MACHINE.ctl, "disable", "hang")
        MACHINE.start_app("app", "/usr/bin/quorvix_poll_app", "60", "hang", "20", "after", "1")
        self.addCleanup(MACHINE.run, "systemctl", "stop", "app")
        report = wait_until(lambda: next(iter(MACHINE.reports()), None), 40, "the report")
        document = json.loads(MACHINE.ctl("report", "show", report.name, "--json"))
        print(json.dumps({key: value for key, value in document.items() if key in ("verdict", "missing", "recorder")}), flush=True)
        self.assertIn("process namespace", json.dumps(document))
        self.assertEqual(MACHINE.show(SERVICE)["NRestarts"], "0")

    def test_with_the_recorder_that_the_unit_switched_on_a_hang_gets_its_verdict(self):
        """The daemon runs beside the machine, where ids are the kernel's, in a file system of its own."""
        MACHINE.must("systemctl", "start", RECORDER)
        shown = subprocess.run([ROOT / "demo/run", "--build", BUILD, "--hang", "blocked"], capture_output=True, text=True,
                               check=False, stdin=subprocess.DEVNULL, timeout=90)
        print(shown.stdout, flush=True)
        self.assertEqual(shown.returncode, 0, shown.stderr)
        self.assertIn("the flight recorder of this machine is on already", shown.stdout)
        why = shown.stdout[shown.stdout.index("== Why it hung"):]
        self.assertRegex(why, r"(?i)blocked")
        self.assertTrue(is_on(), "who did not switch it on does not switch it off")
