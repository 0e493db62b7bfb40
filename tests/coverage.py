#!/usr/bin/env python3
"""Says how much of the subsystems the unit tests reach, from gcovr's JSON, and what they do not and why.

    tests/coverage.py REPORT.json [--reasons tests/coverage-reasons.txt] [--lines 95] [--branches 90]

Branches that only an exception takes, and those that can't be reached, gcovr has left out. Ends with 1 below the goal,
where something is not covered and has no reason, and where a reason is given for what is covered.
"""

import argparse
import collections
import json
import pathlib
import sys

SUBSYSTEMS = ("service", "hang", "activation", "perfstats", "memsnapshot")


class Sum:
    """Covered and all, of lines or branches."""

    def __init__(self):
        self.covered = self.all = 0

    def add(self, count):
        self.all += 1
        self.covered += count > 0

    def percent(self):
        return 100 * self.covered / self.all if self.all else 100.0

    def __str__(self):
        return f"{self.percent():6.2f} % ({self.covered} of {self.all})"


def read_reasons(path):
    """Paragraphs: lines "FILE: SOURCE LINE", and below them, indented, the reason of them all."""
    reasons = {}
    for paragraph in path.read_text().split("\n\n"):
        lines = [line for line in paragraph.splitlines() if line.strip() and not line.startswith("#")]
        reason = " ".join(line.strip() for line in lines if line.startswith(" "))
        places = [tuple(line.split(": ", 1)) for line in lines if not line.startswith(" ")]
        if places and not reason:
            raise SystemExit(f"coverage: no reason follows {places[0][0]}: {places[0][1]}")
        reasons.update(dict.fromkeys(places, reason))
    return reasons


def missed_of(lines):
    """Line numbers with what is missing there."""
    missed = {}
    for number, (count, branches) in sorted(lines.items()):
        open_branches = sum(taken == 0 for taken in branches)
        if count == 0:
            missed[number] = "line"
        elif open_branches:
            missed[number] = f"{open_branches} of {len(branches)} branches"
    return missed


def lines_of(file):
    """By line number: how often it ran, and each of its branches. A line stands in several functions where it is a
    template's."""
    lines = {}
    for line in file["lines"]:
        if line.get("gcovr/noncode") or line.get("gcovr/excluded"):
            continue
        branches = [branch["count"] for branch in line["branches"]]
        count, known = lines.get(line["line_number"], (0, []))
        lines[line["line_number"]] = (count + line["count"], known + branches)
    return lines


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("report")
    parser.add_argument("--reasons", default="tests/coverage-reasons.txt")
    parser.add_argument("--lines", type=float, default=95)
    parser.add_argument("--branches", type=float, default=90)
    parser.add_argument("--root", default=".")
    arguments = parser.parse_args()
    reasons = read_reasons(pathlib.Path(arguments.reasons))
    sums = collections.defaultdict(lambda: (Sum(), Sum()))
    gaps, used = [], set()
    for file in json.loads(pathlib.Path(arguments.report).read_text())["files"]:
        subsystem = file["file"].split("/")[0]
        if subsystem not in SUBSYSTEMS:
            continue
        source = (pathlib.Path(arguments.root) / file["file"]).read_text().splitlines()
        lines = lines_of(file)
        for count, branches in lines.values():
            for name in (subsystem, "in sum"):
                sums[name][0].add(count)
                for taken in branches:
                    sums[name][1].add(taken)
        for number, what in missed_of(lines).items():
            place = (file["file"], source[number - 1].strip())
            used.add(place)
            gaps.append((f"{file['file']}:{number}: {what}: {place[1]}", reasons.get(place)))

    print(f"{'':12} {'lines':24} branches")
    for name in (*SUBSYSTEMS, "in sum"):
        print(f"{name:12} {str(sums[name][0]):24} {sums[name][1]}")
    print("\nNot covered:" if gaps else "\nEverything is covered.")
    for text, reason in sorted(gaps, key=lambda gap: gap[0]):
        print(f"  {text}\n      {reason or 'NO REASON IS GIVEN'}")
    problems = [f"{text} has no reason" for text, reason in gaps if not reason]
    problems += [f"{file}: {line}: has a reason and is covered" for file, line in reasons if (file, line) not in used]
    lines, branches = (part.percent() for part in sums["in sum"])
    if lines < arguments.lines or branches < arguments.branches:
        problems.append(f"below the goal of {arguments.lines} % of lines and {arguments.branches} % of branches")
    for problem in problems:
        print(f"coverage: {problem}", file=sys.stderr)
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
