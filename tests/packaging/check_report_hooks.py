#!/usr/bin/env python3
"""What hands new reports on: every executable gets every report once, whatever the report's name."""
import subprocess
import tempfile
import unittest
from pathlib import Path

SCRIPT = Path(__file__).resolve().parents[2] / "packaging/report-hooks"


class ReportHooks(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)
        for name in ("spool", "hooks"):
            (self.root / name).mkdir()
        self.hook("10-note", f'printf "%s\\0" "$1" >>"{self.root}/noted"')

    def hook(self, name, body, mode=0o755):
        path = self.root / "hooks" / name
        path.write_text(f"#!/bin/sh\n{body}\n")
        path.chmod(mode)

    def report(self, name):
        (self.root / "spool" / name).write_text("report")

    def run_hooks(self):
        return subprocess.run([SCRIPT, *(self.root / name for name in ("spool", "hooks", "state"))], capture_output=True,
                              text=True, check=False, timeout=60).returncode

    def noted(self):
        path = self.root / "noted"
        names = path.read_text().split("\0")[:-1] if path.exists() else []
        return sorted(Path(name).relative_to(self.root / "spool").name for name in names)

    def test_each_report_is_handed_on_once(self):
        self.report("a.swivex")
        self.assertEqual(self.run_hooks(), 0)
        self.report("b.swivex")
        self.assertEqual(self.run_hooks(), 0)
        self.assertEqual(self.run_hooks(), 0)
        self.assertEqual(self.noted(), ["a.swivex", "b.swivex"])

    def test_names_of_every_kind_are_handed_on_as_they_are(self):
        names = sorted(["two words", "$(touch x)", "a\nb", "-rf", "*", ".hidden", "..dots", "'\"", "x" * 255])
        for name in names:
            self.report(name)
        self.assertEqual(self.run_hooks(), 0)
        self.assertEqual(self.noted(), names)
        self.assertEqual(self.run_hooks(), 0)
        self.assertEqual(self.noted(), names)

    def test_one_that_fails_gets_the_report_again_and_holds_no_other_up(self):
        self.hook("20-fail", f'case "$1" in *bad*) [ -e "{self.root}/mended" ] ;; esac')
        self.report("bad.swivex")
        self.report("good.swivex")
        self.assertEqual(self.run_hooks(), 1)
        self.assertEqual(self.noted(), ["bad.swivex", "good.swivex"])
        (self.root / "mended").write_text("")
        self.assertEqual(self.run_hooks(), 0)
        self.assertEqual(self.noted(), ["bad.swivex", "bad.swivex", "good.swivex"])

    def test_a_report_that_comes_in_meanwhile_is_handed_on_too(self):
        self.hook("20-late", f'[ -e "{self.root}/spool/late" ] || : >"{self.root}/spool/late"')
        self.report("early")
        self.assertEqual(self.run_hooks(), 0)
        self.assertEqual(self.noted(), ["early", "late"])

    def test_what_is_not_executable_and_what_is_no_file_is_left_alone(self):
        self.hook("30-off", "exit 1", mode=0o644)
        (self.root / "spool/folder").mkdir()
        (self.root / "spool/link").symlink_to("/etc/passwd")
        self.report("a")
        self.assertEqual(self.run_hooks(), 0)
        self.assertEqual(self.noted(), ["a"])

    def test_what_it_remembers_goes_with_the_report(self):
        self.report("a")
        self.run_hooks()
        (self.root / "spool/a").unlink()
        self.run_hooks()
        self.assertEqual([path for path in (self.root / "state").rglob("*") if path.is_file()], [])


if __name__ == "__main__":
    unittest.main()
