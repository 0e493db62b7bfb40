"""Clients that take more than their share."""

import os
import resource
import select
import shutil
import socket
import time

import harness
from quorvix_client import Client

MOST_CONNECTIONS = 2048
MOST_OF_ONE_USER = 1024
MEASURED = 250
# What the daemon is meant to keep. A sanitized build on a machine that does other things beside gets more time; what it
# took is printed either way.
MOST_MS = 50
MOST_MS_ON_A_BAD_DAY = 1000


def sanitized():
    return b"__asan_init" in (harness.BUILD / "bin/quorvixd").read_bytes()


def loaded():
    return os.getloadavg()[0] > (os.cpu_count() or 1)


class Load(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        self.daemon = self.world.start()
        limits = resource.getrlimit(resource.RLIMIT_NOFILE)
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, limits)
        resource.setrlimit(resource.RLIMIT_NOFILE, (limits[1], limits[1]))
        self.most_descriptors = limits[1]

    def test_flood_beside_a_client_that_behaves(self):
        def floods(child):
            client = Client().connect()
            child.say()
            while True:
                client.stop_watching()

        well_behaved = self.world.watched_client(self.daemon)
        flooders = [self.world.child(floods) for _ in range(2)]
        for flooder in flooders:
            flooder.hear()
        before = self.daemon.platform("messages")["messages"]
        started = time.monotonic()
        sent = {}
        for number in range(MEASURED):
            sent[number] = time.monotonic()
            well_behaved.hang_detected(f"polite {number}")
            time.sleep(0.008)
        self.daemon.wait_line(f"(polite {MEASURED - 1})")
        flood = self.daemon.platform("messages")["messages"] - before - MEASURED
        seconds = time.monotonic() - started
        for flooder in flooders:
            flooder.end()
        came = {}
        for line, moment in zip(self.daemon.log(), list(self.daemon.times)):
            if "(polite " in line:
                came[int(line.split("(polite ")[1].rstrip(")"))] = moment
        self.assertEqual(sorted(came), list(range(MEASURED)))
        delays = sorted((came[number] - sent[number]) * 1000 for number in range(MEASURED))
        p99 = delays[MEASURED * 99 // 100]
        most = MOST_MS_ON_A_BAD_DAY if sanitized() or loaded() else MOST_MS
        print(f"p50 {delays[MEASURED // 2]:.2f} ms, p99 {p99:.2f} ms of {most} ms, beside {flood / seconds:.0f} messages a second", end=" ", flush=True)
        self.assertGreater(flood, 10 * MEASURED, "the flood was none")
        self.assertLess(p99, most)

    def closed_ones(self, clients):
        poll = select.poll()
        for client in clients:
            poll.register(client.socket, select.POLLIN)
        return sum(bool(events & select.POLLHUP) for _, events in poll.poll(0))

    def test_twice_as_many_connections_as_there_may_be(self):
        if self.most_descriptors < 3 * MOST_CONNECTIONS:
            self.skipTest(f"only {self.most_descriptors} descriptors a process here")
        clients = [self.world.client() for _ in range(2 * MOST_CONNECTIONS)]
        harness.wait_until(lambda: self.daemon.platform("messages")["refusedFull"] == MOST_CONNECTIONS, seconds=60, what="the count of the refused")
        self.assertEqual(self.daemon.platform("messages")["connections"], MOST_CONNECTIONS)
        self.assertEqual(self.closed_ones(clients), MOST_CONNECTIONS)
        self.assertLess(self.daemon.count_lines("[platform] message service: too many connections"), 20)
        # The oldest is still heard, and when they have gone there is place again.
        clients[0].fence_end(4711)
        self.daemon.wait_line("failed to find corresponding fence(4711)")
        for client in clients:
            client.close()
        harness.wait_until(lambda: self.daemon.platform("messages")["connections"] == 0, seconds=60, what="the end of the connections")
        self.world.watched_client(self.daemon)

    def test_one_user_does_not_shut_out_the_others(self):
        if self.most_descriptors < 3 * MOST_CONNECTIONS:
            self.skipTest(f"only {self.most_descriptors} descriptors a process here")

        def greedy(child):
            os.setuid(65534)
            clients = [Client().connect() for _ in range(MOST_OF_ONE_USER + 10)]
            child.say(str(len(clients)))
            child.wait_for_end()

        self.world.child(greedy).hear()
        harness.wait_until(lambda: self.daemon.platform("messages")["refusedFull"] == 10, seconds=60, what="the count of the refused")
        self.assertEqual(self.daemon.platform("messages")["connections"], MOST_OF_ONE_USER)
        self.world.watched_client(self.daemon)

    def test_regions_of_more_memory_than_there_may_be(self):
        """256 MiB of client memory at most: 256 regions of 1 MiB."""
        def maps_one(child):
            client = Client().connect()
            client.start_watching(harness.Region(length=1 << 20), "large")
            child.wait_for_end()

        for _ in range(258):
            self.world.child(maps_one)
        harness.wait_until(lambda: self.daemon.platform("regions")["refusedFull"] == 2, seconds=60, what="the count of the refused")
        self.assertEqual(self.daemon.platform("regions")["mappings"], 256)
        self.assertEqual(self.daemon.count_lines("<default> Something wrong w/shmem"), 2)

    def test_state_socket_readers_that_never_read(self):
        readers = []
        for _ in range(200):
            reader = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            reader.setblocking(False)
            try:
                reader.connect(harness.ENDPOINT + ".state")
            except BlockingIOError:
                pass
            readers.append(reader)
        client = self.world.watched_client(self.daemon)
        client.hang_detected("beside the readers")
        self.daemon.wait_line("(beside the readers)")
        for reader in readers:
            reader.close()
        harness.wait_until(lambda: self.daemon.status()["pid"] == self.daemon.pid)


class Slow(harness.DaemonTest):
    def test_log_that_nobody_reads_does_not_hold_the_daemon_up(self):
        self.world.prefer("QuorvixEnabled", "true")
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        self.addCleanup(os.close, writing)
        daemon = self.world.launch(prefix=["/bin/bash", "-c", f'exec "$0" 2>&{writing}'], pass_fds=[writing])
        daemon.wait_ready()
        client = self.world.client()
        for _ in range(5000):
            client.send_command(9)
        started = time.monotonic()
        harness.wait_until(lambda: daemon.platform("messages")["messages"] == 5000)
        self.assertLess(time.monotonic() - started, 20)
        self.assertGreater(daemon.platform("log")["droppedLines"], 0)

    def test_folder_of_notifications_that_goes_is_made_again(self):
        daemon = self.world.start()
        shutil.rmtree("/run/vex/notify")
        harness.wait_until(lambda: os.path.isdir("/run/vex/notify"), what="a new folder")
        before = daemon.count_lines("refreshPreferences: App Activation Logging ")

        def posted():
            harness.ctl("notify", "com.norvane.quorvix.pref_changed")
            return daemon.count_lines("refreshPreferences: App Activation Logging ") > before

        harness.wait_until(posted, what="a post that is heard")

    def test_memory_does_not_grow(self):
        """Bad datagrams, connections and regions in great number leave the daemon as large as it was."""
        if sanitized():
            self.skipTest("a sanitized build keeps freed memory for a while")
        daemon = self.world.start()

        def storm():
            for _ in range(300):
                with Client() as client:
                    region = harness.Region()
                    client.start_watching(region)
                    client.hang_detected("storm")
                    client.send_datagram(b"\xff" * 1000)
                    client.stop_watching()
                    region.close()
            harness.wait_until(lambda: daemon.platform("messages")["connections"] == 0)

        def resident_kib():
            with open(f"/proc/{daemon.pid}/status") as status:
                return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))

        storm()
        before = resident_kib()
        for _ in range(10):
            storm()
        grown = resident_kib() - before
        print(f"grown by {grown} KiB to {before + grown} KiB", end=" ", flush=True)
        self.assertLess(grown, 256)
