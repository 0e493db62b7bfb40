#!/usr/bin/env python3
"""The daemon for a long time under a high and steady load of well-behaved clients: does anything grow, is anything lost?

    tests/attack/soak.py --build FOLDER [--time S] [--seed N] [--clients N] [--json RESULT]

500 clients send messages and hang, some with a report wished for; clients come and go, apps are activated, and the
device's memory is recorded every two seconds. Printed are the daemon's memory and descriptors with a fitted slope and its
uncertainty (95 %), the delay of messages, and what was sent and handled. The first fifth of the time, 30 seconds at least,
is warming up and not fitted. A slope is judged broken when it is above 0 beyond its uncertainty and more than it may be by
the end of the run.
"""

import argparse
import contextlib
import os
import pathlib
import random
import shutil
import subprocess
import sys
import time

import private

MESSAGES_A_SECOND = 250
ACTIVATIONS_A_SECOND = 1
LIVES_A_SECOND = 5
# Of each CPU, as the packages switch it on.
RING_KIB = "8192"
# Reports are 3 to 10 KiB without what the recorder had, and hundreds with it.
LEAST_KIB_WITH_RINGS = 32
TRACING = pathlib.Path("/sys/kernel/tracing")
# What memory may rise by over the whole run besides the fitted noise: the allocator's own spread.
LEAST_GROWTH_KIB = 1024
# Where the noise could hide so many times of that, flat can't be said of it.
NOISE_THAT_TELLS = 8


def soak(arguments, verdict):
    import attack
    import fleet
    import harness

    fleet.allow_many_descriptors()
    draw = random.Random(arguments.seed)
    world = fleet.World()
    for folder in harness.STATE_FOLDERS:
        shutil.rmtree(folder, ignore_errors=True)
    os.system(f"/bin/sh {private.ROOT / 'packaging/make-folders'}")
    world.install_trace_library("swivex" if arguments.real_reports else "standin_swivex")
    daemon = world.start(QuorvixEnableSwivex="true", QuorvixReportPeriod="0.001", QuorvixDailyLogLimit="1000000000",
                         QuorvixEnableMemoryLogging="true", QuorvixMemoryLoggingInterval="2",
                         QuorvixEnableAppActivationLogging="true", QuorvixAppActivationLoggingMaxActivationCount="1000000000")
    open_at_first = fleet.descriptors(daemon.pid)
    services = fleet.Services(arguments.clients, arguments.seed, rate=MESSAGES_A_SECOND / arguments.clients, hang_every=30, save_reports=True)
    harness.wait_until(lambda: len(daemon.status()["watched"]) >= arguments.clients, 300, "the watch of all clients")
    sampler = fleet.Sampler(daemon.pid, 0.5)
    sampler.start()
    launcher = world.client()
    begun = time.monotonic()
    activations = lives = 0
    reports = []
    while (now := time.monotonic() - begun) < arguments.time and daemon.alive():
        if activations < now * ACTIVATIONS_A_SECOND:
            activations += 1
            bundle = f"com.example.app{draw.randrange(200)}"
            launcher.activation_begin(1, bundle)
            launcher.activation_end(1, bundle)
        if lives < now * LIVES_A_SECOND:
            lives += 1
            with harness.Client() as client:
                region = harness.Region()
                client.start_watching(region, "short life")
                client.send_datagram(b"no message")
                client.stop_watching()
                region.close()
        reports += attack.tidy()
        time.sleep(0.02)
    sampler.stop()
    alive = daemon.alive()
    verdict.judge(alive, "the daemon lives" + ("" if alive else f"; it ended with {daemon.process.returncode}:\n" + "\n".join(daemon.log()[-20:])))
    if not alive:
        services.kill()
        return
    services.close()
    launcher.close()
    world.clients.clear()
    closed = harness.wait_until(lambda: daemon.platform("messages")["connections"] == 0, 60)
    print(f"descriptors that are new at rest: {fleet.difference(open_at_first, fleet.descriptors(daemon.pid))}")
    verdict.judge(bool(closed), "all connections are closed again")
    power_log, messages = daemon.platform("powerLog"), daemon.platform("messages")
    print(f"{arguments.clients} clients, {arguments.time:.0f} s: {messages['messages']} messages, {services.hangs} hangs, {activations} activations "
          f"({power_log['storedActivations']} stored), {lives} short lives, {daemon.count_lines('Memory snapshot written')} of the last snapshots")
    print(f"delay of a message: p50 {fleet.percentile(services.delays_us, 0.5) / 1000:.2f} ms, p99 {fleet.percentile(services.delays_us, 0.99) / 1000:.2f} ms; "
          f"the latest hang was found after {services.longest:.1f} s; load of the machine {os.getloadavg()[0]:.1f}")
    verdict.judge(services.died == 0 and services.handled == services.sent, f"{services.handled} of {services.sent} messages are handled")
    verdict.judge(services.found == services.hangs > 0, f"{services.found} of {services.hangs} hangs are found")
    kib = sum(reports) / max(len(reports), 1) / 1024
    least = LEAST_KIB_WITH_RINGS if (TRACING / "instances/swivex").exists() else 0
    verdict.judge(kib > least, f"{len(reports)} hang reports are written, {kib:.1f} KiB on average, more than {least}")
    judge_slopes(sampler.samples, arguments.time, verdict)
    world.close()


