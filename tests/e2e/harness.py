"""The daemon under test, and what every end-to-end test needs around it."""

import collections
import json
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
import traceback
import unittest

from quorvix_client import Client, Region

BUILD = None  # set by run.py

ENDPOINT = "/run/vex/com.norvane.quorvixd"
CACHES = pathlib.Path("/var/root/Library/Caches/quorvixd")
TMP = CACHES / "tmp"
SPOOL = CACHES / "spool"
PREFERENCES = pathlib.Path("/var/mobile/Library/Preferences")
TRACE_LIBRARY = pathlib.Path("/usr/lib/libswivex.dylib")
PIPE_BYTES = 1 << 16  # that a pipe holds at most, if nobody asked for more
SANITIZER_SIGNS = ("ERROR: AddressSanitizer", "runtime error:", "ERROR: LeakSanitizer", "ThreadSanitizer")
# What app activations take at the first one and keep: two queues, a notification, the process table.
TRACKER_QUEUE = "com.norvane.quorvix.perfstats.activationqueue"
TRACKER_DESCRIPTORS = collections.Counter({"anon_inode:[timerfd]": 4, "anon_inode:[eventpoll]": 2, "anon_inode:[eventfd]": 2,
                                           "anon_inode:inotify": 1, "/proc": 1})
# What memory snapshots take at the first one and keep: the processes' folder.
SNAPSHOT_DESCRIPTORS = collections.Counter({"/proc": 1})
# Everything that the daemon or a test may have left behind.
STATE_FOLDERS = ["/var/root", "/var/mobile", "/var/lib/quorvix", "/run/vex", "/Library", "/etc/vex"]


def wait_until(condition, seconds=30, what="the condition", pause=0.02):
    """Polls until condition() gives something true and returns it. Generous: a loaded machine must not fail a test."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"{what} did not come within {seconds} s")
        time.sleep(pause)


def ctl(*arguments, check=True):
    """Runs quorvixctl; gives its completed process, standard output and error as text."""
    return subprocess.run([str(BUILD / "bin/quorvixctl"), *arguments], capture_output=True, text=True, check=check, timeout=30)


class Daemon:
    """One quorvixd. Its log comes on standard error, since there is no journal here."""

    LINES_KEPT = sys.maxsize

    def __init__(self, prefix=(), **options):
        self.lines = []
        self.times = []  # when each line came, monotonic seconds
        self.base = None  # the descriptors that it held when it was ready
        self.lock = threading.Lock()
        self.ready_path = f"/tmp/ready-{os.getpid()}-{time.monotonic_ns()}"
        self.ready = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.ready.bind(self.ready_path)
        environment = dict(os.environ, NOTIFY_SOCKET=self.ready_path)
        environment.pop("JOURNAL_STREAM", None)
        self.process = subprocess.Popen([*prefix, str(BUILD / "bin/quorvixd")], stderr=subprocess.PIPE,
                                        stdin=subprocess.DEVNULL, env=environment, **options)
        self.unfinished = b""  # the beginning of a line whose end has not come
        os.set_blocking(self.process.stderr.fileno(), False)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        """Keeps its pipe empty until it ends."""
        said = select.poll()
        said.register(self.process.stderr, select.POLLIN)
        while self._take():
            said.poll()

    def _take(self):
        """Takes what it has said so far, with one read of all that a pipe can hold; false at the end."""
        with self.lock:
            try:
                said = os.read(self.process.stderr.fileno(), PIPE_BYTES)
            except BlockingIOError:
                return True
            *lines, self.unfinished = (self.unfinished + said).split(b"\n")
            self.times += [time.monotonic()] * len(lines)
            self.lines += [line.decode(errors="surrogateescape") for line in lines]
            if len(self.lines) > 2 * self.LINES_KEPT:
                del self.lines[:-self.LINES_KEPT], self.times[:-self.LINES_KEPT]
            return bool(said)

    def wait_ready(self, seconds=30):
        self.ready.settimeout(seconds)
        assert b"READY=1" in self.ready.recv(4096)

    def log(self):
        """All that it has said until now: what it said before an answer is there when the answer is."""
        if self.reader.is_alive():
            self._take()
        with self.lock:
            return list(self.lines)

    def has_line(self, text):
        return any(text in line for line in self.log())

    def wait_line(self, text, seconds=30):
        try:
            return wait_until(lambda: next((line for line in self.log() if text in line), None), seconds, f"line {text!r}")
        except AssertionError as error:
            raise AssertionError(f"{error}; the log:\n" + "\n".join(self.log())) from None

    def count_lines(self, text):
        return sum(text in line for line in self.log())

    @property
    def pid(self):
        return self.process.pid

    def status(self):
        return json.loads(ctl("status", "--json").stdout)

    def platform(self, service):
        return self.status()["platform"][service]

    def descriptors(self):
        """What it has open, by kind; without its stores and its programs in the kernel, which it opens when it first
        needs them."""
        folder = f"/proc/{self.pid}/fd"
        kinds = collections.Counter()
        for number in os.listdir(folder):
            try:
                kinds[re.sub(r":\[\d+\]$", "", os.readlink(f"{folder}/{number}"))] += 1
            except FileNotFoundError:
                pass
        for kind in list(kinds):
            if kind.startswith(("/var/lib/", "anon_inode:bpf")):
                del kinds[kind]
        return kinds

    def end(self, number=signal.SIGTERM, seconds=30):
        """Sends the signal and gives the exit status as subprocess does (negative: the signal)."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        status = self.process.wait(seconds)
        self.reader.join(seconds)
        return status

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.reader.join(5)
        self.process.stderr.close()
        self.ready.close()
        os.unlink(self.ready_path)

    def alive(self):
        return self.process.poll() is None


