"""App activations, from a launcher's message to the power log on disk and what reads it."""

import contextlib
import json
import os
import pathlib
import signal
import sqlite3
import stat
import subprocess
import time

import harness
from quorvix_client import Int64, UInt64, activation_now

FOLDER = pathlib.Path("/var/lib/quorvix")
STORE = FOLDER / "wattrel.db"
TABLES = ("ActivationData", "ProcessData", "CPUStatistics", "MemoryStatistics")
APP = "com.example.app"
CAPABILITIES = pathlib.Path("/etc/quiddle.plist")
TRACING = pathlib.Path("/sys/kernel/tracing")
INSTANCE = TRACING / "instances/swivex"
FAILURE_LINE = "<default> [platform] The power log could not be written, and activations are dropped: "
RECOVERY_LINE = "<default> [platform] The power log is written again."
MIB = 1 << 20

ACTIVATION_COLUMNS = {
    "Activation": "INTEGER", "StoredAt": "INTEGER", "Timestamp": "REAL", "ActivationID": "INTEGER", "UniqueID": "INTEGER",
    "SystemUptime": "INTEGER", "BundleID": "TEXT", "ActivationDuration_ms": "INTEGER", "ActivationResult": "INTEGER",
    "ActivationType": "INTEGER", "ActivationFlags": "INTEGER"}
NAME_COLUMNS = {"Activation": "INTEGER", "EntryKey": "INTEGER", "Timestamp": "REAL", "UniqueID": "INTEGER", "ProcessName": "TEXT"}
CPU_COLUMNS = {"Activation": "INTEGER", "EntryKey": "INTEGER", "Timestamp": "REAL", **dict.fromkeys((
    "ActivationID", "UniqueID", "TotalCPU_ms", "QOSDisabled_ms", "QOSUserInteractive_ms", "QOSUserInitiated_ms", "QOSDefault_ms",
    "QOSUtility_ms", "QOSMaintenance_ms", "QOSBackground_ms", "IOReads_kb", "IOWrites_kb", "PageIns", "ProcessLifecycleState"),
    "INTEGER")}
MEMORY_COLUMNS = {**dict.fromkeys((
    "Activation", "EntryKey", "FreeQueue", "ActiveQueue", "SpeculativeQueue", "InactiveQueue", "ThrottledQueue", "WiredQueue",
    "PurgeableQueue", "FileBackedQueue", "AnonymousQueue", "CompressorSize", "Faults", "CopyOnWriteFault", "ZeroFill",
    "Reactivated", "Purged", "TotalCompressed", "Decompressions", "Compressions", "PageIns", "PageOuts", "SwapIns", "SwapOuts"),
    "INTEGER"), "Timestamp": "REAL", "ActivationID": "INTEGER", "SequenceID": "INTEGER"}


def rows(sql, *parameters):
    """What a reader beside the daemon sees; nothing while there is no store."""
    if not STORE.exists():
        return []
    with contextlib.closing(sqlite3.connect(f"file:{STORE}?mode=ro", uri=True, timeout=10)) as database:
        database.row_factory = sqlite3.Row
        try:
            return [dict(row) for row in database.execute(sql, parameters)]
        except sqlite3.OperationalError as error:
            if "no such table" in str(error):  # being made just now
                return []
            raise


def stored(bundle):
    return rows("SELECT * FROM ActivationData WHERE BundleID = ? ORDER BY Activation", bundle)


def wait_stored(bundle, count=1, seconds=30):
    return harness.wait_until(lambda: len(found := stored(bundle)) >= count and found, seconds, f"activation {count} of {bundle[:60]!r}")


def ctl_json(*arguments):
    return json.loads(harness.ctl(*arguments, "--json").stdout)