@contextlib.contextmanager
def flight_recorder(build, verdict):
    """The recorder whose rings the trace library reads, as on a device; there is one for the whole kernel."""
    ctl = [str(build / "bin/quorvixctl"), "recorder"]
    if not TRACING.joinpath("instances").exists():
        subprocess.run(["mount", "-t", "tracefs", "tracefs", str(TRACING)], check=False)
    if not TRACING.joinpath("instances").exists() or TRACING.joinpath("instances/swivex").exists():
        verdict.leave_open("the rings of the flight recorder: there is no tracefs here, or it is on already")
        yield
        return
    subprocess.run([*ctl, "on", "--size", RING_KIB], check=True)
    try:
        yield
    finally:
        subprocess.run([*ctl, "off"], check=True)


def judge_slopes(samples, seconds, verdict):
    import fleet

    warm = max(seconds / 5, 30)
    fitted = [sample for sample in samples if sample[0] > warm]
    if len(fitted) < fleet.LEAST_SAMPLES:
        verdict.leave_open(f"slopes: {len(fitted)} samples after a warm-up of {warm:.0f} s")
        return
    times = [sample[0] for sample in fitted]
    for column, what, unit, least in ((1, "anonymous memory", "KiB", LEAST_GROWTH_KIB), (3, "descriptors", "", 8)):
        values = [sample[column] for sample in fitted]
        rise, error = fleet.slope(times, values)
        over = rise * (times[-1] - times[0]) / 3600
        text = (f"{what}: {values[0]} to {values[-1]} {unit} (least {min(values)}, most {max(values)}), slope {rise:+.1f} ± {2 * error:.1f} {unit} an hour "
                f"over {times[-1] - times[0]:.0f} s, {len(values)} samples")
        unknown = 2 * error * (times[-1] - times[0]) / 3600
        if rise - 2 * error > 0 and over > least:
            verdict.judge(False, text)
        elif unknown < NOISE_THAT_TELLS * least:
            verdict.judge(True, text)
        else:
            verdict.leave_open(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True)
    parser.add_argument("--time", type=float, default=600, help="seconds")
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(3), "little"))
    parser.add_argument("--clients", type=int, default=500)
    parser.add_argument("--real-reports", action="store_true", help="with the trace library itself, which takes up to two seconds a report")
    parser.add_argument("--json", help="file that gets the counts")
    arguments = parser.parse_args()
    if not private.is_inside():
        options = ["--time", str(arguments.time), "--seed", str(arguments.seed), "--clients", str(arguments.clients)]
        return private.run_inside(__file__, arguments, options + (["--real-reports"] if arguments.real_reports else []),
                                  own_ids=not arguments.real_reports)
    private.prepare(arguments.build)
    print(f"seed {arguments.seed}", flush=True)
    verdict = private.Verdict()
    with flight_recorder(pathlib.Path(arguments.build), verdict) if arguments.real_reports else contextlib.nullcontext():
        soak(arguments, verdict)
    return verdict.write(arguments.json)


if __name__ == "__main__":
    sys.exit(main())
