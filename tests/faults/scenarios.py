"""The operations at whose system calls faults are tried, and what must be true after each.

A scenario brings a daemon (or the tool) to the point before the operation, does the operation once, and looks at what
is on disk and what the daemon says. What it finds wrong it returns as sentences.
"""

import collections
import contextlib
import os
import pathlib
import re
import shutil
import signal
import sqlite3
import subprocess
import tempfile
import time

import harness
from supervisor import Supervisor

ROOT = pathlib.Path(__file__).resolve().parents[2]
REPORTS = pathlib.Path("/Library/Logs/Faultbox")
STORES = pathlib.Path("/var/lib/quorvix")
EXPORT = pathlib.Path("/var/lib/prometheus/node-exporter")
LIST = harness.PREFERENCES / "com.norvane.da.plist"
PREFIX = "com.norvane.quorvix."
PROGRAM = os.path.basename(os.path.realpath("/proc/self/exe"))
END_MARK = b"com.norvane.quorvix.end"
TABLES = ("ProcessData", "CPUStatistics", "MemoryStatistics")


def query(path, sql, *parameters):
    """What a reader finds; nothing while there is no such file or table."""
    if not path.exists():
        return []
    with contextlib.closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=10)) as database:
        try:
            return database.execute(sql, parameters).fetchall()
        except sqlite3.OperationalError as error:
            if "no such table" in str(error):
                return []
            if error.sqlite_errorname == "SQLITE_READONLY_ROLLBACK":
                return query_rolled_back(path, sql, *parameters)
            raise


def query_rolled_back(path, sql, *parameters):
    """A transaction that was broken off is taken back by the next writer, here in a copy: the daemon has to find what it
    left. Before the write-ahead journal is switched on, no reader can do without that."""
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder, path.name)
        for suffix in ("", "-journal"):
            shutil.copy(f"{path}{suffix}", f"{copy}{suffix}")
        # Fails where it can't be taken back; and a copy without a journal is asked as any other.
        with contextlib.closing(sqlite3.connect(copy)) as database:
            database.execute("BEGIN IMMEDIATE")
        return query(copy, sql, *parameters)


def store_problems():
    """Both databases, where they exist, are whole."""
    problems = []
    for name in ("wattrel.db", "tallisk.db"):
        path = STORES / name
        try:
            # An empty file is what a daemon leaves that was killed before it wrote a word.
            if path.exists() and path.stat().st_size and (answer := query(path, "PRAGMA integrity_check")) != [("ok",)]:
                problems.append(f"{name}: {answer}")
        except sqlite3.Error as error:
            problems.append(f"{name} can't be read: {error}")
    problems += [f"moved aside: {path.name}" for path in STORES.glob("*.db.*") if "damaged" in path.name or "newer" in path.name]
    return problems


def file_problems():
    """Whatever a reader may look at is whole."""
    problems = [f"half a report: {path.name}" for path in harness.reports() if END_MARK not in path.read_bytes()[-80:]]
    for path in REPORTS.glob("[!.]*"):
        if not path.read_text(errors="replace").endswith("]\n}\n"):
            problems.append(f"half a snapshot: {path.name}")
    for path in EXPORT.glob("*.prom"):
        if not path.read_text().endswith("# EOF\n"):
            problems.append(f"half an export: {path.name}")
    if LIST.exists() and subprocess.run([str(harness.BUILD / "bin/quorvixctl"), "prefs", "list"], capture_output=True).returncode != 0:
        problems.append("the preferences can't be read")
    problems += [f"moved aside: {path.name}" for path in harness.PREFERENCES.glob("*.damaged*")]
    return problems


def lasting(look, seconds=5):
    """What look() finds and goes on finding: the daemon may be in the middle of its next work. A Counter or a set."""
    found = look()
    end = time.monotonic() + seconds
    while found and time.monotonic() < end:
        time.sleep(0.02)
        found &= look()
    return found


def remains():
    """Unfinished files: what a killed daemon may leave until the next start, and nobody else."""
    return [f"left behind: {path}" for path in sorted(lasting(unfinished))]


def unfinished():
    found = list(harness.TMP.iterdir()) if harness.TMP.is_dir() else []
    found += [path for path in harness.CACHES.glob("*") if path.is_file()]
    found += list(REPORTS.glob(".*")) + list(EXPORT.glob("*.new")) + list(harness.PREFERENCES.glob(".*.tmp"))
    return set(found)


