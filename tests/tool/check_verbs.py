#!/usr/bin/env python3
"""What every command of quorvixctl has in common, whatever it is for: help, JSON, a status for scripts, and colours for
people only. On an empty system of its own: nothing is installed there, and nothing runs."""
import json
import os
import pty
import subprocess
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("QUORVIX_BUILD", ROOT / "build" / "release")).resolve()
TOOL = BUILD / "bin/quorvixctl"
STATUSES = {0, 1, 2, 3}
# What a command must have beside its words, to get beyond its command line.
ARGUMENTS = {
    "prefs get": ["QuorvixEnabled"], "prefs set": ["QuorvixEnabled", "false"], "prefs unset": ["QuorvixEnabled"],
    "notify": ["com.example.posted"], "activations show": ["12"], "activation run": ["true"],
    "activation begin": ["--bundle", "app", "--pid", "1"], "activation end": ["--bundle", "app", "--pid", "1"],
    "memory show": ["nothing.ips"], "memory diff": ["nothing.ips", "none.ips"], "recorder on": ["--instance", "quorvix/none"],
    "recorder off": ["--instance", "quorvix-none"], "recorder status": ["--instance", "quorvix-none"],
    "report show": ["nothing.swivex"], "report export": ["nothing.swivex"], "report html": ["nothing.swivex"],
    "enable": ["memory"], "disable": ["memory"], "log": ["app"],
}


def run(*arguments, alone=True):
    """Runs the tool; alone: on the empty system."""
    around = [ROOT / "demo/private-root"] if alone else []
    return subprocess.run([*around, TOOL, *arguments], capture_output=True, text=True, stdin=subprocess.DEVNULL, check=False,
                          timeout=60, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TERM": "xterm", "HOME": "/root"})


def commands():
    """Every command that does something: its words -> its options."""
    def walk(command, path):
        if path and (not command["commands"] or command["operands"]):
            yield " ".join(path), {name for option in command["options"] for name in option["names"]}
        for inner in command["commands"]:
            yield from walk(inner, (*path, inner["name"]))
    return dict(walk(json.loads(run("completions", "--json", alone=False).stdout), ()))


class EveryCommand(unittest.TestCase):
    def for_each(self):
        found = commands()
        self.assertGreater(len(found), 25)
        for words, options in found.items():
            with self.subTest(words):
                yield words, options

    def test_has_help_and_json(self):
        for words, options in self.for_each():
            self.assertLessEqual({"--help", "--json"}, options)
            helped = run(*words.split(), "--help", alone=False)
            self.assertEqual((helped.returncode, helped.stderr), (0, ""))
            self.assertIn("Usage: quorvixctl " + words, helped.stdout)

    def test_that_is_not_understood_ends_with_2_and_does_nothing(self):
        for words, _ in self.for_each():
            result = run(*words.split(), "--no-such-option", alone=False)
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertRegex(result.stderr, r"\Aquorvixctl: .+\n\Z")

    def test_that_lacks_its_operands_says_so_with_the_tools_name(self):
        for words in sorted(words for words in ARGUMENTS if not words.startswith("recorder") and words != "log"):
            with self.subTest(words):
                result = run(*words.split(), alone=False)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertRegex(result.stderr, r"\Aquorvixctl: .+\n\Z")

    def test_that_does_not_exist_is_named(self):
        for words in (["bogus"], ["prefs", "bogus"], ["help"]):
            result = run(*words, alone=False)
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertTrue(result.stderr.startswith(f'quorvixctl: "{words[-1]}" is not a command'), result.stderr)


@unittest.skipIf(os.geteuid() != 0, "needs root")
class EveryCommandOnAnEmptySystem(unittest.TestCase):
    for_each = EveryCommand.for_each

    def test_says_json_or_says_nothing_on_standard_output(self):
        for words, _ in self.for_each():
            result = run(*words.split(), "--json", *ARGUMENTS.get(words, []))
            self.assertIn(result.returncode, STATUSES)
            if result.returncode == 0:
                json.loads(result.stdout)
            elif words == "doctor":
                self.assertEqual(result.returncode, 1)
                json.loads(result.stdout)
            elif words == "completions":
                json.loads(result.stdout)
            else:
                self.assertEqual(result.stdout, "")

    def test_says_why_on_standard_error_when_it_fails(self):
        for words, _ in self.for_each():
            result = run(*words.split(), *ARGUMENTS.get(words, []))
            self.assertIn(result.returncode, STATUSES)
            if result.returncode not in (0, 1) or (result.returncode == 1 and words != "doctor"):
                self.assertTrue(result.stderr.startswith("quorvixctl: "), result.stderr)
            self.assertNotIn("\033", result.stdout + result.stderr)

    def test_that_needs_the_daemon_ends_with_3(self):
        for words in ("status", "budget", "activation begin", "activation end"):
            with self.subTest(words):
                self.assertEqual(run(*words.split(), *ARGUMENTS.get(words, [])).returncode, 3)

    def test_has_colours_on_a_terminal_only(self):
        outer, inner = pty.openpty()
        with open(inner, "wb", buffering=0) as terminal:
            doctor = subprocess.Popen([ROOT / "demo/private-root", TOOL, "doctor"], stdin=subprocess.DEVNULL, stdout=terminal,
                                      stderr=subprocess.DEVNULL, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TERM": "xterm"})
        self.addCleanup(doctor.wait)
        shown = b""
        try:
            while piece := os.read(outer, 65536):
                shown += piece
        except OSError:
            pass  # the end of a terminal
        os.close(outer)
        self.assertIn(b"\033[", shown)
        self.assertNotIn("\033[", run("doctor").stdout)


if __name__ == "__main__":
    unittest.main()
