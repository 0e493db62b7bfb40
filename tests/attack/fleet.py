"""What is measured of the daemon: the service of clients that behave, its memory, its descriptors."""

import collections
import contextlib
import json
import math
import os
import pathlib
import re
import resource
import shutil
import sqlite3
import subprocess
import sys
import threading
import time

import harness

COUNTERS = pathlib.Path("/var/lib/quorvix/tallisk.db")
GOOD_PROGRAM = "good-client"
# To fewer no line is fitted.
LEAST_SAMPLES = 8


class Daemon(harness.Daemon):
    """Keeps the newest lines of its log only."""

    LINES_KEPT = 4000


class World(harness.World):
    def launch(self, prefix=(), **options):
        daemon = Daemon(prefix, **options)
        self.daemons.append(daemon)
        return daemon


def allow_many_descriptors():
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


class Sampler(threading.Thread):
    """The daemon's memory and descriptors, again and again: (seconds, anonymous KiB, Pss KiB, descriptors)."""

    def __init__(self, pid, interval):
        super().__init__(daemon=True)
        self.pid, self.interval = pid, interval
        self.samples = []
        self.ended = threading.Event()
        self.begun = time.monotonic()

    def run(self):
        while not self.ended.wait(self.interval):
            try:
                self.samples.append((time.monotonic() - self.begun, *self.look()))
            except (FileNotFoundError, ProcessLookupError):
                return

    def look(self):
        text = pathlib.Path(f"/proc/{self.pid}/smaps_rollup").read_text()
        values = {line.split(":")[0]: int(line.split()[1]) for line in text.splitlines()[1:]}
        return values["Anonymous"], values["Pss"], len(os.listdir(f"/proc/{self.pid}/fd"))

    def stop(self):
        self.ended.set()
        self.join()


def descriptors(pid):
    """What the open descriptors are of, and how many of each; without the numbers that the kernel gives."""
    found = collections.Counter()
    for entry in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):
            found[re.sub(r":\[\d+\]|memfd:.*", "", os.readlink(entry)) or "memfd"] += 1
    return found


def difference(before, after):
    """In words, for a line: "tallisk.db +1, socket -2"."""
    changes = {name: after[name] - before[name] for name in sorted(before | after)}
    return ", ".join(f"{name} {change:+d}" for name, change in changes.items() if change) or "none"


def slope(times, values):
    """Least squares: the slope an hour and its standard error. Neighbouring samples are alike, so that they count for
    fewer than they are (by the correlation of the rests with the next)."""
    count = len(times)
    if count < LEAST_SAMPLES:
        return math.nan, math.nan
    mean_time, mean_value = sum(times) / count, sum(values) / count
    spread = sum((t - mean_time) ** 2 for t in times)
    rise = sum((t - mean_time) * (v - mean_value) for t, v in zip(times, values)) / spread
    rests = [v - mean_value - rise * (t - mean_time) for t, v in zip(times, values)]
    total = sum(rest ** 2 for rest in rests)
    alike = sum(a * b for a, b in zip(rests, rests[1:])) / total if total else 0.0
    alike = min(max(alike, 0.0), 0.99)
    independent = max(count * (1 - alike) / (1 + alike), 3.0)
    error = math.sqrt(total / (independent - 2) / spread * count / independent) if total else 0.0
    return rise * 3600, error * 3600


def percentile(values, part):
    ordered = sorted(values)
    return ordered[min(int(len(ordered) * part), len(ordered) - 1)] if ordered else math.nan


def counted(name):
    """How often the daemon has counted a hang of this name in the good clients."""
    if not COUNTERS.exists():
        return 0
    with contextlib.closing(sqlite3.connect(f"file:{COUNTERS}?mode=ro", uri=True, timeout=10)) as store:
        row = store.execute("SELECT count FROM distribution WHERE key = ?", (f"com.norvane.quorvix.{name}.{GOOD_PROGRAM}",)).fetchone()
        return row[0] if row else 0


class Services:
    """Good clients, and what they were served. They are a program of their own name, so that no hostile client's hangs
    are counted with theirs."""

    def __init__(self, count, seed, rate, hang_every, save_reports=False):
        program = f"/tmp/{GOOD_PROGRAM}"
        shutil.copy(os.path.realpath("/proc/self/exe"), program)
        command = [program, "-B", str(pathlib.Path(__file__).with_name("good.py")), "--count", str(count), "--seed", str(seed), "--rate", str(rate),
                   "--hang-every", str(hang_every)] + (["--save-reports"] if save_reports else [])
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        env={**os.environ, "PYTHONHOME": sys.base_prefix})
        assert self.process.stdout.readline() == "ready\n"

    def close(self):
        """Ends them, and waits until all that they told is counted, or no more comes."""
        text, _ = self.process.communicate()
        result = json.loads(text)
        self.sent, self.hangs, self.found, self.died = (result[key] for key in ("sent", "hangs", "found", "died"))
        self.longest, self.delays_us = result["longest"], result["delays_us"]
        with contextlib.suppress(AssertionError):
            harness.wait_until(lambda: counted("polite") >= self.sent, seconds=30)
        self.handled = counted("polite")

    def kill(self):
        self.process.kill()
        self.process.wait()
