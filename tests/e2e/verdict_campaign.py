#!/usr/bin/env python3
"""Lets real apps hang in every way and compares what the reports say with what the kernel's own accounting says.

    tests/e2e/verdict_campaign.py --build FOLDER [--each N] [--time SECONDS] [--json RESULT]

A round is one hang of each kind, imposed for all of the time or for a share of it. At most N rounds (20) are made, and
no round is begun that would not end within SECONDS. A hang counts as right when the verdict is the kind that was
imposed and each share of time is within 5 percentage points. The truth is read while the app hangs, a hundred times a
second: processor time and waiting time from the thread's schedstat file, the rest by the state in its stat file. The
kernel leaves out of these what a hypervisor takes away; where that is more than 2 % of a processor's time, they are not
the truth, and of such a hang the verdict is judged alone.

Needs root and tracefs; where it has not got them it says so and counts as skipped. RESULT gets {"passed": n, "failed": n,
"skipped": n}. Ends with status 0 when at least 98 of 100 are right, and the shares of at least half could be judged.
"""

import argparse
import bisect
import json
import os
import pathlib
import shutil
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
INSIDE = "QUORVIX_CAMPAIGN_INSIDE"
# Together where they don't take each other's processor.
STEPS = (("busy", "starved"), ("blocked", "io", "stopped"))
IMPOSED_SHARES = (1.0, 0.9, 0.8, 0.7)
HANG_SECONDS = 20  # the app is ended once its report is there
# Two looks of the daemon and what it may be late.
ROUND_SECONDS = 2 * 15
# Four times the usual ring: what else runs on this machine must not push the hang out of it.
RING_KIB = "32768"
TOLERANCE = 0.05
LEAST_RIGHT = 0.98
LEAST_JUDGED = 0.5
MOST_STOLEN = 0.02
NANOSECONDS_A_TICK = 125 / 3
STATES = {"D": "io", "T": "stopped", "t": "stopped", "S": "slept", "I": "slept"}


def stolen_seconds():
    """What a hypervisor has taken of each processor."""
    lines = pathlib.Path("/proc/stat").read_text().splitlines()
    return [int(line.split()[8]) / os.sysconf("SC_CLK_TCK") for line in lines if line.startswith("cpu") and line[3].isdigit()]


class Sampler(threading.Thread):
    """What the kernel says of one thread, read again and again."""

    def __init__(self, pid):
        super().__init__(daemon=True)
        self.task = f"/proc/{pid}/task/{pid}"
        self.times, self.ran, self.waited, self.states = [], [], [], []
        self.begun, self.stolen_before = time.monotonic(), stolen_seconds()
        self.ended = threading.Event()

    def run(self):
        while not self.ended.wait(0.01):
            try:
                ran, waited, _ = pathlib.Path(self.task, "schedstat").read_text().split()
                state = pathlib.Path(self.task, "stat").read_text().rsplit(")", 1)[1].split()[0]
            except (FileNotFoundError, ProcessLookupError):
                return
            self.times.append(time.clock_gettime_ns(time.CLOCK_MONOTONIC))
            self.ran.append(int(ran))
            self.waited.append(int(waited))
            self.states.append(state)

    def _at(self, values, moment):
        index = min(max(bisect.bisect_left(self.times, moment), 1), len(self.times) - 1)
        before, after = self.times[index - 1], self.times[index]
        part = min(max((moment - before) / (after - before), 0), 1)
        return values[index - 1] + part * (values[index] - values[index - 1])

    def _pending(self, moment):
        """A wait for a processor is counted when it is over: this one was going on."""
        last = min(bisect.bisect_left(self.times, moment), len(self.times) - 1)
        first = last
        while first > 0 and self.states[first] == "R" and (self.ran[first - 1], self.waited[first - 1]) == (
                self.ran[last], self.waited[last]):
            first -= 1
        return max(moment - self.times[first], 0) if first < last else 0

    def stolen(self):
        """The part that was taken away of the processor that lost most, until now."""
        lost = max(after - before for before, after in zip(self.stolen_before, stolen_seconds()))
        return lost / (time.monotonic() - self.begun)

    def shares(self, begin, end):
        """The parts of [begin, end], nanoseconds; they add up to 1."""
        length = end - begin
        ran = (self._at(self.ran, end) - self._at(self.ran, begin)) / length
        waited = (self._at(self.waited, end) - self._at(self.waited, begin) + self._pending(end)) / length
        off = {"slept": 0, "io": 0, "stopped": 0}
        for index in range(1, len(self.times)):
            if begin <= self.times[index] <= end and self.states[index] in STATES:
                off[STATES[self.states[index]]] += (self.times[index] - self.times[index - 1]) / length
        # The kernel does not count every wait of a real-time thread: what it was ready and did not run is a wait too.
        waited = max(waited, 1 - ran - sum(off.values()))
        rest = max(1 - ran - waited, 0)
        total = sum(off.values()) or 1
        return {"ran": ran, "waited": waited, **{name: rest * part / total for name, part in off.items()}}


