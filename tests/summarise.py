#!/usr/bin/env python3
"""Runs groups of tests for ./dev, writes one result file a group, and sums them up.

A group's result: {"passed": n, "failed": n, "skipped": n, "seconds": s, "failures": [{"name": ..., "output": ...}]}.
Whatever leaves a doubt counts as failed: a crash, a time-out, an exit status without a failed test, a missing binary,
a result file that can't be read, a binary that ran no test, a sanitizer's finding in any process.
"""
import argparse
import json
import os
import re
import shlex
import subprocess
import sys
import time
from pathlib import Path

KEPT_OUTPUT_BYTES = 20000
DEFAULT_TIMEOUT_SECONDS = 600
SANITIZER_LINE = re.compile(r": runtime error: |(?:ERROR|WARNING): \w+Sanitizer: ")


class Group:
    def __init__(self, name):
        self.name, self.passed, self.failed, self.skipped, self.failures = name, 0, 0, 0, []
        self.started = time.monotonic()

    def fail(self, test, output):
        self.failed += 1
        self.failures.append({"name": test, "output": output[-KEPT_OUTPUT_BYTES:]})

    def line(self):
        return f"{self.name}: {counts(self.passed, self.failed, self.skipped)} ({time.monotonic() - self.started:.1f} s)"

    def write(self, results):
        results.mkdir(parents=True, exist_ok=True)
        content = {key: getattr(self, key) for key in ("name", "passed", "failed", "skipped", "failures")}
        (results / f"{self.name}.result.json").write_text(json.dumps(content))
        print(self.line(), flush=True)


def counts(passed, failed, skipped):
    return f"{passed} passed, {failed} failed" + (f", {skipped} skipped" if skipped else "")


def run(command, timeout, cwd=None, environment=None):
    """Exit status (negative: the signal; None: timed out, or it did not start) and both outputs together."""
    try:
        # A session of its own, so that a time-out ends the children too.
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   cwd=cwd, env=environment, start_new_session=True)
    except OSError as error:
        return None, f"could not start {command[0]}: {error.strerror}"
    try:
        output, _ = process.communicate(timeout=timeout)
        return process.returncode, output.decode(errors="replace")
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, 9)
        output, _ = process.communicate()
        return None, output.decode(errors="replace") + f"\ntimed out after {timeout} s"


def ending(status):
    if status is None:
        return "did not end by itself"
    return f"killed by signal {-status}" if status < 0 else f"exit status {status}"


def count_google_test(group, label, status, output, report):
    """One binary's tests, from its report; from its output where it crashed before it could write one."""
    try:
        suites = json.loads(report.read_text())["testsuites"]
    except (OSError, ValueError, KeyError):
        count_crashed(group, label, status, output)
        return
    ran = failed = 0
    for suite in suites:
        for test in suite["testsuite"]:
            name = f"{label}: {suite['name']}.{test['name']}"
            if test["result"] in ("SKIPPED", "SUPPRESSED"):
                group.skipped += 1
                continue
            ran += 1
            if test.get("failures"):
                failed += 1
                group.fail(name, "\n".join(failure["failure"] for failure in test["failures"]))
            else:
                group.passed += 1
    if status != 0 and failed == 0:
        group.fail(f"{label}: {ending(status)}", output)
    elif ran == 0:
        group.fail(f"{label}: ran no test", output)


def count_crashed(group, label, status, output):
    group.passed += len(re.findall(r"^\[       OK \] .* ms\)$", output, re.MULTILINE))
    group.skipped += len(re.findall(r"^\[  SKIPPED \] .* ms\)$", output, re.MULTILINE))
    for name in re.findall(r"^\[  FAILED  \] (\S+).* ms\)$", output, re.MULTILINE):
        group.fail(f"{label}: {name}", "failed before the binary ended early; its output follows below")
    started = re.findall(r"^\[ RUN      \] (\S+)$", output, re.MULTILINE)
    last = f" in {started[-1]}" if started else ""
    group.fail(f"{label}: ended early{last}, {ending(status)}", output)


def listed_tests(build):
    listing = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], stdin=subprocess.DEVNULL,
                             capture_output=True, text=True, check=True)
    return json.loads(listing.stdout)["tests"]


def run_binaries(arguments):
    """Every test that CMake lists for a build folder; the *_tests binaries are counted test by test."""
    group = Group(arguments.name)
    wanted = arguments.only.split(",") if arguments.only else None
    for test in listed_tests(arguments.build):
        if wanted is None or test["name"] in wanted:
            run_listed_test(group, test, arguments)
    if group.passed + group.failed + group.skipped == 0:
        group.fail("no test was found", f"{arguments.build} lists none{' of ' + arguments.only if wanted else ''}")
    count_sanitizer_findings(group, arguments.results)
    group.write(arguments.results)


