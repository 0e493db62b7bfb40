#!/usr/bin/env python3
"""Tests of check_threat_model.py on a planted page: that evidence which is nowhere is found."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

CHECKER = Path(__file__).with_name("check_threat_model.py")


class ThreatModel(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)
        self.plant("tests/linux/FilesTest.cpp", "TEST_F(FilesTest, NeverOpensALink) {")
        self.plant("tests/swivex/stacks/AStacksTest.cpp", "TEST(Stacks, End) {")
        self.plant("tests/e2e/test_reports.py", "    def test_daily_limit(self):")
        self.plant("fuzz/CodecFuzz.cpp", "")
        self.plant("dev", "        fuzz) run_fuzz ;;\n        test) run_tests ;;")

    def plant(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text + "\n")

    def check(self, evidence):
        self.plant("docs/threat-model.md", f"| promise | by | {evidence} |")
        return subprocess.run([sys.executable, CHECKER, self.root], capture_output=True, text=True, check=False)

    def test_what_is_there_is_no_finding(self):
        for evidence in ("`linux Files*`", "`linux *ALink:Files*`", "`stacks Stacks*`", "`e2e test_daily`", "`e2e test_reports`",
                         "`test_daily_limit`", "`./dev fuzz CodecFuzz`, `CodecFuzz`", "`./dev test --all`", "`SO_PEERCRED`", "words"):
            with self.subTest(evidence):
                self.assertEqual(self.check(evidence).returncode, 0)

    def test_what_is_nowhere_is_found(self):
        for evidence in ("`linux Gone*`", "`linux Files*:Gone*`", "`unit Files*`", "`swivex Stacks*`", "`e2e test_gone`",
                         "`test_gone`", "`./dev fuzz GoneFuzz`", "`GoneFuzz`", "`./dev gone`"):
            with self.subTest(evidence):
                result = self.check(evidence)
                self.assertEqual(result.returncode, 1)
                self.assertIn("1 promises without their evidence", result.stdout)


if __name__ == "__main__":
    unittest.main()