class Hang:
    def __init__(self, kind, number, app):
        self.kind = kind
        self.share = IMPOSED_SHARES[number % len(IMPOSED_SHARES)]
        # Each app has credits of its own, and is known by its program's name.
        self.name = f"{kind}-{number}"
        program = pathlib.Path("/tmp") / self.name
        shutil.copy(app, program)
        # What else runs on this machine must not starve an app that is to be busy: real time, since niceness counts
        # within a session only.
        urgent = ["chrt", "--rr", "1"] if kind == "busy" else []
        pinned = ["taskset", "-c", "1" if kind == "starved" and os.cpu_count() > 1 else "0"] if kind in STEPS[0] else []
        self.process = subprocess.Popen([*urgent, *pinned, str(program), kind, "--seconds", str(HANG_SECONDS), "--after", "0.3",
                                         "--share", str(self.share)], stdout=subprocess.DEVNULL)
        self.sampler = Sampler(self.process.pid)
        self.sampler.start()

    def end(self):
        self.sampler.ended.set()
        self.sampler.join()
        self.process.kill()
        self.process.wait()


class Campaign:
    def __init__(self, build, harness, verdicts_only):
        self.bin = build / "bin"
        self.verdicts_only = verdicts_only
        self.harness = harness
        self.results = []

    def run(self, rounds, seconds):
        world = self.harness.World()
        try:
            self.harness.TRACE_LIBRARY.unlink(missing_ok=True)
            self.harness.TRACE_LIBRARY.write_bytes((self.bin.parent / "swivex/libswivex.dylib").read_bytes())
            daemon = world.start(QuorvixEnableSwivex="true", QuorvixDailyLogLimit="100000")
            end = time.monotonic() + seconds
            for number in range(rounds):
                if time.monotonic() + ROUND_SECONDS > end:
                    break
                for kinds in STEPS:
                    self.impose(daemon, [Hang(kind, number, self.bin / "quorvix_hanging_app") for kind in kinds])
        finally:
            world.close()

    def impose(self, daemon, hangs):
        try:
            for hang in hangs:
                report = self.wait_for_report(daemon, hang)
                hang.sampler.ended.set()
                self.judge(hang, report)
        finally:
            for hang in hangs:
                hang.end()

    def wait_for_report(self, daemon, hang):
        end = time.monotonic() + HANG_SECONDS
        while time.monotonic() < end and daemon.alive() and hang.process.poll() is None:
            for report in self.harness.reports():
                if f"-{hang.name}-" in report.name:
                    return report
            time.sleep(0.02)
        return None

    def judge(self, hang, report):
        about = f"{hang.name:12} share {hang.share:.1f}"
        if report is None:
            self.note(False, f"{about}  no report came")
            return
        answer = subprocess.run([str(self.bin / "quorvixctl"), "report", "show", str(report), "--no-symbols", "--json"],
                                capture_output=True, text=True)
        if answer.returncode != 0:
            self.note(False, f"{about}  report show ended with {answer.returncode}: {answer.stderr}")
            return
        shown = json.loads(answer.stdout)
        verdict, said = self.said_by(shown)
        true = hang.sampler.shares(shown["reason"]["StartTime"] * NANOSECONDS_A_TICK,
                                   shown["reason"]["EndTime"] * NANOSECONDS_A_TICK)
        worst = max(true, key=lambda name: abs(true[name] - said[name]))
        difference = said[worst] - true[worst]
        stolen = hang.sampler.stolen()
        is_told = not self.verdicts_only and stolen <= MOST_STOLEN
        right = verdict == hang.kind and (not is_told or abs(difference) <= TOLERANCE)
        shares = " ".join(f"{name} {100 * said[name]:.1f}" for name in said)
        self.note(right, f"{about}  {verdict:8} {shares}; furthest from the kernel's: {worst} {100 * difference:+.1f} points"
                         f"{'' if is_told else ', not judged'}; {100 * stolen:.1f} % stolen", abs(difference) if is_told else None)

    @staticmethod
    def said_by(shown):
        """The verdict and the shares of a report in the names used here."""
        times = shown["verdict"]["times"]
        names = {"ran": "running", "waited": "runnable", "slept": "sleeping", "io": "uninterruptible", "stopped": "stopped"}
        shares = {name: times[f"{theirs}_ns"] / shown["duration_ns"] for name, theirs in names.items()}
        return shown["verdict"]["cause"], shares

    def note(self, right, text, difference=None):
        self.results.append((right, difference))
        print(("right  " if right else "WRONG  ") + text, flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True, help="build folder with the binaries under test")
    parser.add_argument("--each", type=int, default=20, help="hangs of each kind at most")
    parser.add_argument("--time", type=float, default=1200, help="seconds that it may take")
    parser.add_argument("--verdicts-only", action="store_true",
                        help="shares are printed and not judged: a virtual machine whose processors are taken away from it "
                             "counts less time than passes")
    parser.add_argument("--json", help="file that gets the counts")
    arguments = parser.parse_args()
    build = pathlib.Path(arguments.build).resolve()
    counts_file = pathlib.Path(arguments.json).resolve() if arguments.json else None

    if INSIDE not in os.environ:
        if os.geteuid() != 0:
            finish(counts_file, skipped="hangs are recorded by the kernel's tracing, which needs root")
        os.chdir(ROOT)
        # /tmp is another one inside: the counts come back through the tree's build folder.
        inside_counts = build / "campaign-result.json"
        inside_counts.unlink(missing_ok=True)
        status = subprocess.run([str(ROOT / "demo/private-root"), "env", f"{INSIDE}=1", "python3", "-B",
                                 str(pathlib.Path(__file__).resolve()), "--build", str(build), "--each", str(arguments.each),
                                 "--time", str(arguments.time), "--json", str(inside_counts),
                                 *(["--verdicts-only"] if arguments.verdicts_only else [])]).returncode
        if counts_file and inside_counts.exists():
            counts_file.write_text(inside_counts.read_text())
        sys.exit(status)

    sys.path.insert(0, str(ROOT / "tests/e2e"))
    import harness

    harness.BUILD = build
    if not pathlib.Path("/sys/kernel/tracing/instances").exists():
        tracing = subprocess.run(["mount", "-t", "tracefs", "tracefs", "/sys/kernel/tracing"], capture_output=True, text=True)
        if tracing.returncode != 0:
            finish(counts_file, skipped=f"no tracefs here: {tracing.stderr.strip()}")
    if pathlib.Path("/sys/kernel/tracing/instances/swivex").exists():
        finish(counts_file, skipped="the flight recorder of this machine is on, and there is only one")
    subprocess.run([str(build / "bin/quorvixctl"), "recorder", "on", "--size", RING_KIB], check=True)
    campaign = Campaign(build, harness, arguments.verdicts_only)
    try:
        campaign.run(arguments.each, arguments.time)
    finally:
        subprocess.run([str(build / "bin/quorvixctl"), "recorder", "off"], check=True)
    finish(counts_file, campaign.results, verdicts_only=arguments.verdicts_only)


def finish(counts_file, results=(), skipped=None, verdicts_only=False):
    if skipped:
        print(f"skipped: {skipped}")
    right = sum(1 for is_right, _ in results if is_right)
    judged = [difference for _, difference in results if difference is not None]
    if results:
        print(f"{right} of {len(results)} right; shares judged of {len(judged)}, the furthest from the truth "
              f"{100 * max(judged, default=float('nan')):.1f} points")
    # A few in a hundred may be wrong: what counts is the whole.
    enough = bool(results) and right >= LEAST_RIGHT * len(results) and (verdicts_only or len(judged) >= LEAST_JUDGED * len(results))
    counts = {"passed": int(enough), "failed": int(not enough and not skipped), "skipped": int(bool(skipped))}
    if counts_file:
        counts_file.write_text(json.dumps(counts))
    sys.exit(0 if enough or skipped else 1)


if __name__ == "__main__":
    main()
