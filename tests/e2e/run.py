#!/usr/bin/env python3
"""Runs the end-to-end tests: the real daemon, real sockets, files and processes, in a file system of its own.

    tests/e2e/run.py --build build/asan+ubsan [--json RESULT] [--slow] [--folder FOLDER] [--only PATTERN]

Every test starts from empty folders. RESULT gets {"passed": n, "failed": n, "skipped": n}.
"""

import argparse
import json
import os
import pathlib
import signal
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
INSIDE = "QUORVIX_E2E_INSIDE"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True, help="build folder with the binaries under test")
    parser.add_argument("--json", help="file that gets the counts")
    parser.add_argument("--slow", action="store_true", help="instead of the others, the tests that wait for a minute or more")
    parser.add_argument("--folder", default="tests/e2e", help="the tests of this folder of the tree")
    parser.add_argument("--only", help="run tests whose full name contains this")
    arguments = parser.parse_args()
    build = pathlib.Path(arguments.build).resolve()

    if INSIDE not in os.environ:
        os.chdir(ROOT)
        result = pathlib.Path(arguments.json).resolve() if arguments.json else None
        # Process ids of its own too: nobody else takes one while a test gives a certain pid out again.
        command = [str(ROOT / "demo/private-root"), "unshare", "--pid", "--fork", "--kill-child", "--mount-proc=/proc",
                   "env", f"{INSIDE}=1", "python3", "-B", str(pathlib.Path(__file__).resolve()), "--build", str(build),
                   "--folder", arguments.folder]
        # /tmp is another one inside: the counts come back through the tree's build folder.
        if result:
            command += ["--json", str(build / "e2e-result.json")]
        if arguments.slow:
            command.append("--slow")
        if arguments.only:
            command += ["--only", arguments.only]
        inside = subprocess.Popen(command)
        # Whoever ends this script ends the namespace too, and all that runs in it.
        signal.signal(signal.SIGTERM, lambda *_: inside.kill())
        status = inside.wait()
        if result and (build / "e2e-result.json").exists():
            result.write_text((build / "e2e-result.json").read_text())
        sys.exit(0 if status == 0 else 1)

    sys.path.insert(0, str(ROOT / "tests/e2e"))
    import harness

    harness.BUILD = build
    loader = unittest.TestLoader()
    if arguments.only:
        loader.testNamePatterns = [f"*{arguments.only}*"]
    suite = loader.discover(str(ROOT / arguments.folder), pattern="slow_*.py" if arguments.slow else "test_*.py")
    outcome = unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(suite)
    failed = len(outcome.failures) + len(outcome.errors) + len(outcome.unexpectedSuccesses)
    skipped = len(outcome.skipped)
    counts = {"passed": outcome.testsRun - failed - skipped, "failed": failed, "skipped": skipped}
    if arguments.json:
        pathlib.Path(arguments.json).write_text(json.dumps(counts))
    print(counts)
    sys.exit(0 if failed == 0 and outcome.testsRun > 0 else 1)


if __name__ == "__main__":
    main()
