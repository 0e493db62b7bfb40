#!/usr/bin/env python3
"""Tests the units of packaging/ under a real service manager: a bare Debian, booted in a container of its own.

    tests/nspawn/run.py --build build/release [--json RESULT] [--only PATTERN]

The bare system is made once, in build/nspawn-root; each run boots a copy. RESULT gets
{"passed": n, "failed": n, "skipped": n}. Where no machine can be booted all tests count as skipped.
"""

import argparse
import json
import os
import pathlib
import sys
import time
import unittest

import machine
import test_units

ROOT = pathlib.Path(__file__).resolve().parents[2]


def finish(arguments, counts):
    if arguments.json:
        pathlib.Path(arguments.json).write_text(json.dumps(counts))
    print(counts)
    return 0 if counts["failed"] == 0 and sum(counts.values()) > 0 else 1


def run_suite(suite):
    outcome = unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(suite)
    failed = len(outcome.failures) + len(outcome.errors) + len(outcome.unexpectedSuccesses)
    skipped = len(outcome.skipped)
    return {"passed": outcome.testsRun - failed - skipped, "failed": failed, "skipped": skipped}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True, help="build folder with the binaries to install")
    parser.add_argument("--json", help="file that gets the counts")
    parser.add_argument("--only", help="run tests whose full name contains this")
    arguments = parser.parse_args()

    loader = unittest.TestLoader()
    if arguments.only:
        loader.testNamePatterns = [f"*{arguments.only}*"]
    suite = loader.loadTestsFromModule(test_units)
    image = ROOT / "build/nspawn-root"
    if reason := machine.why_not() or machine.why_no_image(image):
        print(f"skipped: {reason}")
        return finish(arguments, {"passed": 0, "failed": 0, "skipped": suite.countTestCases()})

    begun = time.monotonic()
    booted = machine.Machine(image, pathlib.Path(arguments.build).resolve(), ROOT / f"build/nspawn-run-{os.getpid()}")
    try:
        booted.wait_booted()
        print(f"booted after {time.monotonic() - begun:.1f} s", flush=True)
        test_units.MACHINE = booted
        test_units.look_at_the_boot()
        counts = run_suite(suite)
        # The last check: the machine goes down in time, the daemon with it.
        seconds = booted.power_off()
        print(f"powered off in {seconds:.1f} s" if seconds is not None else "did not power off in time")
        counts["passed" if seconds is not None else "failed"] += 1
        return finish(arguments, counts)
    finally:
        booted.close()


if __name__ == "__main__":
    sys.exit(main())
