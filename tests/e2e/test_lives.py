"""Lives and deaths: of the daemon, of its clients, and of what they share."""

import os
import pathlib
import random
import signal
import socket
import subprocess
import time

import harness
import test_reports

TRIED_KILLS = 100


class Daemons(harness.DaemonTest):
    def test_second_daemon_ends_with_71_and_the_first_goes_on(self):
        first = self.world.start()
        second = self.world.launch()
        self.assertEqual(second.process.wait(30), 71)
        second.reader.join(30)
        self.assertTrue(second.has_line(f"<default> [platform] message service: another process already listens on {harness.ENDPOINT}"))
        self.world.watched_client(first)

    def test_socket_that_is_in_the_way(self):
        self.world.prefer("QuorvixEnabled", "true")
        for make in (pathlib.Path.mkdir, pathlib.Path.touch):
            path = pathlib.Path(harness.ENDPOINT)
            make(path)
            daemon = self.world.launch()
            self.assertEqual(daemon.process.wait(30), 71)
            self.assertTrue(path.exists())
            path.rmdir() if path.is_dir() else path.unlink()

    def test_sigterm_is_told_to_each_client_and_ends_by_that_signal(self):
        daemon = self.world.start()

        def connected(child):
            client = harness.Client().connect()
            client.send_command(9)
            child.say()
            child.wait_for_end()

        for _ in range(3):
            self.world.child(connected).hear()
        harness.wait_until(lambda: daemon.count_lines("Don't know how to handle ") == 3)
        self.assertEqual(daemon.end(signal.SIGTERM), -signal.SIGTERM)
        self.assertEqual(daemon.count_lines("<info> Termination imminent!"), 3)
        self.assertFalse(daemon.has_line("Client disconnected"))

    def test_counters_are_stored_before_sigterm_ends_it(self):
        daemon = self.world.start()
        self.world.watched_client(daemon).hang_detected("last words")
        daemon.wait_line("(last words)")
        daemon.end()
        self.assertEqual(test_reports.counter(f"last words.{test_reports.PROGRAM}"), 1)

    def test_messages_wait_for_the_first_refresh(self):
        """A socket that the service manager holds, with clients that have spoken before the daemon was there."""
        listening = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        listening.bind(harness.ENDPOINT)
        listening.listen(16)
        client = self.world.client()
        client.start_watching(self.world.region(), "early")
        client.hang_detected("told early")
        self.world.prefer("QuorvixEnabled", "true")
        daemon = self.world.launch(
            prefix=["/bin/bash", "-c", f'exec 3<&{listening.fileno()}; LISTEN_PID=$$ LISTEN_FDS=1 exec "$0"'], pass_fds=[listening.fileno()])
        listening.close()
        daemon.wait_line(": Hang detected 6.00s (told early)")
        log = daemon.log()
        order = [next(index for index, line in enumerate(log) if text in line) for text in
                 ("Hang Tracing Enabled", "App Activation Logging Disabled", "VEX: Client started new connection",
                  "Initialization complete", "(told early)")]
        self.assertEqual(order, sorted(order))

    def test_messages_before_a_start_that_switches_everything_off(self):
        listening = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        listening.bind(harness.ENDPOINT)
        listening.listen(16)
        self.world.client().start_watching(self.world.region(), "early")
        daemon = self.world.launch(
            prefix=["/bin/bash", "-c", f'exec 3<&{listening.fileno()}; LISTEN_PID=$$ LISTEN_FDS=1 exec "$0"'], pass_fds=[listening.fileno()])
        listening.close()
        self.assertEqual(daemon.process.wait(30), 0)
        daemon.reader.join(30)
        self.assertEqual(daemon.log()[-1], "<default> quorvixd is exiting. All sources turned off")


class AppOfTheLibrary(harness.DaemonTest):
    """An app of libquorvix, which knows nothing of what happens to the daemon."""

    def setUp(self):
        super().setUp()
        self.daemon = self.world.start(QuorvixEnableMemoryLogging="true")
        self.app = subprocess.Popen([str(harness.BUILD / "bin/quorvix_poll_app"), "300"], stdout=subprocess.DEVNULL)
        self.addCleanup(self.app.wait)
        self.addCleanup(self.app.kill)
        self.wait_watched(self.daemon)

    def wait_watched(self, daemon):
        harness.wait_until(lambda: [process["pid"] for process in daemon.status()["watched"]] == [self.app.pid], what="the watch of the app")

    def test_is_watched_again_after_the_daemon_was_killed(self):
        for _ in range(2):
            self.daemon.end(signal.SIGKILL)
            self.daemon = self.world.launch()
            self.daemon.wait_ready()
            self.wait_watched(self.daemon)

    def test_is_watched_again_after_tracing_was_off(self):
        off = "refreshPreferences: Hang Tracing Disabled"
        for times in (1, 2):
            self.world.prefer("QuorvixEnabled", "false")
            # Its list is empty then; not for long, since the app registers again after each change of a preference.
            harness.wait_until(lambda: self.daemon.count_lines(off) == times, what="tracing to be off")
            self.world.prefer("QuorvixEnabled", "true")
            harness.wait_until(lambda: any("New proc: " in line for line in self.lines_since(off)), what="a new registration")
            self.wait_watched(self.daemon)
        self.assertFalse(self.daemon.has_line("WARNING: "))
        self.assertEqual(self.daemon.count_lines("VEX: Client started new connection"), 1)

    def lines_since(self, text):
        """What the daemon said after the newest line with this text."""
        log = self.daemon.log()
        return log[max(number for number, line in enumerate(log) if text in line) + 1:]

    def tearDown(self):
        self.app.kill()
        super().tearDown()


