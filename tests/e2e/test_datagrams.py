"""Datagrams that break the protocol: each is said and dropped whole, and the connection lives on."""

import array
import os
import socket
import struct

import harness
from quorvix_client import BOOL, INT64, SHARED_MEMORY, STRING, Int64, SharedMemory, UInt64, encode, entry, frame

NOT_A_MESSAGE = "<default> We got a non-dictionary event: "
COMMAND = entry(INT64, "command", struct.pack("<q", 9))
MEMORY = entry(SHARED_MEMORY, "shmem", b"\0")


def text_entry(key, text):
    return entry(STRING, key, struct.pack("<I", len(text)) + text)


class Datagrams(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        self.daemon = self.world.start()
        self.client = self.world.client()
        self.bad = 0
        self.good = 0

    def pipe(self):
        reading, writing = os.pipe()
        os.close(writing)
        self.addCleanup(os.close, reading)
        return reading

    def expect(self, bad=0, good=0):
        """Waits until this many more were refused or understood, none of them on another connection."""
        self.bad += bad
        self.good += good
        harness.wait_until(lambda: (self.daemon.count_lines(NOT_A_MESSAGE), self.daemon.count_lines("Don't know how to handle "))
                           == (self.bad, self.good), what=f"{self.bad} refused and {self.good} understood")

    def refuse(self, datagram, descriptors=()):
        """It is refused, with one line, and what comes next on the same connection is understood."""
        self.client.send_datagram(datagram, descriptors)
        self.expect(bad=1)
        self.client.send_datagram(frame([COMMAND]))
        self.expect(good=1)

    def accept(self, datagram, descriptors=()):
        self.client.send_datagram(datagram, descriptors)
        self.expect(good=1)

    def test_empty(self):
        self.refuse(b"")
        self.assertEqual(self.daemon.platform("messages")["undecodable"], 1)

    def test_cut_at_every_length(self):
        whole = encode({"command": Int64(9), "startTime": UInt64(1), "name": "main", "saveReport": True})
        for length in range(len(whole)):
            self.client.send_datagram(whole[:length])
        self.expect(bad=len(whole))
        self.accept(whole)

    def test_cut_at_every_length_with_a_descriptor(self):
        whole = encode({"command": Int64(9), "shmem": SharedMemory(0)})
        descriptor = self.pipe()
        for length in range(len(whole)):
            self.client.send_datagram(whole[:length], [descriptor])
        self.expect(bad=len(whole))
        self.accept(whole, [descriptor])

    def test_longest_and_one_byte_more(self):
        rest = len(frame([COMMAND, text_entry("text", b"")]))
        self.accept(frame([COMMAND, text_entry("text", b"x" * (65536 - rest))]))
        self.refuse(frame([COMMAND, text_entry("text", b"x" * (65537 - rest))]))
        self.refuse(frame([COMMAND, text_entry("text", b"x" * 100000)]))

    def test_repeated_key(self):
        self.refuse(frame([COMMAND, COMMAND]))
        self.refuse(frame([COMMAND, entry(INT64, "a", bytes(8)), text_entry("a", b"")]))

    def test_unknown_types(self):
        for number in (0, 6, 7, 128, 255):
            self.refuse(frame([COMMAND, entry(number, "a", bytes(8))]))

    def test_wrong_types_read_as_absent(self):
        self.accept(encode({"command": UInt64(2)}))
        self.accept(encode({"command": "2"}))
        self.accept(encode({"command": True}))
        self.client.start_watching(self.world.region())
        self.daemon.wait_line("Initialization complete")
        self.client.send({"command": Int64(3), "startTime": UInt64(1), "endTime": "2", "name": Int64(1), "saveReport": Int64(1)})
        self.daemon.wait_line(": Hang detected 0.00s ((null))")
        self.assertFalse(self.daemon.has_line("support is disabled"))

    def test_keys_that_are_no_keys(self):
        for key in (b"", b"\xff", b"\xc3", b"\xc0\xaf", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"a\0b"):
            with self.subTest(key=key):
                self.refuse(frame([COMMAND, entry(INT64, key, bytes(8))]))
        self.accept(frame([COMMAND, entry(INT64, "ключ", bytes(8)), entry(INT64, b"k" * 255, bytes(8))]))

    def test_values_out_of_range(self):
        self.refuse(frame([COMMAND, entry(BOOL, "a", b"\2")]))
        self.refuse(frame([COMMAND, entry(BOOL, "a", b"\xff")]))
        self.refuse(frame([COMMAND, text_entry("a", b"with a \0")]))
        self.refuse(frame([COMMAND, entry(STRING, "a", struct.pack("<I", 0xFFFFFFFF) + b"abc")]))
        self.refuse(frame([COMMAND, entry(STRING, "a", struct.pack("<I", 4) + b"abc")]))

    def test_wrong_frames(self):
        self.refuse(frame([COMMAND], magic=b"VEX2"))
        self.refuse(frame([COMMAND], magic=b"vex1"))
        self.refuse(frame([COMMAND], reserved=1))
        self.refuse(frame([COMMAND], count=2))
        self.refuse(frame([COMMAND], count=0))
        self.refuse(frame([COMMAND], count=0xFFFF))
        self.refuse(frame([COMMAND]) + b"\0")

    def test_most_entries_and_one_more(self):
        fill = [entry(INT64, f"key {i}", bytes(8)) for i in range(64)]
        self.accept(frame([COMMAND, *fill[:63]]))
        self.refuse(frame([COMMAND, *fill]))

    def test_missing_and_surplus_descriptors(self):
        one = self.pipe()
        self.refuse(frame([COMMAND, MEMORY]))
        self.refuse(frame([COMMAND]), [one])
        self.refuse(frame([COMMAND, MEMORY]), [one, one])
        self.refuse(frame([COMMAND, entry(SHARED_MEMORY, "shmem", b"\1")]), [one])
        self.refuse(frame([COMMAND, MEMORY, entry(SHARED_MEMORY, "other", b"\0")]), [one])
        self.refuse(b"", [one])

    def test_most_descriptors_and_more(self):
        one = self.pipe()
        entries = [entry(SHARED_MEMORY, f"memory {i}", bytes([i])) for i in range(5)]
        self.accept(frame([COMMAND, *entries[:4]]), [one] * 4)
        self.refuse(frame([COMMAND, *entries]), [one] * 5)
        self.refuse(frame([COMMAND, *entries[:4]]), [one] * 253)

    def test_descriptors_in_two_control_messages(self):
        one = self.pipe()
        part = (socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [one]))
        entries = [entry(SHARED_MEMORY, f"memory {i}", bytes([i])) for i in range(2)]
        self.client.socket.sendmsg([frame([COMMAND, *entries])], [part, part])
        self.expect(good=1)

    def test_bad_ones_of_one_client_leave_others_alone(self):
        def watched(child):
            client = harness.Client().connect()
            client.start_watching(harness.Region(), "steady")
            child.say()
            child.wait_for_go()
            client.hang_detected("after the storm")
            child.wait_for_end()

        child = self.world.child(watched)
        child.hear()
        for _ in range(300):
            self.client.send_datagram(b"\xff" * 40)
        self.expect(bad=300)
        child.go()
        self.daemon.wait_line("(after the storm)")