class Scenario:
    """One operation of the daemon."""
    name = ""
    preferences = {"QuorvixEnabled": "true", "QuorvixEnableSwivex": "true", "QuorvixReportPeriod": "0.001", "QuorvixDailyLogLimit": "1000000"}
    # The same daemon serves for all faults that it survives.
    reusable = True
    # What is done afterwards without a fault is done by the same daemon.
    serves_on = True
    # The operation ends the daemon.
    may_end = False
    # It took longer to end than the time that the daemon gives itself.
    hurried = False

    def __init__(self):
        self.world = None
        self.daemon = None
        self.supervisor = None
        self.client = None
        self.number = 0

    # --- the daemon ------------------------------------------------------------------------------------------------

    def begin(self):
        """Empty folders, and what is in them before the first daemon."""
        self.world = harness.World()
        self.make_folders()
        for key, value in self.preferences.items():
            self.world.prefer(key, value)
        self.world.install_trace_library("swivex")
        shutil.rmtree(EXPORT, ignore_errors=True)

    def make_folders(self):
        """As the unit does before each start: what a killed daemon left unfinished goes."""
        subprocess.run(["/bin/sh", str(ROOT / "packaging/make-folders")], check=True)

    def start(self):
        self.make_folders()
        self.supervisor = Supervisor()
        self.daemon = self.world.launch(self.supervisor.prefix(), **self.supervisor.options())
        self.supervisor.attach(self.daemon.pid)
        self.daemon.wait_ready()
        self.daemon.wait_line("refreshPreferences: App Activation Logging ")
        self.client = self.world.watched_client(self.daemon)
        self.settle()
        self.daemon.base = self.daemon.descriptors()

    def settle(self):
        """Done once by each daemon, before a fault is tried: what it does only the first time."""

    def left_open(self):
        """Descriptors beyond those that the daemon had before, by kind."""
        return lasting(lambda: self.daemon.descriptors() - self.daemon.base)

    def stop(self, number=signal.SIGKILL):
        """Ends the daemon; gives its status."""
        if self.daemon is None:
            return None
        status = self.daemon.end(number)
        self.forget()
        return status

    def forget(self):
        self.supervisor.wait_end()
        self.client.close()
        self.world.clients.clear()
        self.daemon.close()
        self.world.daemons.remove(self.daemon)
        self.daemon = None

    def close(self):
        if self.daemon is not None:
            self.stop()
        if self.world is not None:
            self.world.close()

    def make_store(self):
        """One operation by a daemon of its own, so that there is a store."""
        self.start()
        self.act()
        self.stop()

    def wait(self, condition, what, pause=0.02):
        """Until it is true, or the daemon has gone."""
        harness.wait_until(lambda: not self.daemon.alive() or condition(), seconds=30, what=f"{self.name}: {what}", pause=pause)

    def wait_handled(self):
        """All that this client has sent is handled."""
        self.number += 1
        mark = 1_000_000 + self.number
        try:
            self.client.fence_end(mark)
        except OSError:
            return
        self.wait(lambda: self.daemon.has_line(f"corresponding fence({mark})"), "the mark")

    def relevant(self, call):
        """Whether it is the operation's; what the process loader and other threads do is not."""
        return not call.file.startswith(("/usr", "/lib", "/.host/usr/lib", "/etc/ld.so", "/etc/vex/logging"))

    # --- the operation ---------------------------------------------------------------------------------------------

    # False: a close was made to fail, and what should have been closed is still open.
    closes = True

    def prepare(self):
        """Before each operation, without a fault."""

    def act(self):
        """The operation. Ends when it has succeeded, has failed or the daemon has gone."""
        raise NotImplementedError

    def problems(self):
        """What is wrong on disk whatever happened."""
        return file_problems() + store_problems()

    def problems_after_error(self):
        return self.problems()

    def problems_after_success(self):
        """The operation without a fault, in the same daemon or the next."""
        return self.problems() + remains()


