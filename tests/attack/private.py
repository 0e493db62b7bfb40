"""Runs one of these programs in a file system and with process ids of its own."""

import json
import os
import pathlib
import signal
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
INSIDE = "QUORVIX_ATTACK_INSIDE"


def is_inside():
    return INSIDE in os.environ


def prepare(build):
    """Inside: what the tests of the running daemon have is there."""
    sys.path.insert(0, str(ROOT / "tests/e2e"))
    import harness

    harness.BUILD = pathlib.Path(build)
    return harness


def run_inside(program, arguments, options, own_ids=True):
    """Runs this program again, inside; `options` are its options but for --build and --json. Without process ids of its
    own where the kernel's events, which have the machine's, are to be understood. Gives its status."""
    os.chdir(ROOT)
    build = pathlib.Path(arguments.build).resolve()
    result = build / f"{pathlib.Path(program).stem}-result.json"
    result.unlink(missing_ok=True)
    unshare = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc=/proc"] if own_ids else []
    command = [str(ROOT / "demo/private-root"), *unshare, "env", f"{INSIDE}=1", "python3", "-B",
               str(pathlib.Path(program).resolve()), "--build", str(build), "--json", str(result), *options]
    process = subprocess.Popen(command)
    signal.signal(signal.SIGTERM, lambda *_: process.kill())
    status = process.wait()
    if arguments.json and result.exists():
        pathlib.Path(arguments.json).write_text(result.read_text())
    return 0 if status == 0 else 1


class Verdict:
    """What was promised, and whether it was kept."""

    def __init__(self):
        self.passed, self.failed, self.skipped = 0, 0, 0

    def judge(self, kept, text):
        print(f"{'kept' if kept else 'BROKEN'}: {text}", flush=True)
        if kept:
            self.passed += 1
        else:
            self.failed += 1

    def leave_open(self, text):
        """It can't be told on this machine now."""
        print(f"NOT TOLD: {text}", flush=True)
        self.skipped += 1

    def write(self, path):
        pathlib.Path(path).write_text(json.dumps({"passed": self.passed, "failed": self.failed, "skipped": self.skipped}))
        return 1 if self.failed or not self.passed else 0
