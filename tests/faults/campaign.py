#!/usr/bin/env python3
"""Makes every system call of the daemon's work on files fail, and kills it at every one.

    tests/faults/campaign.py --build FOLDER [--time S] [--seed N] [--short] [--only TEXT] [--jobs N] [--json RESULT]

For each operation (a hang report, a memory snapshot, a refresh of the preferences, ...) a clean run tells which calls
it makes. Then the operation is done again for each call and each way in which that call can go wrong: with an error,
with less done than was asked for, with an error that lasts, with SIGKILL. After each: no half file in its place, nothing
left behind that is not documented, both databases whole, what was committed still there, the daemon still serving, or,
where it was killed, the next start clean.

The order is drawn from the seed, so that a short time is spread over all of it. --short is a fixed list of the most
telling points. RESULT gets {"passed": n, "failed": n, "skipped": n}; a point whose call was not reached is skipped.
"""

import argparse
import collections
import json
import os
import pathlib
import random
import signal
import subprocess
import sys
import time
import zlib

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/e2e"), str(ROOT / "tests/faults")]
import system_calls  # noqa: E402
from supervisor import Fault  # noqa: E402
from system_calls import CHANGING, OPENING, errors_of  # noqa: E402

INSIDE = "QUORVIX_FAULTS_INSIDE"
# Of a call that is made again and again alike, so many are tried; of one that changes nothing on disk, fewer.
MOST_OF_A_KIND = 12
MOST_THAT_LOOK = 4
LASTING = ("ENOSPC", "EROFS", "EMFILE", "EIO")
# A daemon that the machine gave no time to end tells nothing, and is tried again.
TRIES_OF_A_HURRIED = 5
# A file that could not be removed stays until the next start.
REMOVING = ("unlink", "unlinkat")

# The calls by which files come to be and to an end, in the order of the work.
SHORT = {
    "report": [("openat2", "ENOSPC"), ("fcntl", "EIO"), ("write", "ENOSPC"), ("write", "kill"), ("renameat2", "EXDEV"), ("renameat2", "kill")],
    "new-power-log": [("openat", "ENOSPC"), ("pwrite64", "EIO"), ("pwrite64", "kill")],
    "last-counters": [("ftruncate", "ENOSPC from"), ("pwrite64", "ENOSPC"), ("pwrite64", "kill")],
    "prefs-set": [("write", "ENOSPC"), ("write", "short"), ("fsync", "EIO"), ("renameat", "EIO"), ("renameat", "kill"), ("fsync", "kill")],
    "activation": [("pwrite64", "ENOSPC"), ("pwrite64", "kill")],
    "refresh": [("openat", "EMFILE"), ("read", "EIO"), ("read", "short")],
}


def numbers_tried(count, most):
    """Which of so many calls of one kind: all, or the first ones and the last."""
    return list(range(1, count + 1)) if count <= most else [*range(1, most), count]


def only_read(call):
    """What the kernel or the system tells: nothing of ours is on disk there."""
    return call.file.startswith(("/proc", "/sys", "/etc", "/dev", "/.host")) and not call.creates


def faults_of(calls):
    faults = []
    for call, count in calls.items():
        errors = errors_of(call.name, call.creates)
        if only_read(call):
            whats = [errors[0], *[what for what in errors if what == "short"], "kill"]
            faults += [Fault(call, number, what) for number in sorted({1, count}) for what in whats]
            continue
        changes = call.creates or call.name in CHANGING
        for number in numbers_tried(count, MOST_OF_A_KIND if changes else MOST_THAT_LOOK):
            faults += [Fault(call, number, error) for error in errors]
            faults += [Fault(call, number, error, lasting=True) for error in LASTING if error in errors]
            # What is on disk is the same at a call as at the next, unless the call changes it.
            faults += [Fault(call, number, "kill")] if changes or number == 1 else []
    return faults


def short_faults(calls, wanted):
    """The first call of each name that has something to do with the daemon's own files; and what was not found."""
    faults, missing = [], []
    for name, what in wanted:
        call = next((call for call in calls if call.name == name and not only_read(call) and not call.file.startswith("/usr")), None)
        if call is None:
            missing.append(f"{what} at {name}")
        else:
            faults.append(Fault(call, 1, what.removesuffix(" from"), lasting=what.endswith(" from")))
    return faults, missing


def opened_to_remove(order):
    """Which openings of folders, by kind and number, are there to remove a file: where they fail, it stays."""
    counts, found = collections.Counter(), set()
    for call, following in zip(order, order[1:]):
        counts[call] += 1
        if call.name in OPENING and following.name in REMOVING and following.file.startswith(call.file):
            found.add((call, counts[call]))
    return found