class Report(Scenario):
    name = "report"
    # An app has four reports to spend.
    reusable = False

    def relevant(self, call):
        return super().relevant(call) and not call.file.startswith(("/var/lib", "/dev/urandom"))

    def act(self):
        self.number += 1
        self.hang = f"work {self.number}"
        try:
            self.client.hang_detected(self.hang, save_report=True)
        except OSError:
            return
        self.wait_handled()

    def problems_after_success(self):
        mine = [path for path in harness.reports() if path.name.startswith(f"{self.hang}-")]
        for path in harness.reports():
            path.unlink()
        # What the first report opened, it closed; also one that failed. A helper that ends late is told by its descriptor.
        # On a busy machine the next report sees to it: so many may wait for that.
        more = self.left_open() - collections.Counter({"anon_inode:[pidfd]": 4})
        return super().problems_after_success() + ([] if len(mine) == 1 else [f"{len(mine)} reports of {self.hang}"]) + (
            [f"left open: {dict(more)}"] if more and self.closes else [])


class Snapshot(Scenario):
    name = "snapshot"
    preferences = {**Scenario.preferences, "QuorvixEnableMemoryLogging": "true", "QuorvixMemoryLoggingInterval": "1"}
    DONE = ("Memory snapshot written", "ould not move memory snapshot", "ould not write memory snapshot", "won't take a memory snapshot")

    def tried(self):
        return sum(self.daemon.count_lines(text) for text in self.DONE)

    def settle(self):
        self.act()

    def act(self):
        before = self.tried()
        self.wait(lambda: self.tried() > before, "a snapshot")
        self.wait_handled()

    def problems_after_success(self):
        written = len(list(REPORTS.glob("[!.]*")))
        for path in REPORTS.glob("[!.]*"):
            path.unlink()
        return super().problems_after_success() + ([] if written else ["no snapshot"])


class SnapshotAcross(Snapshot):
    """The report folder lies on another file system."""
    name = "snapshot-across"

    def begin(self):
        super().begin()
        self.world.mount_memory(REPORTS, "mode=0700")


class Refresh(Scenario):
    """The daemon reads the preferences after each post; they were changed before."""
    name = "refresh"
    LAST = "refreshPreferences: App Activation Logging "

    def prepare(self):
        self.limit = 1_000_001 + self.number
        text = LIST.read_text()
        changed = re.sub(r"(QuorvixDailyLogLimit</key>\s*<integer>)\d+", rf"\g<1>{self.limit}", text)
        assert changed != text
        new = LIST.with_name("new")
        new.write_text(changed)
        new.rename(LIST)

    def act(self):
        self.number += 1
        before = self.daemon.count_lines(self.LAST)
        pathlib.Path("/run/vex/notify/com.norvane.quorvix.pref_changed").write_text("x")
        self.wait(lambda: self.daemon.count_lines(self.LAST) > before, "a refresh")
        self.wait_handled()

    def problems_after_error(self):
        problems = super().problems_after_error()
        if self.daemon.alive() and not self.daemon.status()["settings"]["swivexEnabled"]:
            problems.append("a setting is lost")
        return problems

    def problems_after_success(self):
        limit = self.daemon.status()["dailyCredits"]["limit"]
        return super().problems_after_success() + ([] if limit == self.limit else [f"the limit is {limit}, not {self.limit}"])


