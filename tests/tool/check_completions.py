#!/usr/bin/env python3
"""Completes command lines of quorvixctl in the real shells, with the scripts that the tool prints."""
import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

BUILD = Path(os.environ.get("QUORVIX_BUILD", Path(__file__).resolve().parents[2] / "build" / "release"))
TOOL = BUILD / "bin/quorvixctl"
VERBS = {"status", "prefs", "notify", "activations", "activation", "memory", "counters", "budget", "log", "doctor",
         "completions", "recorder", "report", "enable", "disable"}


def script(shell):
    return subprocess.run([TOOL, "completions", shell], capture_output=True, text=True, check=True).stdout


class Shell(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def run_in(self, command, text):
        return subprocess.run(command, input=text, capture_output=True, text=True, check=True, cwd=self.folder,
                              env={"PATH": "/usr/bin:/bin", "HOME": str(self.folder), "TERM": "dumb"})


class Bash(Shell):
    def complete(self, *words):
        """What bash offers for the last of these words: the script is sourced and asked as bash asks it."""
        (self.folder / "script").write_text(script("bash"))
        array = " ".join(f"'{word}'" for word in words)
        result = self.run_in(["bash", "--norc"], f"set -eu; source ./script; COMP_WORDS=(quorvixctl {array})\n"
                             f"COMP_CWORD={len(words)}; function=$(complete -p quorvixctl); function=${{function#*-F }}\n"
                             "${function%% *}; printf '%s\\n' \"${COMPREPLY[@]}\"\n")
        self.assertEqual(result.stderr, "")
        return set(result.stdout.split())

    def test_verbs(self):
        self.assertLessEqual(VERBS, self.complete(""))
        self.assertEqual(self.complete("co"), {"counters", "completions"})

    def test_commands_of_a_verb(self):
        self.assertEqual(self.complete("prefs", ""), {"get", "set", "unset", "list"})

    def test_options_are_of_the_command_before_the_cursor(self):
        self.assertIn("--origin", self.complete("prefs", "list", "--"))
        self.assertNotIn("--origin", self.complete("prefs", "set", "--"))
        self.assertEqual(self.complete("doctor", "--j"), {"--json"})

    def test_values(self):
        self.assertIn("QuorvixEnabled", self.complete("prefs", "get", "Quorvix"))
        self.assertEqual(self.complete("prefs", "set", "--type", "u"), {"uint"})
        self.assertEqual(self.complete("log", "level", "d"), {"default", "debug"})

    def test_files(self):
        (self.folder / "a report.ips").write_text("")
        (self.folder / "report.ips").write_text("")
        self.assertIn("report.ips", self.complete("memory", "show", "rep"))

    def test_an_app_named_like_a_verb_changes_nothing(self):
        self.assertEqual(self.complete("counters", "prefs", "--j"), {"--json"})

    def test_a_programs_arguments_are_its_own(self):
        self.assertIn("bash", self.complete("activation", "run", "--", "bas"))


@unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
class Zsh(Shell):
    def complete(self, *words):
        """The words that the function hands to zsh's own: compadd and _describe are taken over."""
        (self.folder / "_quorvixctl").write_text(script("zsh"))
        array = " ".join(f"'{word}'" for word in words)
        result = self.run_in(["zsh", "-f"], "compdef() { :; }; compadd() { shift; print -l -- \"$@\"; }; _files() { print FILES; }\n"
                             "_message() { :; }; _describe() { print -l -- ${${(P)2}%%:*}; }; _command_names() { print COMMANDS; }\n"
                             f"source ./_quorvixctl\nf() {{ local -a words=(quorvixctl {array}); integer CURRENT={len(words) + 1}\n"
                             "_quorvixctl; }; f\n")
        self.assertEqual(result.stderr, "")
        return set(result.stdout.split())

    def test_verbs_commands_and_options(self):
        self.assertLessEqual(VERBS, self.complete(""))
        self.assertEqual(self.complete("prefs", ""), {"get", "set", "unset", "list"})
        self.assertIn("--origin", self.complete("prefs", "list", "-"))

    def test_values(self):
        self.assertEqual(self.complete("prefs", "set", "--type", ""), {"bool", "int", "uint", "real", "string"})
        self.assertEqual(self.complete("memory", "show", ""), {"FILES"})

    def test_zsh_takes_it_for_its_own_system(self):
        (self.folder / "_quorvixctl").write_text(script("zsh"))
        result = self.run_in(["zsh", "-f"], "fpath=($PWD $fpath); autoload -U compinit; compinit -u -D; print $_comps[quorvixctl]\n")
        self.assertEqual(result.stdout.strip(), "_quorvixctl")


@unittest.skipUnless(shutil.which("fish"), "fish is not installed")
class Fish(Shell):
    def complete(self, line):
        (self.folder / "script.fish").write_text(script("fish"))
        result = self.run_in(["fish", "--no-config", "-c", f"source ./script.fish; complete -C '{line}'"], "")
        self.assertEqual(result.stderr, "")
        return {offered.split("\t")[0] for offered in result.stdout.splitlines()}

    def test_verbs_commands_and_options(self):
        self.assertLessEqual(VERBS, self.complete("quorvixctl "))
        self.assertEqual(self.complete("quorvixctl prefs "), {"get", "set", "unset", "list"})
        self.assertIn("--origin", self.complete("quorvixctl prefs list --"))
        self.assertNotIn("--origin", self.complete("quorvixctl prefs set --"))

    def test_values(self):
        self.assertEqual(self.complete("quorvixctl log level d"), {"default", "debug"})
        self.assertEqual(self.complete("quorvixctl prefs set --type u"), {"uint"})


if __name__ == "__main__":
    unittest.main()
