#!/usr/bin/env python3
"""Tests of coverage.py on a planted report: what is counted, and that each gap must have a reason."""
import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SCRIPT = Path(__file__).with_name("coverage.py")


def line(number, count, *branches):
    return {"line_number": number, "count": count, "branches": [{"count": taken} for taken in branches]}


class Coverage(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)
        (self.root / "hang").mkdir()
        (self.root / "hang/A.cpp").write_text("first();\n    second();\nthird();\n")

    def run_on(self, lines, reasons="", *options, file="hang/A.cpp"):
        (self.root / "report.json").write_text(json.dumps({"files": [{"file": file, "lines": lines}]}))
        (self.root / "reasons.txt").write_text(reasons)
        return subprocess.run([sys.executable, SCRIPT, self.root / "report.json", "--root", self.root, "--reasons",
                               self.root / "reasons.txt", *options], capture_output=True, text=True, check=False)

    def test_all_covered_is_good(self):
        result = self.run_on([line(1, 5, 3, 2), line(2, 1)])
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertRegex(result.stdout, r"in sum +100.00 % \(2 of 2\) +100.00 % \(2 of 2\)")

    def test_a_gap_needs_a_reason(self):
        gap = [line(1, 5, 3, 0), line(2, 0)]
        options = ("--lines", "0", "--branches", "0")
        without = self.run_on(gap, "hang/A.cpp: first();\n  can't be\n", *options)
        self.assertEqual(without.returncode, 1)
        self.assertIn("hang/A.cpp:2: line: second(); has no reason", without.stderr)
        both = self.run_on(gap, "# why\nhang/A.cpp: first();\nhang/A.cpp: second();\n  can't be\n", *options)
        self.assertEqual(both.returncode, 0, both.stderr)
        self.assertIn("hang/A.cpp:1: 1 of 2 branches: first();\n      can't be", both.stdout)

    def test_a_reason_for_what_is_covered_is_too_much(self):
        result = self.run_on([line(1, 1)], "hang/A.cpp: first();\n  can't be\n")
        self.assertEqual(result.returncode, 1)
        self.assertIn("has a reason and is covered", result.stderr)

    def test_below_the_goal_is_no_good(self):
        reasons = "hang/A.cpp: second();\n  can't be\n"
        self.assertEqual(self.run_on([line(1, 1), line(2, 0)], reasons, "--lines", "50").returncode, 0)
        self.assertEqual(self.run_on([line(1, 1), line(2, 0)], reasons, "--lines", "50.1").returncode, 1)
        self.assertEqual(self.run_on([line(1, 1), line(2, 1, 1, 0)], reasons, "--branches", "50.1").returncode, 1)

    def test_a_line_of_two_instances_is_one(self):
        result = self.run_on([line(1, 0, 0, 1), line(1, 1, 1)], "hang/A.cpp: first();\n  can't be\n", "--branches", "60")
        self.assertRegex(result.stdout, r"in sum +100.00 % \(1 of 1\) +66.67 % \(2 of 3\)")

    def test_what_is_no_subsystem_does_not_count(self):
        self.assertRegex(self.run_on([line(1, 0)], file="ctl/A.cpp").stdout, r"in sum +100.00 % \(0 of 0\)")


if __name__ == "__main__":
    unittest.main()
