#!/usr/bin/env python3
"""Lets clients of every hostile kind at the daemon, beside well-behaved ones whose service is measured.

    tests/attack/attack.py --build FOLDER [--time S] [--seed N] [--kinds NAME,...] [--no-delays] [--json RESULT]

Two processes of each kind attack at once; at moments drawn from the seed one of them is killed and another begun. Judged
is that the daemon lives, that its memory and descriptors are bounded and come back, that nothing of the good clients is
lost, that their hangs are found and, unless --no-delays is given, how late their messages are handled. RESULT gets
{"passed": n, "failed": n, "skipped": n}.
"""

import argparse
import collections
import os
import pathlib
import random
import shutil
import signal
import sys
import time
import traceback

import private

GOOD_CLIENTS = 20
# Bounds on what clients may make the daemon keep: docs/architecture.md. Together less than this, over what it has at rest.
MOST_ANONYMOUS_MIB = 192
# What memory may be over that at first once clients have left nothing behind: 2 MiB were measured, of the stores, logs and
# queues that a first use opens, and 30 to 40 where the allocator keeps what was freed.
MOST_ANONYMOUS_MIB_AT_REST = 8
MOST_DESCRIPTORS = 2048 * 3 + 200
MOST_P99_MS = 50
MOST_P99_MS_ON_A_BUSY_MACHINE = 1000
LATEST_HANG_SECONDS = 30
OF_EACH_KIND = 2
SPOOL = "/var/root/Library/Caches/quorvixd/spool"
# An attack of so long is a long one, after which it is waited for what clients left behind.
LONG_SECONDS = 60
# Exit status of a hostile client that was refused something.
REFUSED = 0


