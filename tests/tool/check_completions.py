#!/usr/bin/env python3
"""Completes command lines of quorvixctl in the real shells, with the scripts that the tool prints."""
import os
import pty
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

    def script_with_reports(self, shell):
        """The script, with folders of reports of our own in the place of the daemon's."""
        text = script(shell)
        for name, suffix in (("/var/root/Library/Caches/quorvixd/spool", "swivex"), ("/Library/Logs/Faultbox", "ips")):
            self.assertIn(name, text)
            folder = self.folder / suffix
            folder.mkdir(exist_ok=True)
            (folder / f"kept.{suffix}").write_text("")
            (folder / f"kept too.{suffix}").write_text("")
            (folder / "kept.other").write_text("")
            text = text.replace(name, str(folder))
        return text

    def run_in(self, command, text):
        return subprocess.run(command, input=text, capture_output=True, text=True, check=True, cwd=self.folder,
                              env={"PATH": "/usr/bin:/bin", "HOME": str(self.folder), "TERM": "dumb"})


class Bash(Shell):
    def complete(self, *words):
        """What bash offers for the last of these words: the script is sourced and asked as bash asks it."""
        (self.folder / "script").write_text(self.script_with_reports("bash"))
        array = " ".join(f"'{word}'" for word in words)
        result = self.run_in(["bash", "--norc"], f"set -eu; compopt() {{ echo \"$@\" > options; }}; source ./script; COMP_WORDS=(quorvixctl {array})\n"
                             f"COMP_CWORD={len(words)}; function=$(complete -p quorvixctl); function=${{function#*-F }}\n"
                             "${function%% *}; printf '%s\\n' \"${COMPREPLY[@]}\"\n")
        self.assertEqual(result.stderr, "")
        return set(filter(None, result.stdout.split("\n")))

    def typed(self, line):
        """The arguments with which the tool is called when this is typed at a terminal, a tabulator for each "\\t"."""
        (self.folder / "script").write_text(self.script_with_reports("bash"))
        (self.folder / "rc").write_text("bind 'set enable-bracketed-paste off'; bind 'set bell-style none'\n"
                                        "quorvixctl() { printf '%s\\n' \"$@\" > arguments; }; source ./script\n")
        outer, inner = pty.openpty()
        with open(inner, "wb", buffering=0) as terminal:
            bash = subprocess.Popen(["bash", "--noprofile", "--rcfile", "rc", "-i"], stdin=terminal, stdout=terminal,
                                    stderr=terminal, cwd=self.folder, start_new_session=True,
                                    env={"PATH": "/usr/bin:/bin", "HOME": str(self.folder), "TERM": "dumb", "PS1": "$ "})
        os.write(outer, f"{line}\nexit\n".encode())
        try:
            while os.read(outer, 65536):
                pass
        except OSError:
            pass  # the end of a terminal
        os.close(outer)
        bash.wait()
        return (self.folder / "arguments").read_text().splitlines()

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
        self.assertEqual(self.complete("report", "export", "--format", ""), {"text", "json"})

    def test_a_value_is_no_key(self):
        self.assertIn("QuorvixEnabled", self.complete("prefs", "set", "--type", "bool", "--force", ""))
        self.assertEqual(self.complete("prefs", "set", "QuorvixEnabled", ""), set())
        self.assertEqual(self.complete("enable", "hang", ""), set())

    def test_a_file_with_a_blank_is_one_argument(self):
        (self.folder / "the report.ips").write_text("")
        self.assertEqual(self.typed("quorvixctl memory show t\t"), ["memory", "show", "the report.ips"])
        self.assertEqual(self.typed("quorvixctl memory show --json the\\ r\t"), ["memory", "show", "--json", "the report.ips"])
        self.assertEqual(self.typed("quorvixctl report html --output ./t\t"), ["report", "html", "--output", "./the report.ips"])

    def test_reports_are_offered_by_their_names(self):
        for words in (["report", "show"], ["report", "export", "--json"], ["report", "html"]):
            self.assertEqual(self.complete(*words, ""), {"kept.swivex", "kept too.swivex"})
        self.assertEqual(self.complete("memory", "diff", "kept.ips", "kep"), {"kept.ips", "kept too.ips"})
        self.assertEqual(self.complete("memory", "diff", "kept.ips", "./kep"), set())
        self.assertEqual(self.typed("quorvixctl report show kept\\ \t"), ["report", "show", "kept too.swivex"])

    def test_an_app_named_like_a_verb_changes_nothing(self):
        self.assertEqual(self.complete("counters", "prefs", "--j"), {"--json"})

    def test_a_programs_arguments_are_its_own(self):
        self.assertIn("bash", self.complete("activation", "run", "--", "bas"))
        self.assertNotIn("bash", self.complete("activation", "run", "--", "sh", "bas"))


@unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
class Zsh(Shell):
    def complete(self, *words):
        """The words that the function hands to zsh's own: compadd and _describe are taken over."""
        (self.folder / "_quorvixctl").write_text(self.script_with_reports("zsh"))
        array = " ".join(f"'{word}'" for word in words)
        result = self.run_in(["zsh", "-f"], "compdef() { :; }; compadd() { shift; print -l -- \"$@\"; }; _files() { print FILES; }\n"
                             "_message() { :; }; _describe() { print -l -- ${${(P)2}%%:*}; }; _command_names() { print COMMANDS; }\n"
                             f"source ./_quorvixctl\nf() {{ local -a words=(quorvixctl {array}); integer CURRENT={len(words) + 1}\n"
                             "_quorvixctl; }; f\n")
        self.assertEqual(result.stderr, "")
        return set(filter(None, result.stdout.split("\n")))

    def test_verbs_commands_and_options(self):
        self.assertLessEqual(VERBS, self.complete(""))
        self.assertEqual(self.complete("prefs", ""), {"get", "set", "unset", "list"})
        self.assertIn("--origin", self.complete("prefs", "list", "-"))

    def test_values(self):
        self.assertEqual(self.complete("prefs", "set", "--type", ""), {"bool", "int", "uint", "real", "string"})
        self.assertEqual(self.complete("report", "export", "--format", ""), {"text", "json"})
        self.assertEqual(self.complete("prefs", "set", "--force", "QuorvixEnabled", ""), set())
        self.assertEqual(self.complete("memory", "show", ""), {"FILES", "kept.ips", "kept too.ips"})
        self.assertEqual(self.complete("report", "show", "--json", ""), {"FILES", "kept.swivex", "kept too.swivex"})
        self.assertEqual(self.complete("report", "html", "--output", ""), {"FILES"})

    def test_zsh_takes_it_for_its_own_system(self):
        (self.folder / "_quorvixctl").write_text(script("zsh"))
        result = self.run_in(["zsh", "-f"], "fpath=($PWD $fpath); autoload -U compinit; compinit -u -D; print $_comps[quorvixctl]\n")
        self.assertEqual(result.stdout.strip(), "_quorvixctl")


@unittest.skipUnless(shutil.which("fish"), "fish is not installed")
class Fish(Shell):
    def complete(self, line):
        (self.folder / "script.fish").write_text(self.script_with_reports("fish"))
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
        self.assertEqual(self.complete("quorvixctl report export --format "), {"text", "json"})
        self.assertIn("QuorvixEnabled", self.complete("quorvixctl prefs set --type bool Quorvix"))
        self.assertEqual(self.complete("quorvixctl prefs set QuorvixEnabled "), set())

    def test_files(self):
        (self.folder / "a report.ips").write_text("")
        self.assertEqual(self.complete("quorvixctl memory show a"), {"a report.ips"})
        self.assertEqual(self.complete("quorvixctl report show --json kep"), {"kept.swivex", "kept too.swivex"})


if __name__ == "__main__":
    unittest.main()