class ActivationTest(harness.DaemonTest):
    preferences = {}

    def setUp(self):
        super().setUp()
        self.daemon = self.world.start(**self.preferences)
        self.client = self.world.client()
        self.marks = 0

    def begin(self, bundle=APP, pid=412, start=None, state=1, kind=1, latency=None):
        now = activation_now()
        entries = {} if bundle is None else {"bundle_id": bundle}
        self.client.send_command(4, pid=Int64(pid), startTime=UInt64(now if start is None else start),
                                 vexStartLatency=UInt64(now if latency is None else latency),
                                 app_activation_state=Int64(state), app_activation_type=Int64(kind), **entries)

    def end(self, bundle=APP, pid=412, end=None, state=1, result=0):
        entries = {} if bundle is None else {"bundle_id": bundle}
        self.client.send_command(5, pid=Int64(pid), endTime=UInt64(activation_now() if end is None else end),
                                 app_activation_state=Int64(state), app_activation_result=Int64(result), **entries)

    def activate(self, bundle=APP, pid=412, **begin):
        self.begin(bundle, pid, **begin)
        self.end(bundle, pid)

    def record(self, bundle=APP, pid=412, **begin):
        """An activation that must be stored; gives its row."""
        count = len(stored(bundle)) + 1
        self.activate(bundle, pid, **begin)
        return wait_stored(bundle, count)[-1]

    def all_handled(self):
        """All activations sent so far have gone as far as they go: one sent now is stored or refused after them."""
        self.marks += 1
        mark = f"mark-{self.marks}"
        self.activate(mark, state=0)
        self.daemon.wait_line(f"Activation not recorded for:{mark} ")

    def expect_lines(self, *texts):
        """These whole lines come."""
        for text in texts:
            harness.wait_until(lambda: text in self.daemon.log(), what=f"the line {text!r} in\n" + "\n".join(self.daemon.log()[-20:]))

    def counters(self):
        return self.daemon.status()["counters"]["activations"]

    def power_log(self):
        return self.daemon.platform("powerLog")


