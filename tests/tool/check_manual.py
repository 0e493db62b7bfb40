#!/usr/bin/env python3
"""Compares the manual with what it is about: the tool's commands and options, the library's functions; and has mandoc
read every page."""
import json
import os
import re
import shutil
import subprocess
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("QUORVIX_BUILD", ROOT / "build" / "release"))
TOOL = BUILD / "bin/quorvixctl"
PAGES = sorted([*(ROOT / "man").glob("*.[1-8]"), *(BUILD / "man").glob("*.[1-8]")])
FORMATS = {"quorvix-preferences", "quorvix-messages", "quorvix-channel", "quorvix-memory-snapshot", "quorvix-power-log",
           "quorvix-counters"}
HEADERS = ["client/quorvix.h", "client/quorvix_poll.h", "client/quorvix_glib.h", "platform/quorvix_ticks.h"]
# Not for apps: what a macro of the header needs.
INNER_FUNCTIONS = {"quorvix_glib_poll"}


def shown(page):
    """The page as a reader sees it, without overstriking, lines of a paragraph joined."""
    return re.sub(r".\x08", "", subprocess.run(["mandoc", "-T", "ascii", "-O", "width=200", page], capture_output=True, text=True,
                                                check=True).stdout)


def see_also(page):
    """The pages that a page sends its reader to."""
    return set(re.findall(r"^\.Xr (\S+) \d", page.read_text().partition(".Sh SEE ALSO\n")[2].replace("\\-", "-"), re.M))


def help_of(path):
    return subprocess.run([TOOL, *path, "--help"], capture_output=True, text=True, check=True).stdout


def commands_by_help(path=()):
    """Every command that the tool's own --help leads to, with the options that it names there."""
    text = help_of(path)
    yield path, set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", text.partition("Options:")[2].partition("Subcommands:")[0]))
    for name in re.findall(r"^  (\S+)", text.partition("Subcommands:")[2], re.M):
        yield from commands_by_help((*path, name))


@unittest.skipUnless(shutil.which("mandoc"), "mandoc is not installed")
class Manual(unittest.TestCase):
    def test_every_page_is_there(self):
        names = {page.stem for page in PAGES}
        self.assertLessEqual({"quorvixd", "quorvixctl", "libquorvix"} | FORMATS, names)
        self.assertEqual("quorvix-hang-report" in names, (ROOT / "docs/hang-report.md").exists())

    def test_mandoc_has_nothing_to_say(self):
        for page in PAGES:
            result = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True, text=True, check=False)
            self.assertEqual((result.stdout, result.returncode), ("", 0), page)

    def test_pages_lead_to_each_other(self):
        names = {page.stem for page in PAGES}
        formats = {page.stem for page in PAGES if page.suffix == ".5"}
        for page in PAGES:
            with self.subTest(page.stem):
                others = see_also(page)
                self.assertNotIn(page.stem, others)
                self.assertLessEqual(others, names | {"journalctl"})
                if page.stem in formats:
                    self.assertLessEqual({"quorvixctl", "quorvixd"}, others)
                    self.assertTrue(others & formats)
                else:
                    self.assertLessEqual(formats, others)

    def test_the_tools_page_tells_help_as_the_tool_does(self):
        """Values begin with small letters, and would be refused with others."""
        page = " ".join(shown(BUILD / "man/quorvixctl.1").split())
        table = json.loads(subprocess.run([TOOL, "completions", "--json"], capture_output=True, text=True, check=True).stdout)

        def texts(command):
            yield command["help"]
            yield from (option["help"] for option in command["options"] if "--help" not in option["names"])
            for inner in command["commands"]:
                yield from texts(inner)
        told = [text for verb in table["commands"] for text in texts(verb)]
        self.assertGreater(len(told), 60)
        for text in told:
            self.assertIn(text, page)

    def test_the_tools_page_has_every_command_and_option_of_its_help(self):
        page = shown(BUILD / "man/quorvixctl.1")
        lines = [line.strip() for line in page[page.index("\nCOMMANDS"):page.index("\nENVIRONMENT")].splitlines()]
        commands = dict(commands_by_help())
        self.assertGreater(len(commands), 25)
        heading = re.compile(r"((?:[a-z]+)(?: [a-z]+)*)((?: [A-Z|]+)*)$")
        # Where each command begins: its words, and its operands in capitals.
        begins = {}
        for index, line in enumerate(lines):
            match = heading.match(line)
            if match and tuple(match[1].split()) in commands:
                begins[tuple(match[1].split())] = index
        self.assertEqual(set(begins), set(commands) - {()})
        ends = sorted(begins.values()) + [len(lines)]
        for path, options in commands.items():
            has_own_words = not any(other[:-1] == path for other in commands if other) or path in {("log",)}
            if not path or not has_own_words:
                continue
            end = next(end for end in ends if end > begins[path])
            documented = {line.split()[0] for line in lines[begins[path]:end] if line.startswith("--")}
            self.assertEqual(documented, options - {"--help"}, " ".join(path))

    def test_the_librarys_page_has_every_function_of_the_headers(self):
        declared = set()
        for header in HEADERS:
            text = re.sub(r"/\*.*?\*/", "", (ROOT / header).read_text(), flags=re.S)
            text = re.sub(r"^#.*(\\\n.*)*", "", text, flags=re.M)
            declared |= set(re.findall(r"^(?:QUORVIX_PUBLIC|static inline)[^;{=]*?\b(quorvix_\w+)\s*\(", text, re.M))
        documented = set(re.findall(r"^\.Fo (\w+)$", (ROOT / "man/libquorvix.3").read_text(), re.M))
        self.assertGreater(len(declared), 25)
        self.assertEqual(documented, declared - INNER_FUNCTIONS)
        described = set(re.findall(r"^\.Fn (\w+)", (ROOT / "man/libquorvix.3").read_text(), re.M))
        self.assertEqual(described, documented)

    def test_the_table_of_commands_is_what_help_says(self):
        table = json.loads(subprocess.run([TOOL, "completions", "--json"], capture_output=True, text=True, check=True).stdout)

        def walk(command, path):
            yield path, {name for option in command["options"] for name in option["names"] if name.startswith("--")}
            for inner in command["commands"]:
                yield from walk(inner, (*path, inner["name"]))
        self.assertEqual(dict(walk(table, ())), dict(commands_by_help()))


if __name__ == "__main__":
    unittest.main()