def run_listed_test(group, test, arguments):
    label, command = test["name"], test.get("command")
    if not command:
        group.fail(f"{label}: was not built", "")
        return
    properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
    environment = dict(os.environ)
    environment.update(entry.split("=", 1) for entry in properties.get("ENVIRONMENT", []))
    is_google_test = Path(command[0]).name.endswith("_tests")
    report = arguments.results.absolute() / f"{arguments.name}.{label}.report.json"
    report.unlink(missing_ok=True)
    full = shlex.split(arguments.wrapper) + command + ([f"--gtest_output=json:{report}"] if is_google_test else [])
    before = time.monotonic()
    counted = (group.passed, group.failed, group.skipped)
    status, output = run(full, properties.get("TIMEOUT", DEFAULT_TIMEOUT_SECONDS), properties.get("WORKING_DIRECTORY"),
                         environment)
    (arguments.results / f"{arguments.name}.{label}.log").write_text(output)
    if is_google_test:
        count_google_test(group, label, status, output, report)
    elif status is not None and status == properties.get("SKIP_RETURN_CODE"):
        group.skipped += 1
    elif status == 0:
        group.passed += 1
    else:
        group.fail(f"{label}: {ending(status)}", output)
    count_printed_findings(group, label, output, counted[1])
    own = [now - then for now, then in zip((group.passed, group.failed, group.skipped), counted)]
    print(f"  {label}: {counts(*own)} ({time.monotonic() - before:.1f} s)", flush=True)


def count_printed_findings(group, label, output, failed_before):
    """The undefined-behaviour sanitizer prints into the output even where it was told to write to a file."""
    if group.failed == failed_before and SANITIZER_LINE.search(output):
        group.fail(f"{label}: a sanitizer found something", output)


def count_sanitizer_findings(group, results):
    """A finding in a child process shows in no exit status that a test must look at."""
    for finding in sorted((results / "sanitizer").glob("found.*")):
        group.fail(f"a sanitizer found something ({finding.name})", finding.read_text(errors="replace"))
        finding.rename(finding.with_name("counted-" + finding.name))


def run_command(arguments):
    group = Group(arguments.name)
    status, output = run(arguments.command, arguments.timeout)
    if status == 0:
        group.passed += 1
    else:
        group.fail(f"{arguments.name}: {ending(status)}", output)
    count_printed_findings(group, arguments.name, output, 0)
    count_sanitizer_findings(group, arguments.results)
    group.write(arguments.results)


def run_reporting_command(arguments):
    """A test program of its own that writes {"passed": n, "failed": n, "skipped": n}."""
    group = Group(arguments.name)
    arguments.json.unlink(missing_ok=True)
    status, output = run(arguments.command, arguments.timeout)
    (arguments.results / f"{arguments.name}.log").write_text(output)
    try:
        report = json.loads(arguments.json.read_text())
        group.passed, group.skipped = int(report["passed"]), int(report["skipped"])
        failed = int(report["failed"])
    except (OSError, ValueError, KeyError, TypeError) as error:
        group.fail(f"{arguments.name}: no readable result ({error}), {ending(status)}", output)
    else:
        if failed:
            group.fail(f"{arguments.name}: {failed} tests", output)
            group.failed = failed
        elif status != 0:
            group.fail(f"{arguments.name}: {ending(status)}", output)
        elif group.passed + group.skipped == 0:
            group.fail(f"{arguments.name}: ran no test", output)
        elif group.passed == 0:
            # Nothing else would say why.
            print(f"  {arguments.name}: all skipped: {output.strip()[:500]}", flush=True)
    count_printed_findings(group, arguments.name, output, 0)
    count_sanitizer_findings(group, arguments.results)
    group.write(arguments.results)


def note_failure(arguments):
    group = Group(arguments.name)
    group.fail(arguments.name, "see the output above")
    group.write(arguments.results)


def print_total(arguments):
    groups = [json.loads(path.read_text()) for path in sorted(arguments.results.glob("*.result.json"))]
    for group in groups:
        for failure in group["failures"]:
            print(f"\n--- FAILED {group['name']}: {failure['name']}\n{failure['output']}")
    print()
    for group in groups:
        print(f"{group['name']}: {counts(group['passed'], group['failed'], group['skipped'])}")
    passed, failed, skipped = (sum(group[key] for group in groups) for key in ("passed", "failed", "skipped"))
    print(counts(passed, failed, skipped))
    return 1 if failed or not passed else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="verb", required=True)

    def verb(name, action):
        command = commands.add_parser(name)
        command.add_argument("--results", type=Path, required=True)
        command.set_defaults(action=action)
        if name != "total":
            command.add_argument("--name", required=True)
        return command

    binaries = verb("binaries", run_binaries)
    binaries.add_argument("--build", required=True)
    binaries.add_argument("--only", help="names of tests, with commas between them")
    binaries.add_argument("--wrapper", default="", help="a command line put in front of each test's own")
    for name, action in (("command", run_command), ("report", run_reporting_command)):
        command = verb(name, action)
        command.add_argument("--timeout", type=float, default=1200)
        if name == "report":
            command.add_argument("--json", type=Path, required=True)
        command.add_argument("command", nargs="+")
    verb("failure", note_failure)
    verb("total", print_total)
    arguments = parser.parse_args()
    arguments.results.mkdir(parents=True, exist_ok=True)
    return arguments.action(arguments) or 0


if __name__ == "__main__":
    sys.exit(main())
