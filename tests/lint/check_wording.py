#!/usr/bin/env python3
"""Keeps references out of the tree that mean nothing to its readers: to documents they do not have, to folders of one
machine. Looks at every text file of the tree and, with --commits, at all commit messages.

    check_wording.py [--root FOLDER] [--commits]
"""
import argparse
import re
import subprocess
import sys
from pathlib import Path

# In halves, so that this file passes its own check.
PATTERNS = [re.compile(pattern, re.IGNORECASE) for pattern in (
    r"\bsp" r"ec\b",
    r"\bspeci" r"fications?\b",
    r"/wo" r"rk/",
)] + [re.compile(r"\bPa" r"rts? \d")]


# A column label of the console table, given as it stands.
GIVEN_LABEL = re.compile(r'"sp' r'ec"|(?<=   )sp' r'ec(?=  throttled)')


def findings(name, text):
    for number, line in enumerate(text.splitlines(), 1):
        line = GIVEN_LABEL.sub("", line)
        for pattern in PATTERNS:
            match = pattern.search(line)
            if match:
                yield f"{name}:{number}: \"{match.group()}\": {line.strip()[:100]}"


def git(root, *arguments):
    return subprocess.run(["git", "-c", f"safe.directory={root}", "-C", root, *arguments], capture_output=True,
                          check=True).stdout


def files(root):
    names = git(root, "ls-files", "-z", "--cached", "--others", "--exclude-standard")
    for name in sorted(set(names.decode().split("\0")) - {""}):
        path = root / name
        if path.is_file() and not path.is_symlink():
            content = path.read_bytes()
            yield name, "" if b"\0" in content[:8192] else content.decode(errors="replace")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--root", type=Path, default=Path(__file__).resolve().parents[2])
    parser.add_argument("--commits", action="store_true")
    arguments = parser.parse_args()
    root = arguments.root.resolve()
    found, looked_at = [], 0
    for name, text in files(root):
        looked_at += 1
        found += [*findings("file name", name), *findings(name, text)]
    if arguments.commits:
        for entry in git(root, "log", "-z", "--format=%h%n%B").decode(errors="replace").split("\0"):
            commit, _, message = entry.partition("\n")
            looked_at += 1
            found += findings(f"commit {commit}", message)
    print("\n".join([*found, f"{looked_at} texts, {len(found)} findings"]))
    return 1 if found or looked_at == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