class Deaths(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        self.daemon = self.world.start()

    def watched(self):
        return [process["pid"] for process in self.daemon.status()["watched"]]

    def test_clients_killed_at_any_moment_leave_nothing(self):
        seed = int.from_bytes(os.urandom(4), "little")
        print(f"seed {seed}", end=" ", flush=True)
        moments = random.Random(seed)

        def busy(child):
            child.say()
            while True:
                region = harness.Region()
                with harness.Client() as client:
                    for number in range(20):
                        client.start_watching(region)
                        region.begin(0, "work", save_report=True)
                        client.hang_detected(f"hang {number}")
                        client.send_datagram(b"\xff" * 8)
                        region.end(0)
                        client.stop_watching()
                    client.start_watching(region)
                region.close()

        alive = []
        for _ in range(TRIED_KILLS):
            child = self.world.child(busy)
            child.hear()
            alive.append(child)
            if len(alive) == 4:
                time.sleep(moments.uniform(0, 0.03))
                alive.pop(moments.randrange(4)).end()
        for child in alive:
            child.end()
        self.assertEqual([child.status for child in self.world.children], [-signal.SIGKILL] * TRIED_KILLS)
        harness.wait_until(lambda: not self.watched(), what="the end of the watches")
        harness.wait_until(lambda: not self.daemon.descriptors() - self.daemon.base, what="return of the descriptors")
        self.assertEqual(self.daemon.platform("regions")["mappings"], 0)
        self.assertGreaterEqual(self.daemon.count_lines("VEX: Client started new connection"), TRIED_KILLS // 2)
        harness.wait_until(self.every_connection_is_told_as_ended, what="the end of the last connection")

    def every_connection_is_told_as_ended(self):
        log = self.daemon.log()  # once: the connection that a question to the daemon takes ends after its answer
        return sum("VEX: Client started new connection" in line for line in log) == sum("Client disconnected: " in line for line in log)

    def test_what_was_sent_before_the_death_is_heard(self):
        def speaks_and_dies(child):
            client = harness.Client().connect()
            client.start_watching(harness.Region(), "short life")
            client.hang_detected("last words")
            os.kill(os.getpid(), signal.SIGKILL)

        child = self.world.child(speaks_and_dies)
        child.wait()
        self.daemon.wait_line(f"<info> Client disconnected: {child.pid}")
        # Its program can no longer be looked up when it is dead by the time its message is read; else it was watched.
        self.assertTrue(self.daemon.has_line("(last words)") or self.daemon.has_line("Unable to identify process name of pid 0")
                        and self.daemon.has_line(f"Got hang detected message for a pid we're not monitoring: {child.pid}"))

    def test_forked_child_does_not_keep_a_dead_parent_watched(self):
        def forks(child):
            client = harness.Client().connect()
            client.start_watching(harness.Region(), "parent")
            heir = os.fork()
            if heir == 0:
                while True:
                    signal.pause()
            child.say(str(heir))
            child.wait_for_end()

        child = self.world.child(forks)
        heir = int(child.hear())
        self.daemon.wait_line(f"({child.pid}) | parent")
        child.end()
        self.daemon.wait_line(f"<info> Client disconnected: {child.pid}")
        self.assertEqual(self.watched(), [])
        os.kill(heir, 0)  # still there, with the socket
        os.kill(heir, signal.SIGKILL)

    def test_reused_pid_is_another_process(self):
        """The daemon sleeps while a client dies and another one gets its pid: it sees both at once."""
        def client_body(name):
            def run(child):
                client = harness.Client().connect()
                client.start_watching(harness.Region(), name)
                child.say()
                child.wait_for_end()
            return run

        first = self.world.child(client_body("the first"))
        first.hear()
        self.daemon.wait_line(f"({first.pid}) | the first")
        os.kill(self.daemon.pid, signal.SIGSTOP)
        try:
            first.end()
            try:
                with open("/proc/sys/kernel/ns_last_pid", "w") as last:
                    last.write(str(first.pid - 1))
            except OSError as error:
                self.skipTest(f"this kernel gives out no chosen pid: {error}")
            second = self.world.child(client_body("the second"))
            self.assertEqual(second.pid, first.pid)
            second.hear()
        finally:
            os.kill(self.daemon.pid, signal.SIGCONT)
        self.daemon.wait_line(f"({first.pid}) | the second")
        about = [line for line in self.daemon.log() if str(first.pid) in line and "New proc" not in line]
        self.assertEqual([line.split(":")[0] for line in about[:3]],
                         ["<info> VEX", f"<info> Initialization complete now watching hangs for {os.path.basename(os.path.realpath('/proc/self/exe'))}({first.pid}) | the first",
                          "<info> Client disconnected"])
        self.assertEqual(self.daemon.count_lines(f"Client disconnected: {first.pid}"), 1)
        self.assertEqual(self.watched(), [first.pid])