class Campaign:
    def __init__(self, arguments):
        self.random = random.Random(arguments.seed)
        self.share, self.shares = map(int, arguments.share.split("/"))
        self.deadline = time.monotonic() + arguments.time if arguments.time else None
        self.short = arguments.short
        self.only = arguments.only
        self.results = collections.Counter()
        self.kinds = collections.defaultdict(set)
        self.failures = []
        self.removals = {}

    def over(self):
        return self.deadline is not None and time.monotonic() > self.deadline

    def run(self):
        from scenarios import SCENARIOS

        if self.short:
            self.run_short(SCENARIOS)
            return
        plans = []
        for name, kind in SCENARIOS.items():
            wanted_name, _, wanted_fault = self.only.partition(": ")
            if wanted_name not in name:
                continue
            calls = self.record(kind, 2)
            faults = [fault for fault in faults_of(calls) if wanted_fault in str(fault)]
            if self.share == 0:
                print(f"{name}: {len(calls)} kinds of calls, {sum(calls.values())} calls, {len(faults)} faults", flush=True)
            plans.append((kind, faults))
        for _, faults in plans:
            # By name: the jobs' clean runs may differ in a call or two, and no fault may fall between two jobs for that.
            faults[:] = [fault for fault in faults if zlib.crc32(str(fault).encode()) % self.shares == self.share]
            self.random.shuffle(faults)
        # A few of each at a time, so that all get their share of a short time.
        while any(faults for _, faults in plans) and not self.over():
            for kind, faults in plans:
                some, faults[:] = faults[:25], faults[25:]
                if some and not self.over():
                    self.scenario(kind, some)

    def run_short(self, scenarios):
        for name in list(SHORT)[self.share::self.shares]:
            faults, missing = short_faults(self.record(scenarios[name], 1), SHORT[name])
            for point in missing:
                self.results["failed"] += 1
                print(f"FAILED {name}: there is no such call any more: {point}", flush=True)
            self.scenario(scenarios[name], faults)

    def record(self, kind, times):
        """The calls of a clean run: of two, since what one makes by chance is no point to aim at."""
        scenario = kind()
        scenario.begin()
        try:
            runs = []
            for _ in range(times * TRIES_OF_A_HURRIED):
                scenario.hurried = False
                self.ready(scenario)
                scenario.supervisor.arm()
                scenario.act()
                calls = scenario.supervisor.disarm()
                if scenario.supervisor.untried:
                    self.results["failed"] += 1
                    print(f"FAILED {scenario.name}: calls about files that are never made to fail: {', '.join(sorted(scenario.supervisor.untried))}", flush=True)
                if not scenario.reusable:
                    scenario.stop()
                if scenario.hurried:
                    continue
                runs.append(calls)
                self.removals[scenario.name] = opened_to_remove(scenario.supervisor.order)
                if len(runs) == times:
                    break
            else:
                self.results["failed"] += 1
                print(f"FAILED {scenario.name}: the daemon had no time to end in a clean run", flush=True)
                return {}
            return {call: min(count, runs[-1][call]) for call, count in runs[0].items() if call in runs[-1] and scenario.relevant(call)}
        finally:
            scenario.close()

    def ready(self, scenario):
        """A daemon before the operation."""
        if not scenario.reusable or scenario.daemon is None:
            scenario.prepare()
            scenario.start()
        else:
            scenario.prepare()

    def scenario(self, kind, faults):
        scenario = kind()
        scenario.begin()
        try:
            for fault in faults:
                if self.over():
                    break
                for _ in range(TRIES_OF_A_HURRIED):
                    hurried = False
                    try:
                        problems = self.point(scenario, fault)
                        hurried = problems != [] and scenario.hurried
                    except Exception as error:  # a daemon that hangs is a finding too
                        problems = [f"{type(error).__name__}: {error}"]
                    if problems:
                        # What is wrong now must not be told of the next one again.
                        try:
                            scenario.close()
                        except AssertionError as error:
                            problems.append(f"at the end: {error}")
                        scenario = kind()
                        scenario.begin()
                    if not hurried:
                        break
                self.note(kind.name, fault, problems, hurried)
        finally:
            try:
                scenario.close()
            except AssertionError as error:
                self.failures.append(f"{scenario.name}: at the end: {error}")
                self.results["failed"] += 1

    def note(self, name, fault, problems, hurried):
        if problems is None or hurried:
            self.results["skipped"] += 1
            why = "not told, the daemon had no time to end" if hurried else "not reached"
            print(f"{why}: {name}: {fault}{': ' if problems else ''}{'; '.join(problems or [])}", flush=True)
            return
        self.kinds[name].add((fault.call, fault.number))
        self.results["failed" if problems else "passed"] += 1
        if problems:
            self.failures.append(f"{name}: {fault}: {'; '.join(problems)}")
            print("FAILED " + self.failures[-1], flush=True)

    def point(self, scenario, fault):
        """One fault; what was wrong after it, or nothing at all when its call was not reached."""
        scenario.hurried = False
        self.ready(scenario)
        scenario.closes = fault.call.name != "close"
        scenario.supervisor.arm(fault)
        scenario.act()
        scenario.supervisor.disarm()
        struck = scenario.supervisor.struck is not None
        if not struck:
            scenario.stop()
            return None
        problems = self.after_kill(scenario) if fault.what == "kill" else self.after_error(scenario, fault)
        # The next one does all of it, without a fault.
        if fault.what == "kill" or fault.lasting or self.removes(scenario, fault):
            scenario.make_folders()
        if not scenario.serves_on:
            scenario.stop()
        if scenario.daemon is None:
            scenario.start()
        else:
            scenario.prepare()
        scenario.act()
        problems += ["afterwards: " + problem for problem in scenario.problems_after_success()]
        if not scenario.reusable:
            scenario.stop()
        return problems

    def removes(self, scenario, fault):
        return fault.call.name in REMOVING or (fault.call, fault.number) in self.removals[scenario.name]

    def after_kill(self, scenario):
        process = scenario.daemon.process if scenario.daemon else scenario.process
        process.wait(30)
        problems = [] if process.returncode == -signal.SIGKILL else [f"ended with {process.returncode}"]
        if scenario.daemon:
            scenario.forget()
        return problems + scenario.problems()

    def after_error(self, scenario, fault):
        from scenarios import remains

        problems = []
        if scenario.daemon is not None and not scenario.may_end and not scenario.daemon.alive():
            problems.append(f"the daemon ended with {scenario.daemon.process.returncode}: {scenario.daemon.log()[-3:]}")
            scenario.forget()
            return problems + scenario.problems()
        problems += scenario.problems_after_error()
        # What can't be removed stays; so does what nobody can name any more.
        if not self.removes(scenario, fault) and not fault.lasting:
            problems += remains()
        if scenario.daemon is not None and scenario.daemon.alive() and scenario.closes and scenario.reusable:
            if more := scenario.left_open():
                problems.append(f"left open: {dict(more)}")
        if not scenario.closes and scenario.reusable:
            scenario.stop()
        return problems


