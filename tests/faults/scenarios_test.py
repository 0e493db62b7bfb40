#!/usr/bin/env python3
"""The campaign's checks find what they are there for, and take nothing else for it."""

import contextlib
import os
import pathlib
import sqlite3
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/e2e"), str(ROOT / "tests/faults")]
import campaign  # noqa: E402
import scenarios  # noqa: E402
from supervisor import Call, Fault  # noqa: E402


class Lasting(unittest.TestCase):
    def looks(self, *found):
        answers = iter(found)
        last = found[-1]
        return scenarios.lasting(lambda: next(answers, last), seconds=0.1)

    def test_what_goes_was_only_under_way(self):
        self.assertEqual(self.looks({"a"}, set()), set())

    def test_what_takes_its_turn_is_not_what_was_there(self):
        self.assertEqual(self.looks({"a"}, {"b"}), set())

    def test_what_stays_is_told(self):
        self.assertEqual(self.looks({"a", "b"}, {"a"}), {"a"})


class FoldersOpenedToRemove(unittest.TestCase):
    def test_only_the_opening_before_the_removal(self):
        folder, made, removed = Call("openat", "/a/"), Call("openat", "/a/file", True), Call("unlinkat", "/a/file")
        elsewhere = Call("unlinkat", "/b/file")
        self.assertEqual(campaign.opened_to_remove([folder, made, folder, removed, folder, elsewhere]), {(folder, 2)})


class Stores(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="faults")
        self.addCleanup(folder.cleanup)
        self.store = pathlib.Path(folder.name, "wattrel.db")
        self.addCleanup(setattr, scenarios, "STORES", scenarios.STORES)
        scenarios.STORES = self.store.parent

    def make(self, *sql):
        with contextlib.closing(sqlite3.connect(self.store)) as database:
            for statement in sql:
                database.execute(statement)
            database.commit()

    def break_off(self):
        """A process ends in the middle of a change that has partly reached the file."""
        self.make("CREATE TABLE rows (text)", "INSERT INTO rows VALUES ('before')")
        if (pid := os.fork()) == 0:
            database = sqlite3.connect(self.store)
            database.execute("PRAGMA cache_size = 1")
            database.executemany("INSERT INTO rows VALUES (?)", [("x" * 4000,)] * 50)
            os._exit(0)
        os.waitpid(pid, 0)
        self.assertTrue(pathlib.Path(f"{self.store}-journal").exists())

    def test_a_transaction_that_was_broken_off_is_taken_back_and_the_files_stay(self):
        self.break_off()
        before = self.store.read_bytes()
        self.assertEqual(scenarios.query(self.store, "SELECT text FROM rows"), [("before",)])
        self.assertEqual(scenarios.store_problems(), [])
        self.assertEqual(self.store.read_bytes(), before)
        self.assertTrue(pathlib.Path(f"{self.store}-journal").exists())

    def test_a_page_that_is_damaged_is_told(self):
        self.make("CREATE TABLE rows (text)", "INSERT INTO rows VALUES ('before')")
        with open(self.store, "r+b") as file:
            file.seek(4096)
            file.write(b"x" * 100)
        self.assertEqual(len(scenarios.store_problems()), 1)

    def test_a_file_that_was_moved_aside_is_told(self):
        pathlib.Path(f"{self.store}.damaged-1").touch()
        self.assertEqual(scenarios.store_problems(), ["moved aside: wattrel.db.damaged-1"])

    def test_an_activation_without_statistics_is_half_unless_the_daemon_said_so(self):
        self.make("CREATE TABLE ActivationData (Activation, BundleID)", "CREATE TABLE CPUStatistics (Activation)",
                  "CREATE TABLE MemoryStatistics (Activation)", "INSERT INTO ActivationData VALUES (1, 'said'), (2, 'silent')",
                  "INSERT INTO MemoryStatistics VALUES (1), (2)")
        scenario = scenarios.Activation()
        scenario.store, scenario.stored = self.store, []
        scenario.empty = {"CPUStatistics": {"said"}, "MemoryStatistics": set()}
        self.assertEqual(scenario.problems(), ["half an activation: silent has no CPUStatistics"])


class Hurried(unittest.TestCase):
    """A scenario that does nothing but find what it is told to, each time with or without time."""

    def results_of(self, *answers):
        class Finding(scenarios.Scenario):
            name = "finding"

            def begin(self):
                pass

            def close(self):
                pass

        class Points(campaign.Campaign):
            def __init__(self):
                self.results, self.kinds, self.failures = campaign.collections.Counter(), campaign.collections.defaultdict(set), []
                self.deadline = None
                self.answers = iter(answers)

            def point(self, scenario, fault):
                scenario.hurried, problems = next(self.answers)
                return problems

        points = Points()
        points.scenario(Finding, [Fault(Call("write", "/a"), 1, "EIO")])
        return dict(points.results)

    def test_a_daemon_that_had_its_time_fails_at_once(self):
        self.assertEqual(self.results_of((False, ["lost"])), {"failed": 1})

    def test_one_that_had_none_is_tried_again_and_fails_when_it_had_it(self):
        self.assertEqual(self.results_of((True, ["lost"]), (True, ["lost"]), (False, ["lost"])), {"failed": 1})

    def test_one_that_never_had_it_counts_as_skipped(self):
        self.assertEqual(self.results_of(*[(True, ["lost"])] * campaign.TRIES_OF_A_HURRIED), {"skipped": 1})

    def test_a_call_that_it_had_no_time_for_is_tried_again(self):
        self.assertEqual(self.results_of((True, None), (False, ["lost"])), {"failed": 1})

    def test_a_call_that_is_not_there_counts_as_skipped_at_once(self):
        self.assertEqual(self.results_of((False, None)), {"skipped": 1})

    def test_what_is_right_is_right_in_any_time(self):
        self.assertEqual(self.results_of((True, [])), {"passed": 1})


if __name__ == "__main__":
    unittest.main()
