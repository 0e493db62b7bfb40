#!/usr/bin/env python3
"""Tests of check_wording.py in a small repository of their own."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

CHECKER = Path(__file__).with_name("check_wording.py")
# In halves, so that this file passes the check.
UNWANTED = ["as the sp" + "ec says", "The Speci" + "fication", "see Pa" + "rt 2.3", "cd /wo" + "rk/tree"]


class Wording(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)
        self.git("init", "-q")
        self.commit("good text, a special part of it", "first")

    def git(self, *arguments):
        subprocess.run(["git", "-c", "user.name=t", "-c", "user.email=t@t", "-C", self.root, *arguments], check=True,
                       capture_output=True)

    def commit(self, text, message):
        (self.root / "file").write_text(text)
        self.git("add", "file")
        self.git("commit", "-q", "-m", message)

    def status(self, *arguments):
        return subprocess.run([sys.executable, CHECKER, "--root", self.root, *arguments], capture_output=True,
                              check=False).returncode

    def test_good_texts_pass(self):
        self.assertEqual(self.status("--commits"), 0)

    def test_each_unwanted_reference_is_found_in_a_file(self):
        for text in UNWANTED:
            with self.subTest(text):
                (self.root / "file").write_text(text)
                self.assertEqual(self.status(), 1)

    def test_a_commit_message_is_looked_at_when_asked(self):
        self.commit("good again", UNWANTED[0])
        self.assertEqual(self.status(), 0)
        self.assertEqual(self.status("--commits"), 1)

    def test_a_file_not_yet_added_is_looked_at(self):
        (self.root / "new").write_text(UNWANTED[3])
        self.assertEqual(self.status(), 1)


if __name__ == "__main__":
    unittest.main()