class Recorded(ActivationTest):
    def check_tables(self, row):
        """The four events of one activation stand in the store, with the keys and types of their tables."""
        number = row["Activation"]
        self.assertEqual(stat.S_IMODE(STORE.stat().st_mode), 0o600)
        for table, columns in zip(TABLES, (ACTIVATION_COLUMNS, NAME_COLUMNS, CPU_COLUMNS, MEMORY_COLUMNS)):
            self.assertEqual({column["name"]: column["type"] for column in rows(f"PRAGMA table_info({table})")}, columns)
            found = rows(f"SELECT * FROM {table} WHERE Activation = ?", number)
            self.assertTrue(found, table)
            kinds = {"INTEGER": int, "REAL": float, "TEXT": str}
            for entry in found:
                self.assertEqual({column: type(value) for column, value in entry.items()},
                                 {column: kinds[kind] for column, kind in columns.items()})
        memory = rows("SELECT * FROM MemoryStatistics WHERE Activation = ? ORDER BY EntryKey", number)
        self.assertEqual([entry["SequenceID"] for entry in memory], [1, 2])
        processes = rows("SELECT * FROM CPUStatistics WHERE Activation = ? ORDER BY EntryKey", number)
        self.assertEqual([entry["EntryKey"] for entry in processes][0], -1)
        for entry in memory + processes:
            self.assertEqual((entry["ActivationID"], entry["Timestamp"]), (row["ActivationID"], row["Timestamp"]))
        names = rows("SELECT * FROM ProcessData WHERE Activation = ? AND UniqueID = ?", number, row["UniqueID"])
        self.assertEqual([name["ProcessName"] for name in names], [row["BundleID"]])

    def test_launch_from_a_shell(self):
        app = self.world.child(lambda child: child.wait_for_end())
        before = activation_now()
        harness.ctl("activation", "begin", "--launch", "--pid", str(app.pid), "--bundle", APP)
        time.sleep(0.1)
        harness.ctl("activation", "end", "--pid", str(app.pid), "--bundle", APP, "--result", "7")
        row = wait_stored(APP)[0]
        after = activation_now()
        self.check_tables(row)
        self.assertEqual((row["ActivationType"], row["ActivationResult"]), (1, 7))
        self.assertLessEqual(before, row["Timestamp"] * 1000)
        self.assertGreaterEqual(row["ActivationDuration_ms"], 100)
        self.assertLessEqual(row["ActivationDuration_ms"], after - before)
        self.assertEqual(row["ActivationID"] & 0xFFFF, app.pid & 0xFFFF)
        self.assertTrue(rows("SELECT * FROM CPUStatistics WHERE EntryKey >= 0 AND UniqueID & 0xffffffff = ?", app.pid))

    def test_resume_from_the_plain_client(self):
        start = activation_now()
        row = self.record(pid=os.getpid(), kind=2, start=start)
        self.check_tables(row)
        self.assertEqual((row["ActivationType"], row["ActivationResult"]), (2, 0))
        self.assertAlmostEqual(row["Timestamp"], start / 1000)
        self.assertEqual(row["ActivationID"] >> 32 & 0xFFFFFFFF, start & 0xFFFFFFFF)
        self.assertEqual(row["ActivationID"] & 0xFFFF, os.getpid() & 0xFFFF)

    def test_tool_shows_what_is_stored(self):
        launches = [self.record(pid=os.getpid()) for _ in range(3)]
        self.record(kind=2)
        listed = ctl_json("activations", "list")
        self.assertEqual([(entry["BundleID"], entry["Type"], entry["Result"]) for entry in listed],
                         [(APP, "resume", 0)] + 3 * [(APP, "launch", 0)])
        self.assertEqual(int(listed[-1]["ID"]), launches[0]["ActivationID"] & (1 << 64) - 1)
        shown = ctl_json("activations", "show", listed[-1]["ID"])
        self.assertEqual((shown["BundleID"], shown["Pid"], shown["Type"]), (APP, os.getpid(), "launch"))
        self.assertIn(os.getpid(), [process["Pid"] for process in shown["Processes"]])
        self.assertIn("OtherProcesses", [process["ProcessName"] for process in shown["Processes"]])
        self.assertEqual(len(shown["Memory"]), 22)
        durations = sorted(launch["ActivationDuration_ms"] for launch in launches)
        launched, resumed = ctl_json("activations", "stats")
        self.assertEqual(launched, {"BundleID": APP, "Type": "launch", "Count": 3, "Min_ms": durations[0], "P50_ms": durations[1],
                                    "P90_ms": durations[2], "P99_ms": durations[2], "Max_ms": durations[2]})
        self.assertEqual((resumed["Type"], resumed["Count"]), ("resume", 1))

    def test_readers_are_not_in_the_way(self):
        """A reader keeps what it saw while its transaction is open; the daemon goes on writing."""
        self.record()
        with contextlib.closing(sqlite3.connect(f"file:{STORE}?mode=ro", uri=True, isolation_level=None)) as reader:
            reader.execute("BEGIN")
            count = "SELECT count(*) FROM ActivationData"
            self.assertEqual(reader.execute(count).fetchone(), (1,))
            for _ in range(5):
                self.record()
            self.assertEqual(reader.execute(count).fetchone(), (1,))
            reader.execute("COMMIT")
            self.assertEqual(reader.execute(count).fetchone(), (6,))
        self.assertEqual(self.power_log()["failedWrites"], 0)

    def test_end_without_a_begin_is_recorded_with_result_32(self):
        self.end(result=3)
        row = wait_stored(APP)[0]
        self.expect_lines(f"<default> QXActivationStats: endActivationTrackingForPID: Did not find an existing entry for 412:{APP}\\n")
        self.assertEqual((row["ActivationResult"], row["ActivationType"], row["ActivationDuration_ms"]), (32, 0, 0))
        for table in ("CPUStatistics", "MemoryStatistics"):
            self.assertEqual(rows(f"SELECT * FROM {table}"), [])
        self.assertEqual(ctl_json("activations", "stats"), [])

    def test_background_is_not_recorded(self):
        for start, end, words in ((0, 1, ("Background", "Foreground")), (1, 0, ("Foreground", "Background")), (0, 0, 2 * ("Background",))):
            bundle = f"{APP}-{start}-{end}"
            self.begin(bundle, state=start)
            self.end(bundle, state=end)
            self.expect_lines(f"<default> QXActivationStats: Activation not recorded for:{bundle} StartState:{words[0]} "
                              f"EndState:{words[1]} Number Of Activations:0")
        self.record()
        self.assertEqual(rows("SELECT BundleID FROM ActivationData"), [{"BundleID": APP}])

    def test_second_begin_is_refused(self):
        self.begin(start=activation_now() - 5000)
        self.begin()
        self.end()
        self.assertGreaterEqual(wait_stored(APP)[0]["ActivationDuration_ms"], 5000)
        self.expect_lines(f"<default> QXActivationStats: beginActivationTrackingForPID: An entry already exists for 412:{APP}\\n")

    def test_killed_daemon_loses_nothing_that_was_stored(self):
        self.record()
        for _ in range(40):
            self.activate()
        seen = wait_stored(APP, 10)
        self.daemon.end(signal.SIGKILL)
        self.daemon = self.world.start()
        self.client = self.world.client()
        after = stored(APP)
        self.assertEqual(after[:len(seen)], seen)
        self.record()
        whole = rows("SELECT a.Activation, (SELECT count(*) FROM MemoryStatistics m WHERE m.Activation = a.Activation) AS Memory, "
                     "(SELECT count(*) FROM CPUStatistics c WHERE c.Activation = a.Activation) > 0 AS CPU FROM ActivationData a")
        self.assertEqual(len(whole), len(after) + 1)
        self.assertEqual({(row["Memory"], row["CPU"]) for row in whole}, {(2, 1)})
        self.assertEqual(rows("PRAGMA integrity_check"), [{"integrity_check": "ok"}])


