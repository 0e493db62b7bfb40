"""A client of quorvixd in plain Python: written from docs/message-protocol.md alone, shares nothing with libquorvix.

It sends what it is told, wrong messages included; what it is for is testing the daemon. One thread uses one client.
"""

import array
import fcntl
import mmap
import os
import socket
import struct
import threading
import time

ENDPOINT = "/run/vex/com.norvane.quorvixd"

INT64, UINT64, STRING, BOOL, SHARED_MEMORY = 1, 2, 3, 4, 5

TICKS_PER_SECOND = 24_000_000
CONSUMED = 0xFFFFFFFFFFFFFFFF

VERSION = 4
HEADER_BYTES = 8
SLOT_BYTES = 104
LEAST_SLOTS = 20
LEAST_REGION_BYTES = HEADER_BYTES + LEAST_SLOTS * SLOT_BYTES


def ticks_now():
    """24 MHz ticks of CLOCK_MONOTONIC."""
    seconds, nanoseconds = divmod(time.clock_gettime_ns(time.CLOCK_MONOTONIC), 1_000_000_000)
    return seconds * TICKS_PER_SECOND + nanoseconds * 3 // 125


def activation_now():
    """Wall-clock milliseconds since 2001-01-01 00:00:00 UTC."""
    return time.clock_gettime_ns(time.CLOCK_REALTIME) // 1_000_000 - 978307200000


class Int64(int):
    """The typed values of a message. Python's own bool, str and bytes say their type themselves."""


class UInt64(int):
    pass


class SharedMemory(int):
    """Index of a descriptor that is sent along."""


def as_bytes(text):
    return text if isinstance(text, bytes) else text.encode()


def entry(type_number, key, value_bytes):
    """One entry from its parts, checked by nobody."""
    key = as_bytes(key)
    return struct.pack("<BB", type_number, len(key)) + key + value_bytes


def encode_value(value):
    if isinstance(value, bool):
        return BOOL, struct.pack("<B", value)
    if isinstance(value, Int64):
        return INT64, struct.pack("<q", value)
    if isinstance(value, UInt64):
        return UINT64, struct.pack("<Q", value)
    if isinstance(value, SharedMemory):
        return SHARED_MEMORY, struct.pack("<B", value)
    if isinstance(value, (str, bytes)):
        text = as_bytes(value)
        return STRING, struct.pack("<I", len(text)) + text
    raise TypeError(f"{value!r} has no type of the protocol")


def frame(entries, count=None, magic=b"VEX1", reserved=0):
    """A datagram of entries made by entry()."""
    return magic + struct.pack("<HH", len(entries) if count is None else count, reserved) + b"".join(entries)


def encode(dictionary):
    entries = []
    for key, value in dictionary.items():
        type_number, value_bytes = encode_value(value)
        entries.append(entry(type_number, key, value_bytes))
    return frame(entries)


class Region:
    """The hang channel: a sealed memory file and this process's mapping of it."""

    def __init__(self, slots=LEAST_SLOTS, length=None, version=VERSION, slot_count=None, seals=fcntl.F_SEAL_SHRINK):
        length = HEADER_BYTES + SLOT_BYTES * slots if length is None else length
        self.descriptor = os.memfd_create("hang-channel", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
        os.ftruncate(self.descriptor, length)
        if seals:
            fcntl.fcntl(self.descriptor, fcntl.F_ADD_SEALS, seals)
        self.memory = mmap.mmap(self.descriptor, length, mmap.MAP_SHARED, mmap.PROT_READ | mmap.PROT_WRITE)
        whole = memoryview(self.memory)
        # Stores through these are whole words, which struct.pack_into does not promise.
        self.words32 = whole[:length // 4 * 4].cast("I")
        self.words64 = whole[:length // 8 * 8].cast("Q")
        for index in range((length - HEADER_BYTES) // SLOT_BYTES):
            self.end(index)
        if length >= HEADER_BYTES:
            self.words32[1] = slots if slot_count is None else slot_count
        if length >= 4:
            self.words32[0] = version

    @staticmethod
    def offset(index):
        return HEADER_BYTES + SLOT_BYTES * index

    def begin(self, index, name, start=None, save_report=False, thread=None):
        """A unit of work begins now, or at `start` in ticks."""
        offset = self.offset(index)
        name = as_bytes(name)
        self.words64[(offset + 32) // 8] = threading.get_native_id() if thread is None else thread
        self.words32[(offset + 20) // 4] = 1 if save_report else 0
        self.memory[offset + 40:offset + 104] = name[:63].ljust(64, b"\0")
        self.words64[offset // 8] = ticks_now() if start is None else start
        self.words32[(offset + 16) // 4] = 0

    def end(self, index):
        self.words32[(self.offset(index) + 16) // 4] = 1

    def start_time(self, index):
        return self.words64[self.offset(index) // 8]

    def close(self):
        self.words32.release()
        self.words64.release()
        self.memory = None
        os.close(self.descriptor)


class Client:
    """One connection. Commands are named after what they say."""

    def __init__(self, path=ENDPOINT):
        self.path = path
        self.socket = None

    def connect(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_CLOEXEC)
        try:
            self.socket.connect(self.path)
        except OSError:
            self.close()
            raise
        return self

    def close(self):
        if self.socket is not None:
            self.socket.close()
            self.socket = None

    def __enter__(self):
        return self if self.socket else self.connect()

    def __exit__(self, *_):
        self.close()

    def send_datagram(self, datagram, descriptors=(), flags=0):
        """Any bytes with any descriptors: what a broken client might send."""
        ancillary = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))] if descriptors else []
        self.socket.sendmsg([datagram], ancillary, flags | socket.MSG_NOSIGNAL)

    def send(self, dictionary, descriptors=(), flags=0):
        self.send_datagram(encode(dictionary), descriptors, flags)

    def send_command(self, number, descriptors=(), **entries):
        """Entries are given with '_' for the '-' of their keys."""
        self.send({"command": Int64(number), **{key.replace("_", "-"): value for key, value in entries.items()}}, descriptors)

    def start_watching(self, region, name="main"):
        self.send_command(1, [region.descriptor], name=name, shmem=SharedMemory(0))

    def stop_watching(self):
        self.send_command(2)

    def hang_detected(self, name, start=None, end=None, thread=0, save_report=False):
        end = ticks_now() if end is None else end
        start = end - 6 * TICKS_PER_SECOND if start is None else start
        self.send_command(3, startTime=Int64(start), endTime=Int64(end), threadID=Int64(thread), name=name,
                          saveReport=bool(save_report))

    def activation_begin(self, pid, bundle, state=1, kind=1, start=None):
        now = activation_now()
        self.send_command(4, pid=Int64(pid), bundle_id=bundle, startTime=UInt64(now if start is None else start),
                          vexStartLatency=UInt64(now), app_activation_state=Int64(state), app_activation_type=Int64(kind))

    def activation_end(self, pid, bundle, state=1, result=0):
        self.send_command(5, pid=Int64(pid), bundle_id=bundle, endTime=UInt64(activation_now()),
                          app_activation_state=Int64(state), app_activation_result=Int64(result))

    def fence_begin(self, number, start=None):
        self.send_command(6, name=Int64(number), startTime=Int64(ticks_now() if start is None else start))

    def fence_end(self, number, end=None):
        self.send_command(7, name=Int64(number), endTime=Int64(ticks_now() if end is None else end))

    def fence_blown(self, start, end):
        self.send_command(8, startTime=Int64(start), endTime=Int64(end))