class Activation(Scenario):
    """An activation goes to a power log that has some."""
    name = "activation"
    reusable = False
    # A store that failed is not tried again for a while.
    serves_on = False
    store = STORES / "wattrel.db"
    preferences = {**Scenario.preferences, "QuorvixEnableAppActivationLogging": "true"}

    # What the daemon says, and how often, when an activation has no rows of a table, since the processes could not be
    # looked at at its begin or end, or the memory at neither.
    EMPTY = {"CPUStatistics": ("delta_cpu_statistics: Empty start or end CPU stats", 1),
             "MemoryStatistics": ("get_vm_stats: vm_statistics64 failed to get vm stats", 2)}

    def begin(self):
        super().begin()
        harness.ctl("prefs", "set", "QuorvixEnableAppActivationLogging", "true")
        self.stored = []
        # The bundles whose activation rightly lacks rows of this table.
        self.empty = {table: set() for table in self.EMPTY}

    def settle(self):
        self.act()

    def bundles(self):
        return [row[0] for row in query(self.store, "SELECT BundleID FROM ActivationData ORDER BY Activation")]

    def act(self):
        self.number += 1
        self.bundle = f"com.example.app{self.number}"
        before = self.settled()
        said = {table: self.daemon.count_lines(text) for table, (text, _) in self.EMPTY.items()}
        try:
            self.client.activation_begin(412, self.bundle)
            self.client.activation_end(412, self.bundle)
        except OSError:
            return
        self.wait(lambda: self.settled() > before, "the activation")
        self.wait_handled()
        for table, (text, times) in self.EMPTY.items():
            if self.daemon.count_lines(text) >= said[table] + times:
                self.empty[table].add(self.bundle)
        if self.daemon.alive() and self.counts()["storedActivations"]:
            self.stored.append(self.bundle) if self.bundle in self.bundles() else None

    def counts(self):
        return self.daemon.platform("powerLog")

    def settled(self):
        try:
            counts = self.counts()
        except (subprocess.SubprocessError, OSError):
            return 0
        return counts["storedActivations"] + counts["failedWrites"]

    def problems(self):
        problems = super().problems()
        found = self.bundles()
        problems += [f"lost: {bundle}" for bundle in self.stored if bundle not in found]
        for table in TABLES[1:]:
            # Whole or not at all.
            for (bundle,) in query(self.store, f"SELECT BundleID FROM ActivationData WHERE Activation NOT IN (SELECT Activation FROM {table})"):
                if bundle not in self.empty[table]:
                    problems.append(f"half an activation: {bundle} has no {table}")
        return problems

    def problems_after_error(self):
        problems = self.problems()
        counts = self.counts()
        if (self.bundle in self.bundles()) != (counts["failedWrites"] == 0):
            problems.append(f"stored: {self.bundle in self.bundles()}, but {counts}")
        return problems

    def problems_after_success(self):
        return super().problems_after_success() + ([] if self.bundle in self.bundles() else [f"not stored: {self.bundle}"])


class FirstActivation(Activation):
    """The daemon's first activation, of a store that is there."""
    name = "first-activation"

    def begin(self):
        super().begin()
        self.make_store()

    def relevant(self, call):
        # What it reads of the processes is the same as at every activation.
        return super().relevant(call) and call.file.startswith("/var/lib")

    def settle(self):
        pass


class NewPowerLog(FirstActivation):
    """The first activation where there is no store yet."""
    name = "new-power-log"

    def prepare(self):
        for path in STORES.glob("wattrel.db*"):
            path.unlink()
        self.stored = []


class Counters(Scenario):
    """A hang goes to the counters, by the store's own timer; what fails is written again when the daemon ends."""
    name = "counters"
    reusable = False
    serves_on = False
    store = STORES / "tallisk.db"
    ENDING_SECONDS = 0.2

    def begin(self):
        super().begin()
        EXPORT.mkdir(parents=True)
        self.stored = {}

    def settle(self):
        self.act()

    def values(self):
        return {key.removeprefix(PREFIX): count for key, count in query(self.store, "SELECT key, count FROM distribution")}

    def counts(self):
        return self.daemon.platform("counters")

    def settled(self):
        try:
            counts = self.counts()
        except (subprocess.SubprocessError, OSError):
            return 0
        # An export follows the first write.
        return counts["writes"] + counts["failedWrites"] if counts["exports"] + counts["failedExports"] or counts["failedWrites"] else 0

    def count_hang(self):
        self.number += 1
        self.key = f"work {self.number}.{PROGRAM}"
        try:
            self.client.hang_detected(f"work {self.number}")
        except OSError:
            return
        self.wait_handled()

    def act(self):
        before = self.settled()
        self.count_hang()
        # The store writes once a second; each look is a process.
        self.wait(lambda: self.settled() > before, "the write", pause=0.1)
        if self.daemon.alive() and self.counts()["failedWrites"] == 0:
            self.stored[self.key] = 1

    def end(self):
        """What is not stored and exported in the time that the daemon has for it is lost, or left half done."""
        started = time.monotonic()
        self.daemon.end(signal.SIGTERM)
        self.hurried = self.hurried or time.monotonic() - started > self.ENDING_SECONDS

    def problems(self):
        values = self.values()
        return super().problems() + [f"{key} is {values.get(key)}, not {value}" for key, value in self.stored.items() if values.get(key) != value] + [
            f"{key} counted {value} times" for key, value in values.items() if value != 1]

    def problems_after_error(self):
        # A hang that could not be stored was kept, and is stored once when the daemon ends.
        self.stored[self.key] = 1
        self.end()
        return self.problems()

    def problems_after_success(self):
        self.stored[self.key] = 1
        return super().problems_after_success()


