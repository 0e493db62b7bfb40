#!/usr/bin/env python3
"""No promise without its evidence: every test and every command that docs/threat-model.md names is there.

    tests/lint/check_threat_model.py [ROOT]

Looks at what stands between backquotes in the tables: "GROUP FILTER" for GoogleTest, "e2e PART", "TEST_NAME" of
a Python test, "./dev COMMAND", and the names of fuzz targets. Ends with 1 where one of them is nowhere.
"""

import fnmatch
import pathlib
import re
import sys

# Where the tests of a group stand. What stands deeper is another group's.
GROUPS = {"unit": ("service", "hang", "activation", "perfstats", "memsnapshot", "platform", "sim"), "contract": ("contract",),
          "linux": ("linux",), "ctl": ("ctl",), "swivex": ("swivex",), "stacks": ("swivex/stacks",)}
TEST = re.compile(r"^TEST(?:_[FP])?\((\w+), (\w+)\)", re.MULTILINE)


def names_of(root, group):
    return [f"{suite}.{name}" for folder in GROUPS[group] for file in sorted((root / "tests" / folder).glob("*.cpp"))
            for suite, name in TEST.findall(file.read_text())]


def python_tests(root, folder):
    return [name for file in sorted((root / "tests" / folder).glob("*.py"))
            for name in re.findall(r"def (test_\w+)", file.read_text())]


def missing(root, token):
    """What of this token is nowhere; None: it is no evidence, or all of it is there."""
    word, _, rest = token.partition(" ")
    if word in GROUPS and rest:
        names = names_of(root, word)
        gone = [part for part in rest.split(":") if not any(fnmatch.fnmatchcase(name, part) for name in names)]
        return f"no test of {word} is called {', '.join(gone)}" if gone else None
    if word == "e2e" and rest:
        files = [file.stem for file in (root / "tests/e2e").glob("test_*.py")]
        known = python_tests(root, "e2e") + files
        return None if any(rest in name for name in known) else f"no end-to-end test is called {rest}"
    if re.fullmatch(r"test_\w+", token):
        known = [name for folder in ("nspawn", "packaging", "e2e", "valgrind") for name in python_tests(root, folder)]
        return None if token in known else f"no test is called {token}"
    if word == "./dev":
        command = rest.split()[0]
        if not re.search(rf"^        {command}\)", (root / "dev").read_text(), re.MULTILINE):
            return f"./dev has no {command}"
        token = rest.split()[1] if command == "fuzz" else ""
    if re.fullmatch(r"\w+Fuzz", token):
        return None if (root / "fuzz" / f"{token}.cpp").exists() else f"there is no fuzz target {token}"
    return None


def findings(root):
    tables = [line for line in (root / "docs/threat-model.md").read_text().splitlines() if line.startswith("| ")]
    return [problem for line in tables for token in re.findall(r"`([^`]+)`", line) if (problem := missing(root, token))]


def main():
    root = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else pathlib.Path(__file__).resolve().parents[2]
    found = findings(root)
    for problem in found:
        print(f"docs/threat-model.md: {problem}")
    print(f"{len(found)} promises without their evidence")
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