class DailyLimit(ActivationTest):
    preferences = {"QuorvixAppActivationLoggingMaxActivationCount": "2"}

    def test_nothing_is_recorded_past_it(self):
        self.record()
        self.record()
        harness.wait_until(lambda: self.counters()["recordedToday"] == 2)
        self.activate("com.example.third")
        self.expect_lines("<default> QXActivationStats: Activation not recorded for:com.example.third StartState:Foreground "
                          "EndState:Foreground Number Of Activations:2")
        self.assertEqual(len(rows("SELECT * FROM ActivationData")), 2)
        self.world.prefer("QuorvixAppActivationLoggingMaxActivationCount", "3")
        self.daemon.wait_line("QuorvixAppActivationLoggingMaxActivationCount = 3")
        self.record("com.example.fourth")


class BadInput(ActivationTest):
    def test_absent_bundle_identifier(self):
        self.begin(None)
        self.end(None)
        self.client.send_command(4, pid=Int64(1), bundle_id=Int64(5))
        self.client.send_command(5)
        begin = "<default> QXActivationStats: Failed to get bundle-id for app activation begin command, this activation will be ignored"
        end = "<default> QXActivationStats: Failed to get bundleID for app activation end command, ignoring this"
        harness.wait_until(lambda: self.daemon.log().count(begin) == 2 and self.daemon.log().count(end) == 2)
        self.all_handled()
        self.assertEqual(rows("SELECT * FROM ActivationData"), [])
        self.assertEqual(self.counters()["open"], 0)

    def test_empty_bundle_identifier(self):
        row = self.record("")
        self.expect_lines("<info> QXActivationStats: [412] activation begin (launch)", "<info> QXActivationStats: [412] activation end")
        self.assertEqual(row["BundleID"], "")
        self.assertEqual(ctl_json("activations", "list")[0]["BundleID"], "")

    def test_longest_bundle_identifier(self):
        # Header, and the begin's six entries without the identifier's own bytes.
        rest = 8 + sum(2 + len(key) + size for key, size in (
            ("command", 8), ("pid", 8), ("startTime", 8), ("vexStartLatency", 8), ("app-activation-state", 8),
            ("app-activation-type", 8), ("bundle-id", 4)))
        bundle = "x" * (65536 - rest)
        self.assertEqual(self.record(bundle)["BundleID"], bundle)
        self.assertEqual(ctl_json("activations", "stats")[0]["BundleID"], bundle)
        undecodable = self.daemon.platform("messages")["undecodable"]
        self.assertEqual(undecodable, 0)
        # A byte more is no datagram of the protocol.
        with contextlib.suppress(OSError):
            self.begin(bundle + "x")
        self.client = self.world.client()
        self.all_handled()
        self.assertEqual(self.counters()["open"], 0)

    def test_bundle_identifier_that_is_no_text(self):
        for bundle in (b"\xff\xfe\x80", b"com.\xc3", b"\xed\xa0\x80", "\x01\n\x7f\x1b[31m"):
            with self.subTest(bundle=bundle):
                self.assertEqual(self.record(bundle)["BundleID"], bundle)
        self.assertEqual(len(ctl_json("activations", "list")), 4)
        self.assertEqual(harness.ctl("activations", "list").stdout.count("launch"), 4)
        self.assertNotIn("\x1b", harness.ctl("activations", "list").stdout)

    def test_process_identifiers_keep_their_low_32_bits(self):
        for pid, seen in ((0, 0), (-1, -1), (2**31, -2**31), (2**31 + 5, 5 - 2**31), (2**32 + 412, 412), (-2**63, 0), (2**63 - 1, -1)):
            with self.subTest(pid=pid):
                bundle = f"{APP}-{pid}"
                row = self.record(bundle, pid)
                self.expect_lines(f"<info> QXActivationStats: {bundle}[{seen}] activation begin (launch)")
                self.assertEqual(row["UniqueID"] & 0xFFFFFFFF, seen & 0xFFFFFFFF)
                self.assertEqual(row["ActivationID"] & 0xFFFF, pid & 0xFFFF)

    def test_times_of_any_value(self):
        now = activation_now()
        for start, end, duration in ((now + 86400000, now, 2**32 - 86400000), (2**64 - 1, 5, 6), (now, 2**64 - 1, (2**32 - 1 - now) % 2**32),
                                     (1, 2**32 + 3, 2), (2**63, 2**63 + 9, 9)):
            with self.subTest(start=start, end=end):
                bundle = f"{APP}-{start}-{end}"
                self.begin(bundle, start=start, latency=start)
                self.end(bundle, end=end)
                row = wait_stored(bundle)[0]
                self.assertEqual(row["ActivationDuration_ms"], duration)
                self.assertAlmostEqual(row["Timestamp"], start / 1000.0)
                self.assertEqual(row["ActivationID"] >> 32 & 0xFFFFFFFF, start & 0xFFFFFFFF)
        self.assertEqual(len(ctl_json("activations", "list")), 5)

    def test_times_of_0_are_the_daemons(self):
        before = activation_now()
        self.begin(start=0, latency=0)
        self.end(end=0)
        row = wait_stored(APP)[0]
        self.expect_lines("<default> QXActivationStats: We got no Start time for the activation",
                          "<default> QXActivationStats: We got no End time for the activation")
        self.assertLessEqual(before - 1, row["Timestamp"] * 1000)
        self.assertLessEqual(row["ActivationDuration_ms"], activation_now() - before + 1)

    def test_states_are_compared_in_the_width_of_their_step(self):
        """The begin's state is kept in a byte, the end's is not."""
        for begin, end, recorded in ((257, 1, True), (1, 257, False), (2, 1, False), (1, 2, False), (-1, 1, False), (1, -1, False),
                                     (2**32 + 1, 1, True), (1, 2**32 + 1, True)):
            with self.subTest(begin=begin, end=end):
                bundle = f"{APP}-{begin}-{end}"
                self.begin(bundle, state=begin)
                self.end(bundle, state=end)
                if recorded:
                    wait_stored(bundle)
                else:
                    self.expect_lines(f"<default> QXActivationStats: Activation not recorded for:{bundle} StartState:Foreground "
                                      f"EndState:Foreground Number Of Activations:{self.counters()['recordedToday']}")
                    self.assertEqual(stored(bundle), [])

    def test_types_and_results_keep_their_low_byte(self):
        for kind, result, stored_kind, stored_result, word in ((257, 300, 1, 44, "resume"), (-1, -1, 255, 255, "resume"),
                                                              (2**32 + 1, 2**32 + 7, 1, 7, "launch"), (0, 32, 0, 32, "resume")):
            with self.subTest(kind=kind, result=result):
                bundle = f"{APP}-{kind}"
                self.begin(bundle, kind=kind)
                self.end(bundle, result=result)
                row = wait_stored(bundle)[0]
                self.expect_lines(f"<info> QXActivationStats: {bundle}[412] activation begin ({word})")
                self.assertEqual((row["ActivationType"], row["ActivationResult"]), (stored_kind, stored_result))

    def test_ten_thousand_begins_without_an_end(self):
        self.record()
        before = self.resident()
        for number in range(10000):
            self.begin(f"com.example.storm-{number:05}", pid=1000 + number)
        # Behind the storm, from a client of its own; the record of an end needs no room among the open ones.
        self.client = self.world.client()
        harness.wait_until(lambda: self.settled(10000), 60, "the end of the storm")
        state = self.daemon.status()["counters"]
        counters, snapshots = state["activations"], state["snapshots"]
        grown = self.resident() - before
        print(f"[10000 begins: open {counters['open']}, dropped {counters['beginsDropped']} + {counters['stepsDropped']} waiting, "
              f"snapshots {snapshots['bytesUsed'] / MIB:.1f} MiB, VmRSS +{grown / MIB:.1f} MiB]", end=" ", flush=True)
        self.assertEqual(counters["open"] + counters["beginsDropped"] + counters["stepsDropped"], 10000)
        self.assertGreater(counters["open"], 0)
        self.assertLessEqual(counters["open"], 4096)
        self.assertLessEqual(snapshots["bytesUsed"], 64 * MIB)
        if not self.sanitized():
            # Held identifiers, and what 4096 records, their time-outs and the waiting steps take themselves.
            self.assertLess(grown, snapshots["bytesUsed"] + 8 * MIB + 16 * MIB)
        # It still works: an open one ends and is recorded.
        self.record("com.example.storm-00000", pid=1000)

    def test_long_identifiers_without_an_end(self):
        """Few begins hold much: what is bounded is the bytes of all identifiers together."""
        self.record()
        before = self.resident()
        for number in range(400):
            self.begin(f"{number:05}" + 60000 * "x")
        self.client = self.world.client()
        harness.wait_until(lambda: self.settled(400), 60, "the end of the storm")
        counters = self.counters()
        grown = self.resident() - before
        print(f"[400 long identifiers: open {counters['open']}, VmRSS +{grown / MIB:.1f} MiB]", end=" ", flush=True)
        self.assertGreater(counters["open"], 0)
        # An open one holds its identifier three times; the last one let in may pass the bound.
        self.assertLessEqual(counters["open"], 8 * MIB // (3 * 60000) + 1)
        if not self.sanitized():
            self.assertLess(grown, 8 * MIB + 32 * MIB)

    def settled(self, begins):
        state = self.daemon.status()
        counters = state["counters"]["activations"]
        return counters["open"] + counters["beginsDropped"] + counters["stepsDropped"] == begins

    def resident(self):
        text = pathlib.Path(f"/proc/{self.daemon.pid}/status").read_text()
        return 1024 * int(next(line for line in text.splitlines() if line.startswith("VmRSS:")).split()[1])

    def sanitized(self):
        return b"libasan" in pathlib.Path(f"/proc/{self.daemon.pid}/maps").read_bytes()


class StoreFaults(ActivationTest):
    """While the store can't be written the daemon lives and says so once; it tries again after 10 s."""

    def lose_and_recover(self, reason, repair):
        """The fault is there: activations are dropped, said once; after repair() they are stored again."""
        failed = self.power_log()["failedWrites"]
        for number in range(3):
            self.activate(f"com.example.lost-{number}")
        self.daemon.wait_line(FAILURE_LINE)
        harness.wait_until(lambda: self.power_log()["droppedEvents"] == 12)
        self.assertGreater(self.power_log()["failedWrites"], failed)
        line, = (line for line in self.daemon.log() if line.startswith(FAILURE_LINE))
        self.assertIn(reason, line)
        repair()
        # The first one after the wait is the one that is tried.
        harness.wait_until(lambda: self.activate("com.example.after") or time.sleep(0.4) or stored("com.example.after"), 60, "the recovery")
        self.expect_lines(RECOVERY_LINE)
        self.assertEqual((self.daemon.log().count(RECOVERY_LINE), self.daemon.count_lines(FAILURE_LINE)), (1, 1))
        self.assertEqual(rows("SELECT * FROM ActivationData WHERE BundleID GLOB 'com.example.lost*'"), [])
        self.assertEqual(rows("PRAGMA integrity_check"), [{"integrity_check": "ok"}])

    def test_missing_folder(self):
        FOLDER.rmdir()
        self.lose_and_recover("No such file or directory", lambda: FOLDER.mkdir(mode=0o700))

    def test_full_disk(self):
        self.world.mount_memory(FOLDER, "size=1m")
        self.record("com.example.before")
        self.fill_disk()
        # What the journal has room for already is still stored.
        harness.wait_until(lambda: self.activate("com.example.filling") or self.daemon.has_line(FAILURE_LINE), 60, "the full disk")
        dropped = None
        while dropped != (dropped := self.power_log()["droppedEvents"]):
            self.all_handled()
        kept = len(rows("SELECT * FROM ActivationData"))
        (FOLDER / "filler").unlink()
        harness.wait_until(lambda: self.activate("com.example.after") or time.sleep(0.4) or stored("com.example.after"), 60, "the recovery")
        self.expect_lines(RECOVERY_LINE)
        self.assertEqual((self.daemon.log().count(RECOVERY_LINE), self.daemon.count_lines(FAILURE_LINE)), (1, 1))
        self.assertEqual(len(stored("com.example.before")), 1)
        self.assertGreater(len(rows("SELECT * FROM ActivationData")), kept)
        self.assertEqual(rows("PRAGMA integrity_check"), [{"integrity_check": "ok"}])

    def fill_disk(self):
        with contextlib.suppress(OSError), open(FOLDER / "filler", "wb", buffering=0) as filler:
            while filler.write(bytes(4096)):
                pass

    def test_locked_by_another_process(self):
        self.record("com.example.before")

        def lock(child):
            database = sqlite3.connect(STORE, isolation_level=None)
            database.execute("BEGIN IMMEDIATE")
            child.say()
            child.wait_for_go()
            database.execute("ROLLBACK")
            database.close()

        locker = self.world.child(lock)
        locker.hear()

        def unlock():
            locker.go()
            self.assertEqual(locker.wait(), 0)

        self.lose_and_recover("locked", unlock)
        self.assertEqual(len(stored("com.example.before")), 1)

    def test_file_that_is_no_database(self):
        garbage = os.urandom(20000)
        STORE.write_bytes(garbage)
        self.activate()
        self.daemon.wait_line("was moved aside.")
        wait_stored(APP)
        self.assertEqual((FOLDER / "wattrel.db.damaged-1").read_bytes(), garbage)
        self.assertEqual(self.daemon.count_lines("<default> [platform] A power log that is damaged or of a later version was moved aside."), 1)
        self.assertEqual((self.power_log()["databasesMovedAside"], self.power_log()["droppedEvents"]), (1, 0))
        self.record()


class Signposts(harness.DaemonTest):
    """Launches in the marker of a trace instance, which the test makes for itself."""

    def setUp(self):
        super().setUp()
        if not TRACING.is_dir() or subprocess.run(["mount", "-t", "tracefs", "tracing", str(TRACING)], capture_output=True).returncode:
            self.skipTest("no tracefs can be mounted here")
        self.world.mounts.append(TRACING)
        # The kernel has one set of instances for all: another may have this one just now, or was killed and left it.
        try:
            harness.wait_until(self.make_instance, what="the end of the instance's other user")
        except AssertionError:
            self.remove_instance()
            self.assertTrue(self.make_instance(), "another holds the instance")
        self.addCleanup(CAPABILITIES.unlink, missing_ok=True)

    def make_instance(self):
        try:
            INSTANCE.mkdir()
        except FileExistsError:
            return False
        # Before the world's end, which takes the mount away.
        close = self.world.close

        def close_all():
            for daemon in self.world.daemons:
                daemon.end()
            harness.wait_until(self.remove_instance, what="the instance's removal")
            close()

        self.world.close = close_all
        return True

    def remove_instance(self):
        with contextlib.suppress(OSError):
            INSTANCE.rmdir()
        return not INSTANCE.exists()

    def start(self, internal):
        CAPABILITIES.write_text('<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0"><dict><key>InternalBuild</key>'
                                f"<{str(internal).lower()}/></dict></plist>\n")
        self.daemon = self.world.start()
        self.assertEqual(self.daemon.status()["settings"]["internalBuild"], internal)
        self.client = self.world.client()

    def launch(self, bundle):
        """A launch; gives what the trace says of it."""
        self.client.activation_begin(os.getpid(), bundle)
        self.client.activation_end(os.getpid(), bundle)
        wait_stored(bundle)
        lines = [line.split("tracing_mark_write: ", 1)[1] for line in (INSTANCE / "trace").read_text().splitlines()
                 if "tracing_mark_write: " in line]
        return [line for line in lines if line.startswith(("S|", "F|")) or f"processBundleId={bundle} " in line + " "]

    def test_internal_device_marks_a_launch(self):
        self.start(True)
        interval = f"|{self.daemon.pid}|appLaunch|{os.getpid()}"
        for attempt in range(20):
            bundle = f"{APP}-{attempt}"
            lines = self.launch(bundle)
            # A message that came late on a loaded machine is left out, on purpose.
            if len(lines) == 4:
                break
            (INSTANCE / "trace").write_text("")
        self.assertEqual(lines[:3], [f"S{interval}", f"I|{self.daemon.pid}|appLaunch processBundleId={bundle}", f"F{interval}"])
        self.assertRegex(lines[3], rf"^I\|{self.daemon.pid}\|appLaunch processBundleId={bundle} +appCPUTimeInMs=\d+ +"
                                   r"appIOInKB=\d+enableTelemetry=YES$")
        self.daemon.wait_line(f"appLaunch interval began for {bundle}")
        self.daemon.wait_line(f"appLaunch interval ended for {bundle}")
        self.daemon.wait_line(f"stats for processBundleId: {bundle}")

    def test_other_devices_mark_nothing(self):
        self.start(False)
        for attempt in range(3):
            self.assertEqual(self.launch(f"{APP}-{attempt}"), [])
        self.assertEqual((INSTANCE / "trace").read_text().count("tracing_mark_write"), 0)
        self.assertFalse(self.daemon.has_line("appLaunch interval"))
        self.assertFalse(self.daemon.has_line("stats for processBundleId"))
        self.assertEqual(self.daemon.platform("signposts"), {"written": 0, "failed": 0})
