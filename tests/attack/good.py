#!/usr/bin/env python3
"""Clients that behave, each a process of its own: they are watched, tell of hangs, hang and see their hangs found.

    good.py --count N --seed S --rate R --hang-every T [--save-reports] [--activations]

They live until standard input ends. Then one JSON object is printed: "sent" messages, real "hangs", how many of them
were "found", after how many seconds the "longest", how many clients "died", how late messages were taken ("delays_us":
[moments after the sending at which the daemon had taken them from the socket]). A message is the telling of a hang named
"polite", which the daemon counts: the count must be what was sent.
"""

import argparse
import fcntl
import json
import os
import pathlib
import random
import select
import struct
import sys
import termios
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
from quorvix_client import CONSUMED, TICKS_PER_SECOND, Client, Region, ticks_now  # noqa: E402

NAME = "polite"
WORK = "good work"
MOST_DELAYS = 20_000  # of each client


def taken(client):
    """The daemon has taken all that was sent."""
    return struct.unpack("i", fcntl.ioctl(client.socket, termios.TIOCOUTQ, bytes(4)))[0] == 0


class GoodClient:
    def __init__(self, number, arguments):
        self.draw = random.Random(f"{arguments.seed} {number}")
        self.arguments = arguments
        self.client = Client().connect()
        self.region = Region()
        self.client.start_watching(self.region, f"good {number}")
        self.delays_us = []
        self.sent = self.hangs = self.found = 0
        self.longest = 0.0
        self.hung_since = None
        self.next_hang = time.monotonic() + self.draw.uniform(0, arguments.hang_every)

    def send(self):
        begun = time.monotonic()
        # Of no length: whatever fences others begin, it overlaps none of them, and keeps its name.
        now = ticks_now()
        self.client.hang_detected(NAME, start=now, end=now)
        self.sent += 1
        pause = 0.0005
        while not taken(self.client):
            time.sleep(pause)
            # Hundreds that look all the time would be a load of their own where the daemon is late.
            pause = min(pause * 1.5, 0.05)
        if len(self.delays_us) < MOST_DELAYS:
            self.delays_us.append(int((time.monotonic() - begun) * 1e6))

    def look(self):
        now = time.monotonic()
        if self.hung_since is not None and self.region.start_time(0) == CONSUMED:
            self.longest = max(self.longest, now - self.hung_since)
            self.found, self.hung_since = self.found + 1, None
            self.region.end(0)
            self.next_hang = now + self.draw.uniform(0.5, 1.5) * self.arguments.hang_every
        elif self.hung_since is None and now >= self.next_hang:
            self.region.begin(0, WORK, ticks_now() - 6 * TICKS_PER_SECOND, save_report=self.arguments.save_reports)
            self.hangs, self.hung_since = self.hangs + 1, now

    def live(self, stop):
        while True:
            if select.select([stop], [], [], self.draw.expovariate(self.arguments.rate))[0]:
                break
            self.send()
            self.look()
        # The last hang has its time to be found.
        end = time.monotonic() + 30
        while self.hung_since is not None and time.monotonic() < end:
            if self.region.start_time(0) == CONSUMED:
                self.longest = max(self.longest, time.monotonic() - self.hung_since)
                self.found, self.hung_since = self.found + 1, None
            time.sleep(0.05)
        return {"sent": self.sent, "hangs": self.hangs, "found": self.found, "longest": self.longest, "delays_us": self.delays_us}


def begin(number, arguments, stop, keep):
    """A client in a process of its own; gives where its result can be read."""
    reading, writing = os.pipe()
    if os.fork() == 0:
        try:
            os.close(keep)
            os.close(reading)
            result = GoodClient(number, arguments).live(stop)
            with os.fdopen(writing, "w") as out:
                json.dump(result, out)
        except OSError as error:
            print(f"good client {number}: {error}", file=sys.stderr)
        finally:
            os._exit(0)
    os.close(writing)
    return reading


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, required=True)
    parser.add_argument("--seed", required=True)
    parser.add_argument("--rate", type=float, required=True, help="messages a second of each")
    parser.add_argument("--hang-every", type=float, required=True, help="seconds")
    parser.add_argument("--save-reports", action="store_true")
    arguments = parser.parse_args()
    stop, keep = os.pipe()
    readings = [begin(number, arguments, stop, keep) for number in range(arguments.count)]
    print("ready", flush=True)
    sys.stdin.read()
    os.close(keep)
    total = {"sent": 0, "hangs": 0, "found": 0, "longest": 0.0, "died": 0, "delays_us": []}
    for reading in readings:
        with os.fdopen(reading) as text:
            result = text.read()
        if not result:
            total["died"] += 1
            continue
        for key, value in json.loads(result).items():
            total[key] = max(total[key], value) if key == "longest" else total[key] + value
    print(json.dumps(total), flush=True)


if __name__ == "__main__":
    main()