class Child:
    """A process of its own that runs body(child). It says lines with say(), heard here with hear(), and waits in
    wait_for_go() for a go() from here."""

    def __init__(self, body):
        reading, writing = os.pipe()
        self.go_reading, self.go_writing = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            status = 1
            try:
                os.close(reading)
                os.close(self.go_writing)
                self.writing = writing
                body(self)
                status = 0
            except BaseException:  # told to the test as a status and on its standard error
                traceback.print_exc()
            finally:
                os._exit(status)
        os.close(writing)
        os.close(self.go_reading)
        self.reading = os.fdopen(reading, "rb")
        self.status = None

    def say(self, text="ready"):
        os.write(self.writing, text.encode() + b"\n")

    def wait_for_go(self):
        if not os.read(self.go_reading, 1):
            raise EOFError("the test has ended")

    def wait_for_end(self):
        while True:
            signal.pause()

    def go(self):
        os.write(self.go_writing, b"g")

    def hear(self):
        line = self.reading.readline().decode().rstrip("\n")
        if not line:
            raise AssertionError("the child ended before it said a word")
        return line

    def end(self, number=signal.SIGKILL):
        """Ends it and waits; gives the status (negative: the signal)."""
        if self.status is None:
            os.kill(self.pid, number)
            self.wait()
        return self.status

    def wait(self):
        self.status = os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])
        return self.status

    def close(self):
        self.end()
        self.reading.close()
        os.close(self.go_writing)


