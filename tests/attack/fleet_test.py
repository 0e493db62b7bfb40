#!/usr/bin/env python3
"""The soak's fit finds a slope that is there and none where there is only noise; an attacker that breaks down is no attack."""

import collections
import contextlib
import math
import os
import pathlib
import random
import signal
import sys
import unittest
import unittest.mock

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/e2e"), str(ROOT / "tests/attack")]
import attack  # noqa: E402
import fleet  # noqa: E402
import hostile  # noqa: E402
import private  # noqa: E402
import soak  # noqa: E402


def noise(draw, count, alike):
    """Noise of which each value is like the one before."""
    value, values = 0.0, []
    for _ in range(count):
        value = alike * value + draw.gauss(0, 1)
        values.append(value)
    return values


class Slope(unittest.TestCase):
    def test_exact_line(self):
        rise, error = fleet.slope(range(100), [2 * t for t in range(100)])
        self.assertAlmostEqual(rise, 7200)
        self.assertAlmostEqual(error, 0)

    def test_true_slope_lies_within_the_uncertainty_as_often_as_it_says(self):
        for alike in (0.0, 0.8):
            draw = random.Random(1)
            times = list(range(300))
            within = 0
            for _ in range(200):
                values = [0.01 * t + rest for t, rest in zip(times, noise(draw, 300, alike))]
                rise, error = fleet.slope(times, values)
                within += abs(rise - 36) < 2 * error
            self.assertGreaterEqual(within, 180, f"noise with {alike}")

    def test_few_samples_give_no_slope(self):
        self.assertTrue(math.isnan(fleet.slope([1, 2], [1, 2])[0]))


class Judgement(unittest.TestCase):
    def judged(self, leak_kib_a_second, leaked_descriptors_a_second=0.0):
        draw = random.Random(2)
        samples = [(t / 2, 10_000 + leak_kib_a_second * t / 2 + draw.gauss(0, 50), 0, 600 + int(leaked_descriptors_a_second * t / 2 + draw.random() * 3))
                   for t in range(720)]
        verdict = private.Verdict()
        soak.judge_slopes(samples, 360, verdict)
        return verdict.failed

    def test_flat_is_kept(self):
        self.assertEqual(self.judged(0), 0)

    def test_noise_that_hides_all_is_not_taken_for_flat(self):
        draw = random.Random(3)
        samples = [(t / 2, 10_000 + value * 20_000, 0, 600) for t, value in enumerate(noise(draw, 200, 0.9))]
        verdict = private.Verdict()
        soak.judge_slopes(samples, 100, verdict)
        self.assertEqual((verdict.passed, verdict.failed, verdict.skipped), (1, 0, 1))

    def test_a_run_that_ends_while_it_warms_up_tells_nothing(self):
        for seconds in (10, 30, 32):
            verdict = private.Verdict()
            soak.judge_slopes([(t / 2, 10_000, 0, 600) for t in range(2 * seconds)], seconds, verdict)
            self.assertEqual((verdict.passed, verdict.failed, verdict.skipped), (0, 0, 1), f"{seconds} s")

    def test_leak_of_memory_is_found(self):
        self.assertEqual(self.judged(10), 1)

    def test_leak_of_descriptors_is_found(self):
        self.assertEqual(self.judged(0, 0.1), 1)


class Descriptors(unittest.TestCase):
    def test_are_told_by_what_they_are_of(self):
        before = fleet.descriptors(os.getpid())
        reading, writing = os.pipe()
        with open(__file__):
            after = fleet.descriptors(os.getpid())
        os.close(reading)
        os.close(writing)
        self.assertEqual(fleet.difference(before, after), f"{os.path.realpath(__file__)} +1, pipe +2")

    def test_of_none(self):
        self.assertEqual(fleet.difference(collections.Counter(a=1), collections.Counter(a=1)), "none")

    def test_that_are_gone(self):
        self.assertEqual(fleet.difference(collections.Counter(a=2, b=1), collections.Counter(a=1)), "a -1, b -1")


class Attackers(unittest.TestCase):
    def broken_of(self, kind):
        with unittest.mock.patch.dict(hostile.KINDS, {"kind": kind}), open(os.devnull, "w") as nowhere, contextlib.redirect_stderr(nowhere):
            attackers = attack.Attackers(["kind"], 1, os.getpid())
            for pid in attackers.running:
                os.waitid(os.P_PID, pid, os.WEXITED | os.WNOWAIT)
            begun = attackers.begun
            attackers.shuffle()
            again = attackers.begun - begun
            for pid in attackers.running:
                os.waitid(os.P_PID, pid, os.WEXITED | os.WNOWAIT)
            attackers.close()
        self.assertEqual(again, attack.OF_EACH_KIND)
        return attackers.broken["kind"]

    def refused(self, draw):
        raise BrokenPipeError("the daemon closed the connection")

    def test_one_that_is_refused_something_is_no_finding(self):
        self.assertEqual(self.broken_of(self.refused), 0)

    def test_one_that_breaks_down_by_itself_is_found(self):
        self.assertEqual(self.broken_of(lambda draw: draw + 1), 2 * attack.OF_EACH_KIND)

    def test_one_that_a_signal_ends_is_found(self):
        self.assertEqual(self.broken_of(lambda draw: os.kill(os.getpid(), signal.SIGTERM)), 2 * attack.OF_EACH_KIND)

    def test_one_that_stops_attacking_is_found(self):
        self.assertEqual(self.broken_of(lambda draw: None), 2 * attack.OF_EACH_KIND)

    def test_no_time_lies_before_the_machine_was_started(self):
        with unittest.mock.patch.object(hostile, "ticks_now", lambda: 2**33 - 1):
            self.assertEqual([hostile.ago(2**33), hostile.ago(2**33 - 1), hostile.ago(1)], [0, 0, 2**33 - 2])


class Percentile(unittest.TestCase):
    def test_of_a_hundred(self):
        self.assertEqual([fleet.percentile(range(100), part) for part in (0.5, 0.99, 1)], [50, 99, 99])

    def test_of_none(self):
        self.assertTrue(math.isnan(fleet.percentile([], 0.5)))


if __name__ == "__main__":
    unittest.main()
