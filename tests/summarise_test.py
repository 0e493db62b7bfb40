#!/usr/bin/env python3
"""Tests of summarise.py: that nothing which went wrong can be summed up as passed."""
import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SUMMARISE = Path(__file__).with_name("summarise.py")


class Summarise(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.results = self.folder / "results"

    def call(self, verb, *arguments):
        return subprocess.run([sys.executable, SUMMARISE, verb, "--results", self.results, *arguments],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)

    def last_line_and_status(self):
        total = self.call("total")
        return total.stdout.splitlines()[-1], total.returncode

    def google_test(self, script):
        """A stand-in for a test binary, listed by a real CMake test file."""
        binary = self.folder / "small_tests"
        binary.write_text("#!/bin/sh\nreport=\"${1#--gtest_output=json:}\"\n" + script)
        binary.chmod(0o755)
        (self.folder / "CTestTestfile.cmake").write_text(f'add_test(small "{binary}")\n')
        self.call("binaries", "--name", "fake", "--build", self.folder)

    def report(self, *tests):
        entries = [{"name": name, "result": "SKIPPED" if outcome == "skip" else "COMPLETED",
                    **({"failures": [{"failure": "why"}]} if outcome == "fail" else {})} for name, outcome in tests]
        content = json.dumps({"testsuites": [{"name": "Suite", "testsuite": entries}]})
        return f"cat > \"$report\" <<'END'\n{content}\nEND\n"

    def test_counts_passed_and_skipped(self):
        self.google_test(self.report(("A", "pass"), ("B", "pass"), ("C", "skip")))
        self.assertEqual(self.last_line_and_status(), ("2 passed, 0 failed, 1 skipped", 0))

    def test_counts_a_failed_test(self):
        self.google_test(self.report(("A", "pass"), ("B", "fail")) + "exit 1\n")
        self.assertEqual(self.last_line_and_status(), ("1 passed, 1 failed", 1))

    def test_a_crash_counts_as_failed_beside_what_passed_before(self):
        self.google_test("echo '[ RUN      ] Suite.A'\necho '[       OK ] Suite.A (0 ms)'\n"
                         "echo '[ RUN      ] Suite.B'\nkill -SEGV $$\n")
        self.assertEqual(self.last_line_and_status(), ("1 passed, 1 failed", 1))
        self.assertIn("Suite.B, killed by signal 11", self.call("total").stdout)

    def test_a_bad_exit_status_without_a_failed_test_counts_as_failed(self):
        self.google_test(self.report(("A", "pass")) + "exit 99\n")
        self.assertEqual(self.last_line_and_status(), ("1 passed, 1 failed", 1))

    def test_a_binary_without_tests_counts_as_failed(self):
        self.google_test(self.report())
        self.assertEqual(self.last_line_and_status(), ("0 passed, 1 failed", 1))

    def test_only_skipped_tests_count_as_failed(self):
        self.google_test(self.report(("A", "skip")))
        self.assertEqual(self.last_line_and_status(), ("0 passed, 1 failed, 1 skipped", 1))

    def test_a_sanitizer_finding_of_a_child_counts_as_failed(self):
        (self.results / "sanitizer").mkdir(parents=True)
        (self.results / "sanitizer" / "found.123").write_text("heap-use-after-free")
        self.google_test(self.report(("A", "pass")))
        self.assertEqual(self.last_line_and_status(), ("1 passed, 1 failed", 1))
        self.assertIn("heap-use-after-free", self.call("total").stdout)

    def test_a_sanitizer_line_in_the_output_counts_as_failed(self):
        self.google_test(self.report(("A", "pass")) + "echo 'a.cpp:9:79: runtime error: signed integer overflow'\n")
        self.assertEqual(self.last_line_and_status(), ("1 passed, 1 failed", 1))

    def test_a_binary_that_is_not_there_counts_as_failed(self):
        (self.folder / "CTestTestfile.cmake").write_text(f'add_test(small "{self.folder}/gone_tests")\n')
        self.call("binaries", "--name", "fake", "--build", self.folder)
        self.assertEqual(self.last_line_and_status(), ("0 passed, 1 failed", 1))

    def test_a_build_without_tests_counts_as_failed(self):
        (self.folder / "CTestTestfile.cmake").write_text("")
        self.call("binaries", "--name", "fake", "--build", self.folder)
        self.assertEqual(self.last_line_and_status(), ("0 passed, 1 failed", 1))

    def test_a_command_that_does_not_end_counts_as_failed(self):
        self.call("command", "--name", "slow", "--timeout", "0.2", "--", "sleep", "30")
        self.assertEqual(self.last_line_and_status(), ("0 passed, 1 failed", 1))

    def test_python_tests_count_one_by_one(self):
        tests = self.folder / "three.py"
        tests.write_text("import unittest\nclass T(unittest.TestCase):\n def test_a(self): pass\n"
                         " def test_b(self): self.fail()\n @unittest.skip('why')\n def test_c(self): pass\n")
        report = self.folder / "own.json"
        self.call("report", "--name", "own", "--json", report, "--", sys.executable,
                  SUMMARISE.with_name("run_unittests.py"), tests, report)
        self.assertEqual(self.last_line_and_status(), ("1 passed, 1 failed, 1 skipped", 1))

    def test_a_report_is_taken_over(self):
        self.reporting('{"passed": 3, "failed": 2, "skipped": 1}', 1)
        self.assertEqual(self.last_line_and_status(), ("3 passed, 2 failed, 1 skipped", 1))

    def test_a_missing_report_counts_as_failed(self):
        self.call("report", "--name", "own", "--json", self.folder / "none.json", "--", "true")
        self.assertEqual(self.last_line_and_status(), ("0 passed, 1 failed", 1))

    def test_a_good_report_with_a_bad_exit_status_counts_as_failed(self):
        self.reporting('{"passed": 3, "failed": 0, "skipped": 0}', 1)
        self.assertEqual(self.last_line_and_status(), ("3 passed, 1 failed", 1))

    def test_a_report_of_skipped_tests_alone_is_neither_passed_nor_failed(self):
        self.reporting('{"passed": 0, "failed": 0, "skipped": 2}', 0)
        self.assertEqual(self.last_line_and_status(), ("0 passed, 0 failed, 2 skipped", 1))

    def test_an_empty_report_counts_as_failed(self):
        self.reporting('{"passed": 0, "failed": 0, "skipped": 0}', 0)
        self.assertEqual(self.last_line_and_status(), ("0 passed, 1 failed", 1))

    def test_nothing_at_all_is_not_success(self):
        self.assertEqual(self.last_line_and_status(), ("0 passed, 0 failed", 1))

    def reporting(self, content, status):
        report = self.folder / "own.json"
        self.call("report", "--name", "own", "--json", report, "--", "sh", "-c",
                  f"echo '{content}' > {report}; exit {status}")


if __name__ == "__main__":
    unittest.main()
