#!/usr/bin/env python3
"""Checks the units of packaging/: systemd's own verification, and the folders that tmpfiles makes, in a temporary root.
What needs a tool that is not installed is skipped."""
import os
import re
import shutil
import stat
import subprocess
import tempfile
import unittest
from pathlib import Path

PACKAGING = Path(__file__).resolve().parents[2] / "packaging"
PATH_UNITS = ("quorvixd.path", "quorvixd-activations.path", "quorvixd-profile.path")
UNITS = ("quorvixd.service", *PATH_UNITS, "quorvixd.socket", "quorvixd-recorder.service", "quorvixd-prune.timer",
         "quorvixd-prune.service", "quorvixd-reports.path", "quorvixd-reports.service")
TMPFILES = PACKAGING / "tmpfiles.d" / "quorvixd.conf"


def security(unit):
    return subprocess.run(["systemd-analyze", "security", "--no-pager", "--offline=yes", PACKAGING / unit],
                          capture_output=True, text=True, check=False).stdout


def lines_of(unit, key):
    return [line.partition("=")[2] for line in (PACKAGING / unit).read_text().splitlines() if line.startswith(key + "=")]


class Units(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)

    def test_the_path_units_watch_one_file_each_and_can_not_loop(self):
        for unit in PATH_UNITS:
            self.assertEqual(len(lines_of(unit, "PathChanged")), 1)
            for key in ("PathExists", "PathExistsGlob", "DirectoryNotEmpty", "PathModified"):
                self.assertEqual(lines_of(unit, key), [])

    def test_the_daemon_is_not_started_by_its_clients(self):
        self.assertNotIn("quorvixd.socket", " ".join(lines_of("quorvixd.service", "Also")))
        self.assertEqual(lines_of("quorvixd.service", "Requires") + lines_of("quorvixd.service", "Wants"), [])

    def test_ending_with_everything_off_is_not_a_failure(self):
        self.assertEqual(lines_of("quorvixd.service", "Restart"), ["on-failure"])

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
    def test_systemd_accepts_the_units(self):
        # Copies whose program is one that exists here: that the daemon is not installed is no fault of the unit.
        for unit in UNITS:
            text = (PACKAGING / unit).read_text()
            for program in ("/usr/sbin/quorvixd", "/usr/sbin/quorvixctl", "/usr/lib/quorvix/report-hooks"):
                text = re.sub(rf"(?m)^(Exec\w+=){program}\b", r"\1/bin/true", text)
            (self.root / unit).write_text(text)
        result = subprocess.run(["systemd-analyze", "verify", "--man=no", *(self.root / unit for unit in UNITS)],
                                env={**os.environ, "SYSTEMD_UNIT_PATH": f"{self.root}:"}, capture_output=True, text=True,
                                check=False)
        complaints = [line for line in result.stderr.splitlines() if "quorvixd" in line]
        self.assertEqual(complaints, [])
        self.assertEqual(result.returncode, 0, result.stderr)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
    def test_the_verification_finds_a_fault(self):
        (self.root / "bad.service").write_text("[Service]\nExecStart=/bin/true\nRestart=sometimes\n")
        result = subprocess.run(["systemd-analyze", "verify", "--man=no", self.root / "bad.service"], capture_output=True,
                                text=True, check=False)
        self.assertIn("sometimes", result.stderr)

    @unittest.skipUnless(shutil.which("systemd-tmpfiles") and os.geteuid() == 0, "needs systemd-tmpfiles and root")
    def test_tmpfiles_makes_the_folders_and_empties_tmp_only(self):
        self.tmpfiles("--create")
        self.assertEqual(self.mode("var/root/Library/Caches"), 0o700)
        self.assertEqual(self.mode("run/vex/notify"), 0o755)
        self.assertEqual(self.mode("var/lib/quorvix"), 0o700)
        reports = self.root / "var/root/Library/Caches/quorvixd"
        (reports / "tmp/half").write_text("")
        (reports / "spool/whole").write_text("")
        self.before_a_start()
        self.assertEqual(list((reports / "tmp").iterdir()), [])
        self.assertTrue((reports / "spool/whole").exists())

    @unittest.skipUnless(shutil.which("systemd-tmpfiles") and os.geteuid() == 0, "needs systemd-tmpfiles and root")
    def test_what_a_cut_off_memory_snapshot_left_goes_before_a_start_and_reports_stay(self):
        self.tmpfiles("--create")
        name = "memory-snapshot-2026-01-15-120000.ips"
        left = [self.root / f"var/root/Library/Caches/quorvixd/{name}", self.root / f"Library/Logs/Faultbox/.{name}"]
        kept = [self.root / f"Library/Logs/Faultbox/{name}", self.root / "Library/Logs/Faultbox/.other"]
        for path in left + kept:
            path.write_text("")
        self.before_a_start()
        self.assertEqual([path.exists() for path in left + kept], [False, False, True, True])

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
    def test_little_is_exposed(self):
        for unit in ("quorvixd.service", "quorvixd-prune.service", "quorvixd-recorder.service"):
            exposure = float(security(unit).split(f"Overall exposure level for {unit}:")[1].split()[0])
            self.assertLessEqual(exposure, 4.0)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
    def test_what_is_exposed_has_its_reason_in_the_unit(self):
        for unit in ("quorvixd.service", "quorvixd-recorder.service"):
            text = (PACKAGING / unit).read_text()
            reasons = text[text.index("CapabilityBoundingSet="):text.index("\n[Install]")]
            exposed = re.findall(r"(?m)^✗ ([A-Za-z]+=(?:~(?!CAP_)[@\w]+)?)", security(unit))
            self.assertGreater(len(exposed), 5)
            for setting in exposed:
                self.assertRegex(reasons, rf"(?m)^# .*{setting}|^{setting}", unit)
        text = (PACKAGING / "quorvixd.service").read_text()
        for capability in " ".join(lines_of("quorvixd.service", "CapabilityBoundingSet")).split():
            self.assertRegex(text, rf"#.*{capability}\b")

    @unittest.skipUnless(shutil.which("systemd-tmpfiles") and os.geteuid() == 0, "needs systemd-tmpfiles and root")
    def test_without_tmpfiles_the_same_folders_are_made(self):
        other = self.root / "other"
        self.root = self.root / "one"
        for root in (self.root, other):
            for name in ("run", "var/lib", "Library"):
                (root / name).mkdir(parents=True)
        self.tmpfiles("--create", "--remove")
        for _ in range(2):
            subprocess.run([PACKAGING / "make-folders", other], check=True)

        def folders(root):
            return {str(path.relative_to(root)): stat.S_IMODE(path.stat().st_mode) for path in root.rglob("*")}
        self.assertEqual(folders(other), folders(self.root))
        left = [other / "var/root/Library/Caches/quorvixd/tmp/half", other / "Library/Logs/Faultbox/.memory-snapshot-x.ips"]
        kept = other / "var/root/Library/Caches/quorvixd/spool/report"
        for path in [*left, kept]:
            path.write_text("")
        subprocess.run([PACKAGING / "make-folders", other], check=True)
        self.assertEqual([path.exists() for path in [*left, kept]], [False, False, True])

    def before_a_start(self):
        """What the unit runs, with the root and the list of this test."""
        (command,) = lines_of("quorvixd.service", "ExecStartPre")
        self.assertTrue(command.startswith("+/usr/bin/systemd-tmpfiles "), command)
        self.tmpfiles(*command.split()[1:])

    def tmpfiles(self, *arguments):
        result = subprocess.run(["systemd-tmpfiles", f"--root={self.root}", *arguments, TMPFILES], capture_output=True,
                                text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stderr)

    def mode(self, name):
        return stat.S_IMODE((self.root / name).stat().st_mode)


if __name__ == "__main__":
    unittest.main()