class World:
    """Empty folders and what a test starts in them; close() ends it all and checks that nothing stays behind."""

    def __init__(self):
        self.daemons = []
        self.children = []
        self.clients = []
        self.mounts = []
        for folder in STATE_FOLDERS:
            shutil.rmtree(folder, ignore_errors=True)
        CACHES.parent.mkdir(parents=True)
        pathlib.Path("/var/lib/quorvix").mkdir(parents=True)
        pathlib.Path("/run/vex").mkdir(parents=True)
        TRACE_LIBRARY.unlink(missing_ok=True)

    def close(self):
        problems = []
        for child in self.children:
            child.close()
        for client in self.clients:
            client.close()
        for daemon in self.daemons:
            if daemon.alive() and daemon.base is not None:
                problems += self._leaks(daemon)
            daemon.close()
            text = "\n".join(daemon.log())
            problems += [f"{sign}:\n{text}" for sign in SANITIZER_SIGNS if sign in text]
        if TMP.is_dir():
            problems += [f"left in tmp: {name}" for name in os.listdir(TMP)]
        for place in reversed(self.mounts):
            subprocess.run(["umount", "--lazy", str(place)], check=True)
        if problems:
            raise AssertionError("; ".join(problems))

    def _leaks(self, daemon):
        """With all clients gone the daemon must be back at what it held when it was ready."""
        allowed = daemon.base
        if TRACKER_QUEUE in daemon.platform("queues"):
            allowed = allowed + TRACKER_DESCRIPTORS
        if daemon.has_line("emory snapshot "):
            allowed = allowed + SNAPSHOT_DESCRIPTORS
        try:
            wait_until(lambda: not daemon.descriptors() - allowed, what="return of the descriptors")
            wait_until(lambda: daemon.platform("regions")["mappings"] == 0, what="return of the mappings")
            wait_until(lambda: daemon.platform("messages")["connections"] == 0, what="return of the connections")
        except AssertionError as error:
            return [f"{error}: {daemon.descriptors() - allowed}"]
        return []

    def prefer(self, key, value):
        ctl("prefs", "set", key, value)

    def install_trace_library(self, variant="standin_swivex"):
        """The trace library, or one of the small ones that stand in for it where a test wants to see what it was asked
        for, or wants it to fail."""
        folder = "swivex" if variant == "swivex" else f"standin/{variant}"
        shutil.copy(BUILD / folder / "libswivex.dylib", TRACE_LIBRARY)

    def start(self, prefix=(), **preferences):
        """A ready daemon with hang tracing on, unless the test sets it otherwise."""
        for key, value in {"QuorvixEnabled": "true", **preferences}.items():
            self.prefer(key, value)
        daemon = self.launch(prefix)
        daemon.wait_ready()
        daemon.wait_line("refreshPreferences: App Activation Logging ")
        daemon.base = daemon.descriptors()
        return daemon

    def start_reporting(self, variant="standin_swivex", **preferences):
        """A daemon that writes reports through this trace library."""
        self.install_trace_library(variant)
        return self.start(**{"QuorvixEnableSwivex": "true", **preferences})

    def launch(self, prefix=(), **options):
        daemon = Daemon(prefix, **options)
        self.daemons.append(daemon)
        return daemon

    def client(self):
        client = Client().connect()
        self.clients.append(client)
        return client

    def region(self, **options):
        region = Region(**options)
        self.clients.append(region)
        return region

    def watched_client(self, daemon, name="main"):
        """A connected client of this process that the daemon watches."""
        client = self.client()
        before = daemon.count_lines("Initialization complete now watching hangs for ")
        client.start_watching(self.region(), name)
        wait_until(lambda: daemon.count_lines("Initialization complete now watching hangs for ") > before)
        return client

    def child(self, body):
        child = Child(body)
        self.children.append(child)
        return child

    def mount_memory(self, place, options):
        """A small file system of its own at this folder, until the test ends."""
        place.mkdir(parents=True, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "small", str(place)], check=True)
        self.mounts.append(place)

    def remount_read_only(self, place):
        subprocess.run(["mount", "-o", "remount,ro", str(place)], check=True)


def reports():
    return sorted(SPOOL.iterdir()) if SPOOL.is_dir() else []


def real_reason_of(report):
    """The reason record in a report of the real trace library, where it stands uncompressed."""
    text = report.read_bytes()
    return json.JSONDecoder().raw_decode(text[text.index(b'{"Reason"'):].decode(errors="replace"))[0]


def reason_of(report):
    """The reason record in a report that the stand-in wrote."""
    line = next(line for line in report.read_text().splitlines() if line.startswith("ReasonString string "))
    return json.loads(line.removeprefix("ReasonString string "))


class DaemonTest(unittest.TestCase):
    """A test with a world of its own."""

    def setUp(self):
        self.world = World()
        self.addCleanup(lambda: self.world.close())


class SharedWorldTest(unittest.TestCase):
    """Tests that look at one world, which arrange() makes once: what takes ticks of the daemon is waited for once."""

    @classmethod
    def setUpClass(cls):
        cls.world = World()
        try:
            cls.arrange()
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.world.close()
