#!/usr/bin/env python3
"""Tests the units of packaging/ and the Debian packages under a real service manager: a bare Debian, booted in a container
of its own.

    tests/nspawn/run.py --build build/release [--packages build/package] [--json RESULT] [--only PATTERN]

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
import test_packages
import test_recorder
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


def in_a_machine(module, suite, image, prepare):
    """The counts of one module's tests in a machine of their own."""
    begun = time.monotonic()
    booted = machine.Machine(image, ROOT / f"build/nspawn-run-{os.getpid()}", prepare)
    try:
        booted.wait_booted()
        print(f"booted after {time.monotonic() - begun:.1f} s", flush=True)
        module.MACHINE = booted
        module.look_at_the_boot()
        counts = run_suite(suite)
        # The last check: the machine goes down in time, the daemon with it.
        seconds = booted.power_off()
        print(f"powered off in {seconds:.1f} s" if seconds is not None else "did not power off in time")
        counts["passed" if seconds is not None else "failed"] += 1
        return counts
    finally:
        booted.close()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True, help="build folder with the binaries to install")
    parser.add_argument("--packages", help="folder of the Debian packages; without it they are not tested")
    parser.add_argument("--json", help="file that gets the counts")
    parser.add_argument("--only", help="run tests whose full name contains this")
    arguments = parser.parse_args()

    build = pathlib.Path(arguments.build).resolve()
    loader = unittest.TestLoader()
    if arguments.only:
        loader.testNamePatterns = [f"*{arguments.only}*"]
    test_recorder.BUILD = build
    plan = [(test_units, lambda root: machine.install(build, root)),
            (test_recorder, lambda root: machine.install(build, root, stand_in=False))]
    if arguments.packages:
        packages = pathlib.Path(arguments.packages).resolve()
        plan.append((test_packages, lambda root: test_packages.prepare(root, packages, build)))
    suites = [(module, prepare, loader.loadTestsFromModule(module)) for module, prepare in plan]

    image = ROOT / "build/nspawn-root"
    if reason := machine.why_not() or machine.why_no_image(image):
        print(f"skipped: {reason}")
        skipped = sum(suite.countTestCases() for _, _, suite in suites)
        return finish(arguments, {"passed": 0, "failed": 0, "skipped": skipped})

    total = {"passed": 0, "failed": 0, "skipped": 0}
    for module, prepare, suite in suites:
        if suite.countTestCases() == 0:
            continue
        for key, count in in_a_machine(module, suite, image, prepare).items():
            total[key] += count
    return finish(arguments, total)


if __name__ == "__main__":
    sys.exit(main())
