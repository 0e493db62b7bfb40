"""App activations of clients that mean harm or die, and of processes that are hard to show."""

import contextlib
import ctypes
import os
import subprocess
import threading
import time

import harness
from quorvix_client import Client
from test_activations import APP, ActivationTest, ctl_json, rows, stored, wait_stored

PR_SET_NAME = 15


class ManyClients(ActivationTest):
    seen = 0

    def wait_new_line(self, text):
        """Looks at each line once: the flood's are many."""
        def found():
            with self.daemon.lock:
                lines = self.daemon.lines[self.seen:]
            self.seen += len(lines)
            return any(text in line for line in lines)

        harness.wait_until(found, what=f"the line {text!r}")

    def flood(self, body, clients=2, polite=20):
        """One client after the other is served in full while others send as much as they can."""
        self.record()
        flooders = [self.world.child(body) for _ in range(clients)]
        for flooder in flooders:
            flooder.hear()
        before = self.daemon.platform("messages")["messages"]
        slowest = 0
        for number in range(polite):
            bundle, sent = f"{APP}.polite-{number}", time.monotonic()
            self.begin(bundle, state=1)
            self.end(bundle, state=0)
            # An end that found no begin would take its own state for the start's.
            self.wait_new_line(f"not recorded for:{bundle} StartState:Foreground EndState:Background")
            slowest = max(slowest, time.monotonic() - sent)
        counters = self.counters()
        sent = self.daemon.platform("messages")["messages"] - before
        print(f"[{sent} messages, slowest {slowest * 1000:.0f} ms, {counters}]", end=" ", flush=True)
        for flooder in flooders:
            flooder.end()
        self.assertGreater(counters["stepsDropped"] + counters["beginsDropped"], 0, "the flood was none")
        self.assertLessEqual(counters["open"], 4096)

    def test_begins_and_ends_of_one_key_flood(self):
        def pairs(child):
            client = Client().connect()
            child.say()
            while True:
                client.activation_begin(77, "flood", state=0)
                client.activation_end(77, "flood", state=0)

        self.flood(pairs)

    def test_begins_of_many_keys_flood(self):
        def begins(child):
            client = Client().connect()
            child.say()
            number = 0
            while True:
                number += 1
                client.activation_begin(number, f"flood-{os.getpid()}", state=0)

        self.flood(begins)

    def test_equal_begins_of_many_connections_are_one(self):
        clients = [self.world.client() for _ in range(20)]
        for client in clients:
            client.activation_begin(412, APP)
        harness.wait_until(lambda: self.daemon.count_lines(f"An entry already exists for 412:{APP}") == 19)
        self.assertEqual(self.counters()["open"], 1)
        for client in clients:
            client.activation_end(412, APP)
        wait_stored(APP, 20)
        self.assertEqual([row["ActivationResult"] for row in stored(APP)], [0] + 19 * [32])

    def test_client_that_dies_between_begin_and_end(self):
        def die(child):
            Client().connect().activation_begin(os.getpid(), APP)

        app = self.world.child(die)
        app.wait()
        harness.wait_until(lambda: self.counters()["open"] == 1)
        self.end(pid=app.pid)
        row = wait_stored(APP)[0]
        self.assertEqual((row["ActivationResult"], self.counters()["open"]), (0, 0))
        found = rows("SELECT ProcessLifecycleState AS State FROM CPUStatistics WHERE UniqueID & 0xffffffff = ?", app.pid)
        self.assertIn(found, ([], [{"State": 2}]))  # it may have been gone before the begin was read