class Attackers:
    """The hostile processes, each in a process group of its own: it has children that nobody else knows."""

    def __init__(self, kinds, seed, daemon_pid):
        import hostile

        self.draw = random.Random(seed)
        self.daemon_pid = daemon_pid
        self.kinds = {name: hostile.KINDS[name] for name in kinds}
        self.running = {}
        self.begun = 0
        self.broken = collections.Counter()
        self.told, self.telling = os.pipe()
        for name in self.kinds:
            for _ in range(OF_EACH_KIND):
                self.begin(name)

    def begin(self, name):
        seed = self.draw.randrange(2**32)
        pid = os.fork()
        if pid == 0:
            try:
                os.setpgid(0, 0)
                draw = random.Random(seed)
                if name == "nobody":
                    self.kinds[name](draw, self.daemon_pid, lambda what: os.write(self.telling, what.encode() + b"\n"))
                else:
                    self.kinds[name](draw)
            except OSError as error:
                # A hostile client that is refused something ends; that it ends is no finding.
                os.write(2, f"{name} ended: {type(error).__name__}: {error}\n".encode())
                os._exit(REFUSED)
            except BaseException:
                traceback.print_exc()
            finally:
                # It broke down by itself: that was no attack.
                os._exit(1)
        os.setpgid(pid, pid)
        self.running[pid] = name
        self.begun += 1

    def end(self, pid):
        try:
            os.killpg(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        os.waitpid(pid, 0)
        return self.running.pop(pid)

    def ended(self):
        """Who ended by itself; notes those that no refusal made end."""
        found = []
        for pid, name in self.running.items():
            if how := os.waitid(os.P_PID, pid, os.WEXITED | os.WNOHANG | os.WNOWAIT):
                found.append(pid)
                if how.si_code != os.CLD_EXITED or how.si_status != REFUSED:
                    self.broken[name] += 1
        return found

    def shuffle(self):
        """One of them dies, at whatever it is doing, and another begins. Also in place of those that ended."""
        for pid in self.ended() or [self.draw.choice(sorted(self.running))]:
            self.begin(self.end(pid))

    def close(self):
        """Ends all; gives what an ordinary user could do and must not."""
        self.ended()
        for pid in list(self.running):
            self.end(pid)
        os.close(self.telling)
        with os.fdopen(self.told, "rb") as told:
            return sorted(set(told.read().decode().split("\n")) - {""})


def tidy():
    """What an uploader does: the reports are taken away. Gives the sizes of the hang reports."""
    sizes = []
    for folder in (SPOOL, "/Library/Logs/Faultbox"):
        for path in pathlib.Path(folder).glob("[!.]*"):
            if folder == SPOOL:
                sizes.append(path.stat().st_size)
            path.unlink(missing_ok=True)
    return sizes


def attack(arguments, verdict):
    import fleet
    import harness

    fleet.allow_many_descriptors()
    world = fleet.World()
    # The folders as the unit makes them, so that an ordinary user meets the modes of a device.
    for folder in harness.STATE_FOLDERS:
        shutil.rmtree(folder, ignore_errors=True)
    os.system(f"/bin/sh {private.ROOT / 'packaging/make-folders'}")
    world.install_trace_library("standin_swivex")
    daemon = world.start(QuorvixEnableSwivex="true", QuorvixEnableMemoryLogging="true", QuorvixMemoryLoggingInterval="1",
                         QuorvixEnableAppActivationLogging="true")
    # What it takes at the first snapshot and activation, and keeps.
    client = world.client()
    client.activation_begin(412, "com.example.first")
    client.activation_end(412, "com.example.first")
    harness.wait_until(lambda: daemon.platform("powerLog")["storedActivations"], what="the first activation")
    daemon.wait_line("emory snapshot ")
    client.close()
    world.clients.clear()
    sampler = fleet.Sampler(daemon.pid, 0.25)
    base, open_at_first = sampler.look(), fleet.descriptors(daemon.pid)
    sampler.start()
    services = fleet.Services(GOOD_CLIENTS, arguments.seed, rate=20, hang_every=8)
    time.sleep(1)
    attackers = Attackers(arguments.kinds, arguments.seed, daemon.pid)
    before = daemon.platform("messages")
    begun = time.monotonic()
    while time.monotonic() - begun < arguments.time and daemon.alive():
        time.sleep(0.1)
        attackers.shuffle()
        tidy()
    seconds = time.monotonic() - begun
    successes = attackers.close()
    alive = daemon.alive()
    verdict.judge(alive, "the daemon lives" + ("" if alive else f"; it ended with {daemon.process.returncode}:\n" + "\n".join(daemon.log()[-20:])))
    if not alive:
        services.kill()
        return
    services.close()
    after = daemon.platform("messages")
    handled = after["messages"] - before["messages"]
    print(f"{attackers.begun} attackers; {handled / seconds:.0f} messages a second, {after['undecodable'] - before['undecodable']} undecodable, "
          f"{after['refusedFull']} connections refused, {daemon.platform('log')['droppedLines']} lines of the log dropped")
    verdict.judge(handled > 100 * arguments.time, f"there was an attack: {handled} messages")
    verdict.judge(not attackers.broken, f"no hostile client breaks down by itself {dict(attackers.broken) or ''}")
    verdict.judge(not successes, f"an ordinary user can't write, signal or read what is the daemon's {successes or ''}")
    print(f"counters: {daemon.platform('counters')}")
    delays = services.delays_us
    p50, p99 = fleet.percentile(delays, 0.5) / 1000, fleet.percentile(delays, 0.99) / 1000
    print(f"good clients: {services.sent} messages, p50 {p50:.2f} ms, p99 {p99:.2f} ms; the latest hang was found after {services.longest:.1f} s")
    verdict.judge(services.died == 0 and services.handled == services.sent, f"{services.handled} of {services.sent} messages of good clients are handled")
    verdict.judge(services.found == services.hangs > 0, f"{services.found} of {services.hangs} hangs of good clients are found")
    if not arguments.no_delays:
        busy = os.getloadavg()[0] > 4 * (os.cpu_count() or 1)
        most = MOST_P99_MS_ON_A_BUSY_MACHINE if busy else MOST_P99_MS
        verdict.judge(p99 < most, f"p99 {p99:.2f} ms is below {most} ms")
        verdict.judge(services.longest < LATEST_HANG_SECONDS, f"the latest hang was found after {services.longest:.1f} s, less than {LATEST_HANG_SECONDS} s")
    for child in world.children:
        child.close()
    check_rest(daemon, base, sampler, verdict, is_long=arguments.time >= LONG_SECONDS)
    print(f"descriptors that are new at rest: {fleet.difference(open_at_first, fleet.descriptors(daemon.pid))}")
    try:
        world.close()
        verdict.judge(True, "at the end nothing is left: connections, mappings, descriptors, files in tmp")
    except AssertionError as error:
        verdict.judge(False, f"left behind: {error}")


def check_rest(daemon, base, sampler, verdict, is_long):
    import harness

    verdict.judge(bool(harness.wait_until(lambda: daemon.platform("messages")["connections"] == 0, 60)), "all connections are closed again")
    if is_long:
        # What waits for its end is given back at its time-out.
        waiting = lambda: daemon.status()["counters"]["activations"]["open"]  # noqa: E731
        verdict.judge(bool(harness.wait_until(lambda: waiting() == 0, 60 + 60)), "no activation waits for its end any more")
    time.sleep(1)
    sampler.stop()
    rest = sampler.look()
    most = [max(sample[column] for sample in sampler.samples) for column in (1, 2, 3)]
    print(f"anonymous memory {base[0]} KiB at first, {most[0]} KiB at most, {rest[0]} KiB at rest; Pss at most {most[1]} KiB; "
          f"descriptors {base[2]} at first, {most[2]} at most, {rest[2]} at rest")
    counters = daemon.status()["counters"]
    print(f"{counters['activations']['open']} activations still wait for their end, with {counters['snapshots']['bytesUsed'] // 1024} KiB of snapshots")
    verdict.judge(most[0] - base[0] < MOST_ANONYMOUS_MIB * 1024, f"anonymous memory grew by {(most[0] - base[0]) / 1024:.1f} MiB, less than {MOST_ANONYMOUS_MIB} MiB")
    if is_long:
        verdict.judge(rest[0] - base[0] < MOST_ANONYMOUS_MIB_AT_REST * 1024,
                      f"anonymous memory is {(rest[0] - base[0]) / 1024:.1f} MiB more at rest, less than {MOST_ANONYMOUS_MIB_AT_REST} MiB")
    verdict.judge(most[2] < MOST_DESCRIPTORS, f"{most[2]} descriptors, less than {MOST_DESCRIPTORS}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True)
    parser.add_argument("--time", type=float, default=60, help="seconds of attack")
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(3), "little"))
    parser.add_argument("--kinds", help="only these kinds of hostile clients")
    parser.add_argument("--no-delays", action="store_true", help="delays are printed and not judged")
    parser.add_argument("--json", help="file that gets the counts")
    arguments = parser.parse_args()
    if not private.is_inside():
        options = ["--time", str(arguments.time), "--seed", str(arguments.seed)] + (["--no-delays"] if arguments.no_delays else [])
        return private.run_inside(__file__, arguments, options + (["--kinds", arguments.kinds] if arguments.kinds else []))
    private.prepare(arguments.build)
    import hostile

    arguments.kinds = arguments.kinds.split(",") if arguments.kinds else sorted(hostile.KINDS)
    print(f"seed {arguments.seed}", flush=True)
    verdict = private.Verdict()
    attack(arguments, verdict)
    return verdict.write(arguments.json)


if __name__ == "__main__":
    sys.exit(main())
