"""The daemon under test, and what every end-to-end test needs around it."""

import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import threading
import time
import unittest

BUILD = None  # set by run.py

ENDPOINT = "/run/vex/com.norvane.quorvixd"
CACHES = pathlib.Path("/var/root/Library/Caches/quorvixd")
TMP = CACHES / "tmp"
SPOOL = CACHES / "spool"
PREFERENCES = pathlib.Path("/var/mobile/Library/Preferences")
TRACE_LIBRARY = pathlib.Path("/usr/lib/libswivex.dylib")
# Everything that the daemon or a test may have left behind.
STATE_FOLDERS = ["/var/root", "/var/mobile", "/var/lib/quorvix", "/run/vex", "/Library", "/etc/vex"]


def wait_until(condition, seconds=30, what="the condition"):
    """Polls until condition() gives something true and returns it. Generous: a loaded machine must not fail a test."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"{what} did not come within {seconds} s")
        time.sleep(0.02)


def ctl(*arguments, check=True):
    """Runs quorvixctl; gives its completed process, standard output and error as text."""
    return subprocess.run([str(BUILD / "bin/quorvixctl"), *arguments], capture_output=True, text=True, check=check, timeout=30)


class Daemon:
    """One quorvixd. Its log comes on standard error, since there is no journal here."""

    def __init__(self, prefix=()):
        self.lines = []
        self.lock = threading.Lock()
        self.ready_path = f"/tmp/ready-{os.getpid()}-{time.monotonic_ns()}"
        self.ready = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.ready.bind(self.ready_path)
        environment = dict(os.environ, NOTIFY_SOCKET=self.ready_path)
        environment.pop("JOURNAL_STREAM", None)
        self.process = subprocess.Popen([*prefix, str(BUILD / "bin/quorvixd")], stderr=subprocess.PIPE,
                                        stdin=subprocess.DEVNULL, env=environment)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stderr:
            with self.lock:
                self.lines.append(line.decode(errors="surrogateescape").rstrip("\n"))

    def wait_ready(self, seconds=30):
        self.ready.settimeout(seconds)
        assert b"READY=1" in self.ready.recv(4096)

    def log(self):
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


class DaemonTest(unittest.TestCase):
    """A test with empty folders; every daemon it starts is ended and checked for sanitizer reports."""

    def setUp(self):
        for folder in STATE_FOLDERS:
            shutil.rmtree(folder, ignore_errors=True)
        CACHES.parent.mkdir(parents=True)
        pathlib.Path("/var/lib/quorvix").mkdir(parents=True)
        pathlib.Path("/run/vex").mkdir(parents=True)
        TRACE_LIBRARY.unlink(missing_ok=True)
        self.daemons = []

    def tearDown(self):
        for daemon in self.daemons:
            daemon.close()
            text = "\n".join(daemon.log())
            for sign in ("ERROR: AddressSanitizer", "runtime error:", "ERROR: LeakSanitizer", "ThreadSanitizer"):
                self.assertNotIn(sign, text)

    def prefer(self, key, value):
        ctl("prefs", "set", key, value)

    def install_trace_library(self, variant="standin_swivex"):
        """One of the small libraries that stand in for the real one."""
        shutil.copy(BUILD / f"standin/{variant}/libswivex.dylib", TRACE_LIBRARY)

    def start(self, prefix=(), **preferences):
        """A ready daemon with hang tracing on, unless the test sets it otherwise."""
        for key, value in {"QuorvixEnabled": "true", **preferences}.items():
            self.prefer(key, value)
        daemon = self.launch(prefix)
        daemon.wait_ready()
        return daemon

    def launch(self, prefix=()):
        daemon = Daemon(prefix)
        self.daemons.append(daemon)
        return daemon