class OddProcesses(ActivationTest):
    preferences = {"QuorvixAppActivationLoggingCPUUtilizationThreshold": "1"}
    names = (b'a"b\\c', b"new\nline", b"\x01\x1b[31m", b"\xff\xfebad", b") S 1 (x", b"tab\tb", "ünï".encode(), b"")

    def busy(self, name):
        def body(child):
            ctypes.CDLL(None).prctl(PR_SET_NAME, name, 0, 0, 0)
            child.say()
            child.wait_for_go()
            end = time.process_time() + 0.1
            while time.process_time() < end:
                sum(range(100000))  # user time: that is what is reported
            child.say()
            child.wait_for_end()

        child = self.world.child(body)
        child.hear()
        return child

    def test_names_of_any_bytes(self):
        children = [self.busy(name) for name in self.names]
        self.begin()
        self.all_handled()
        for child in children:
            child.go()
        for child in children:
            child.hear()
        self.end()
        row = wait_stored(APP)[0]
        expected = {"".join(chr(byte) if byte < 0x80 else "?" for byte in name) for name in self.names}
        self.assertLessEqual(expected, {entry["ProcessName"] for entry in rows("SELECT ProcessName FROM ProcessData")})
        identifier = str(row["ActivationID"] & (1 << 64) - 1)
        shown = ctl_json("activations", "show", identifier)
        self.assertLessEqual(expected - {""}, {process["ProcessName"] for process in shown["Processes"]})
        for form in ((), ("--console",)):
            text = harness.ctl("activations", "show", identifier, *form).stdout
            self.assertEqual({character for character in text if character < " "}, {"\n"})
            self.assertIn("new?line", text)

    def test_process_of_many_threads(self):
        def threads(child):
            end = threading.Event()
            threading.stack_size(65536)
            for _ in range(5000):
                threading.Thread(target=end.wait, daemon=True).start()
            child.say()
            child.wait_for_end()

        app = self.world.child(threads)
        app.hear()
        self.record(pid=app.pid)
        self.assertEqual(len(rows("SELECT * FROM CPUStatistics WHERE UniqueID & 0xffffffff = ?", app.pid)), 1)

    def test_processes_and_threads_that_come_and_go_meanwhile(self):
        def storm(child):
            child.say()
            while True:
                for _ in range(20):
                    if os.fork() == 0:
                        threading.Thread(target=lambda: None).start()
                        os._exit(0)
                with contextlib.suppress(ChildProcessError):
                    while os.waitpid(-1, os.WNOHANG)[0]:
                        pass

        self.world.child(storm).hear()
        for number in range(40):
            self.record(f"{APP}-{number}")
        # Nothing ran for an hour, read a terabyte or ran backwards.
        self.assertEqual(rows("SELECT * FROM CPUStatistics WHERE TotalCPU_ms NOT BETWEEN 0 AND 3600000 OR "
                              "IOReads_kb NOT BETWEEN 0 AND (1 << 30) OR PageIns NOT BETWEEN 0 AND 1000000"), [])
        self.assertEqual(self.daemon.count_lines("Start values are greater than end values"), 0)


class HiddenProcesses(ActivationTest):
    def test_processes_that_may_not_be_seen(self):
        """A process table in which the daemon sees nobody but itself and its own."""
        if subprocess.run(["mount", "-o", "remount,hidepid=invisible,gid=65534", "/proc"], capture_output=True).returncode:
            self.skipTest("/proc can't be mounted anew here")
        self.addCleanup(subprocess.run, ["mount", "-o", "remount,hidepid=off,gid=0", "/proc"], check=True)
        # Without the right to trace others, and outside of the group that sees all, root is a user like any other.
        self.daemon.end()
        self.daemon = self.world.start(prefix=["setpriv", "--bounding-set=-sys_ptrace,-mknod", "--inh-caps=-sys_ptrace,-mknod"])
        self.client = self.world.client()
        row = self.record(pid=os.getpid())
        self.assertEqual(row["ActivationResult"], 0)
        self.assertEqual(rows("SELECT * FROM CPUStatistics WHERE UniqueID & 0xffffffff = ?", os.getpid()), [])
        self.assertEqual(len(rows("SELECT * FROM CPUStatistics")), 1)  # but for those folded together nobody is there