def available():
    """Why this machine can't do it; nothing where it can."""
    if not system_calls.numbers():
        return f"the numbers of the system calls of {os.uname().machine} are not known"
    actions = pathlib.Path("/proc/sys/kernel/seccomp/actions_avail")
    if not actions.exists() or "user_notif" not in actions.read_text():
        return "this kernel lets nobody answer for a system call"
    return None


def inside(arguments):
    import harness

    harness.BUILD = pathlib.Path(arguments.build)
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    if reason := available():
        print(f"skipped: {reason}")
        counts["skipped"] = 1
    else:
        campaign = Campaign(arguments)
        campaign.run()
        counts.update(campaign.results)
        counts["points"] = {name: sorted(f"{call} #{number}" for call, number in points) for name, points in campaign.kinds.items()}
    pathlib.Path(arguments.json).write_text(json.dumps(counts))
    return 1 if counts["failed"] else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True)
    parser.add_argument("--time", type=float, help="seconds after which no further fault is tried")
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(3), "little"))
    parser.add_argument("--short", action="store_true", help="the fixed short list")
    parser.add_argument("--only", default="", help="operations whose name contains this; or \"NAME: FAULT\", as a failure is printed")
    parser.add_argument("--json", help="file that gets the counts")
    # Most of the time is waiting for the daemon's own timers.
    parser.add_argument("--jobs", type=int, default=4 * (os.cpu_count() or 1), help="so many daemons at once, each in folders of its own")
    parser.add_argument("--share", default="0/1", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    arguments.build = str(pathlib.Path(arguments.build).resolve())
    if INSIDE in os.environ:
        return inside(arguments)
    return outside(arguments)


def outside(arguments):
    os.chdir(ROOT)
    print(f"seed {arguments.seed}", flush=True)
    started = time.monotonic()
    jobs = []
    for number in range(arguments.jobs):
        result = pathlib.Path(arguments.build) / f"faults-result-{number}.json"
        result.unlink(missing_ok=True)
        command = [str(ROOT / "demo/private-root"), "unshare", "--pid", "--fork", "--kill-child", "--mount-proc=/proc", "env", f"{INSIDE}=1",
                   "python3", "-B", str(pathlib.Path(__file__).resolve()), "--build", arguments.build, "--seed", str(arguments.seed),
                   "--json", str(result), "--share", f"{number}/{arguments.jobs}"]
        command += ["--time", str(arguments.time)] if arguments.time else []
        command += ["--short"] if arguments.short else []
        command += ["--only", arguments.only] if arguments.only else []
        jobs.append((subprocess.Popen(command), result))
    signal.signal(signal.SIGTERM, lambda *_: [process.kill() for process, _ in jobs])
    total = collections.Counter(passed=0, failed=0, skipped=0)
    points = collections.defaultdict(set)
    for process, result in jobs:
        process.wait()
        if not result.exists():
            total["failed"] += 1
            print(f"FAILED: one of the jobs ended with {process.returncode} and told nothing")
            continue
        counts = json.loads(result.read_text())
        for name, reached in counts.pop("points", {}).items():
            points[name] |= set(reached)
        total.update(counts)
    for name, reached in points.items():
        print(f"{name}: {len(reached)} calls")
    print(f"{dict(total)} in {time.monotonic() - started:.0f} s")
    if arguments.json:
        pathlib.Path(arguments.json).write_text(json.dumps(total))
    return 0 if total["failed"] == 0 and total["passed"] + total["skipped"] > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