class NewCounters(Counters):
    """The first write where there is no store yet."""
    name = "new-counters"

    def settle(self):
        pass

    def prepare(self):
        for path in STORES.glob("tallisk.db*"):
            path.unlink()
        self.stored = {}


class LastCounters(Counters):
    """What is written when the daemon is asked to end."""
    name = "last-counters"
    may_end = True

    def begin(self):
        super().begin()
        self.make_store()
        self.stored[self.key] = 1

    def settle(self):
        pass

    def act(self):
        self.count_hang()
        self.end()

    def problems_after_error(self):
        return self.problems()


class Start(Scenario):
    """The daemon's start: its folders, its preferences, its sockets. Without its sockets it ends with 71, and is started
    again by its unit; without its preferences it has nothing to do. It says either."""
    name = "start"
    reusable = False
    serves_on = False
    may_end = True

    def begin(self):
        super().begin()
        harness.ctl("prefs", "set", "QuorvixEnableAppActivationLogging", "true")

    def start(self):
        self.make_folders()
        self.supervisor = Supervisor()
        self.daemon = None

    def act(self):
        self.daemon = self.world.launch(self.supervisor.prefix(), **self.supervisor.options())
        self.supervisor.attach(self.daemon.pid)
        self.wait(lambda: self.daemon.has_line("refreshPreferences: App Activation Logging ") or self.daemon.has_line("exiting"), "the start")
        self.client = harness.Client()
        try:
            self.client.connect()
            self.wait_handled()
        except OSError:
            pass

    def stop(self, number=signal.SIGKILL):
        if self.daemon is None:
            return None
        return super().stop(number)

    def relevant(self, call):
        return call.file.startswith(("/var", "/run", "/Library", "/etc/quiddle", "/etc/vex"))

    def problems_after_error(self):
        problems = self.problems()
        if self.daemon.alive():
            return problems
        status = self.daemon.end()
        unread = self.daemon.has_line("read as missing") or self.daemon.has_line("reads as missing")
        if not (status == 71 and self.daemon.has_line("[platform] message service: ") or status == 0 and unread):
            problems.append(f"the daemon ended with {status}: {self.daemon.log()[-3:]}")
        return problems


class SetPreference(Scenario):
    """quorvixctl changes a preference."""
    name = "prefs-set"
    reusable = False
    serves_on = False

    def start(self):
        self.make_folders()
        self.supervisor = Supervisor()

    def act(self):
        self.number += 1
        self.old = self.value()
        self.new = 2_000_000 + self.number
        self.process = subprocess.Popen(
            [*self.supervisor.prefix(), str(harness.BUILD / "bin/quorvixctl"), "prefs", "set", "QuorvixDailyLogLimit", str(self.new)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **self.supervisor.options())
        self.supervisor.attach(self.process.pid)
        self.process.wait(60)
        self.supervisor.wait_end()

    def value(self):
        return int(re.search(r"QuorvixDailyLogLimit</key>\s*<integer>(\d+)", LIST.read_text())[1])

    def stop(self, number=signal.SIGKILL):
        return None

    def close(self):
        self.world.close()

    def relevant(self, call):
        return "Preferences" in call.file or call.file.startswith("/run")

    def problems(self):
        found = self.value()
        return super().problems() + ([] if found in (self.old, self.new) else [f"the value is {found}"])

    def problems_after_error(self):
        problems = self.problems()
        if self.process.returncode == 0 and self.value() != self.new:
            problems.append("said done, and is not")
        if self.process.returncode < 0:
            problems.append(f"died of signal {-self.process.returncode}")
        return problems

    def problems_after_success(self):
        return super().problems_after_success() + ([] if self.value() == self.new else ["not set"])


SCENARIOS = {kind.name: kind for kind in (Report, Snapshot, SnapshotAcross, Refresh, SetPreference, FirstActivation, Activation,
                                          NewPowerLog, NewCounters, Counters, LastCounters, Start)}
