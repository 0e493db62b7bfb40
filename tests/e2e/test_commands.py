"""The eight commands, as the protocol page says them."""

import os
import socket
import unittest

import harness
from quorvix_client import Int64, SharedMemory, TICKS_PER_SECOND, encode, ticks_now


class WorkedExamples(unittest.TestCase):
    """The client's own encoding against the bytes that the page shows."""

    def test_hang_detected_is_71_bytes(self):
        datagram = encode({"command": Int64(3), "startTime": Int64(0x123456789A), "name": "main", "saveReport": True})
        self.assertEqual(datagram.hex(), "5645583104000000" "0107636f6d6d616e640300000000000000"
                         "0109737461727454696d659a78563412000000" "03046e616d65040000006d61696e"
                         "040a736176655265706f727401")
        self.assertEqual(len(datagram), 71)

    def test_start_watching_is_47_bytes(self):
        self.assertEqual(len(encode({"command": Int64(1), "name": "main", "shmem": SharedMemory(0)})), 47)


class Commands(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        self.daemon = self.world.start()
        self.client = self.world.client()
        self.region = self.world.region()

    def watch(self):
        self.client.start_watching(self.region, "the name")
        self.daemon.wait_line("Initialization complete now watching hangs for ")

    def test_start_is_logged_with_the_apps_path_and_name(self):
        self.watch()
        program = os.path.realpath("/proc/self/exe")
        self.daemon.wait_line(f"<info> VEX: Client started new connection: pid {os.getpid()}")
        self.daemon.wait_line(f"{os.path.basename(program)}({os.getpid()}) | the name")

    def test_second_start_is_a_warning(self):
        self.watch()
        self.client.start_watching(self.region)
        self.daemon.wait_line(f"({os.getpid()}) was already being watched.")

    def test_start_without_memory_is_said(self):
        self.client.send_command(1, name="main")
        self.daemon.wait_line(f"<default> Didn't get shmem from no longer watching {os.getpid()}")

    def test_stop_ends_the_watch(self):
        self.watch()
        self.client.stop_watching()
        self.client.hang_detected("after the stop")
        self.daemon.wait_line(f"<default> Got hang detected message for a pid we're not monitoring: {os.getpid()}")

    def test_hang_is_logged_with_its_length(self):
        self.watch()
        end = ticks_now()
        self.client.hang_detected("work", end - 6 * TICKS_PER_SECOND, end)
        self.daemon.wait_line(": Hang detected 6.00s (work)")

    def test_hang_in_a_fence_is_a_fence_hang(self):
        self.watch()
        end = ticks_now()
        self.client.fence_begin(7, end - 8 * TICKS_PER_SECOND)
        self.client.hang_detected("work", end - 6 * TICKS_PER_SECOND, end)
        self.daemon.wait_line(": Hang detected 7.00s (Fence-hang)")

    def test_hang_after_a_fence_keeps_its_name(self):
        self.watch()
        end = ticks_now()
        self.client.fence_begin(7, end - 8 * TICKS_PER_SECOND)
        self.client.fence_end(7, end - 6 * TICKS_PER_SECOND)
        self.client.hang_detected("work", end - 6 * TICKS_PER_SECOND, end)
        self.daemon.wait_line(": Hang detected 6.00s (work)")

    def test_end_of_an_unknown_fence_is_said(self):
        self.client.fence_end(99)
        self.daemon.wait_line("<default> QXFenceTracking: Fence end, failed to find corresponding fence(99)")

    def test_blown_fence_falls_on_a_watched_app(self):
        self.client.fence_blown(ticks_now(), ticks_now())
        self.daemon.wait_line("<default> Got Fence Blown message but can't find processForHangs")
        self.watch()
        end = ticks_now()
        self.client.fence_blown(end - TICKS_PER_SECOND, end)
        self.daemon.wait_line(": Hang detected 2.00s (Fence-hang)")

    def test_activation_is_logged(self):
        self.client.activation_begin(412, "com.example.app", kind=2)
        self.client.activation_end(412, "com.example.app")
        self.daemon.wait_line("<info> QXActivationStats: com.example.app[412] activation begin (resume)")
        self.daemon.wait_line("<info> QXActivationStats: com.example.app[412] activation end")

    def test_activation_without_a_bundle_is_said(self):
        self.client.send_command(4, pid=Int64(412))
        self.client.send_command(5, pid=Int64(412))
        self.daemon.wait_line("Failed to get bundle-id for app activation begin command, this activation will be ignored")
        self.daemon.wait_line("Failed to get bundleID for app activation end command, ignoring this")

    def test_unknown_commands_are_said(self):
        for number in (0, 9, -1, 2**63 - 1):
            self.client.send_command(number)
        self.client.send({})
        harness.wait_until(lambda: self.daemon.count_lines("<default> Don't know how to handle ") == 5)

    def test_nothing_is_ever_sent_back(self):
        now = ticks_now()
        self.client.start_watching(self.region)
        self.client.start_watching(self.region)
        self.client.hang_detected("work", save_report=True)
        self.client.activation_begin(412, "com.example.app")
        self.client.activation_end(412, "com.example.app")
        self.client.fence_begin(7)
        self.client.fence_end(7)
        self.client.fence_end(99)
        self.client.fence_blown(now, now)
        self.client.stop_watching()
        self.client.send_command(1, name="without memory")
        self.client.send_command(9)
        self.client.send({})
        for garbage in (b"", b"no message", b"\xff" * 70000):
            self.client.send_datagram(garbage)
        self.client.send_datagram(encode({"command": Int64(9)}), [self.region.descriptor])
        handled = lambda: self.daemon.platform("messages")  # noqa: E731
        harness.wait_until(lambda: (handled()["messages"], handled()["undecodable"]) == (13, 4), what="all of them")
        self.daemon.wait_line("Don't know how to handle ")
        with self.assertRaises(BlockingIOError):
            self.client.socket.recvmsg(65536, 4096, socket.MSG_DONTWAIT)
        # Nor is there anything when it ends: nothing stands before the end of the connection.
        self.daemon.end()
        self.assertEqual(self.client.socket.recvmsg(65536, 4096, socket.MSG_DONTWAIT)[:2], (b"", []))

    def test_end_of_the_connection_is_said(self):
        self.watch()
        self.client.close()
        self.daemon.wait_line(f"<info> Client disconnected: {os.getpid()}")
        self.assertEqual(self.daemon.status()["watched"], [])
