"""Clients of every kind that the socket and the shared memory let in and that mean no good. Each is a function that
goes on until it is killed; everything random comes from the generator that it is given."""

import array
import ctypes
import fcntl
import mmap
import os
import pathlib
import signal
import socket
import struct
import time

import harness
from quorvix_client import (CONSUMED, ENDPOINT, Client, Int64, Region, SharedMemory, UInt64, encode, entry, frame, ticks_now)

ABSURD = [0, 1, -1, 2, 2**31 - 1, 2**31, 2**32 - 1, 2**32, 2**63 - 1, -2**63, -2**31]
NOBODY = 65534


def ago(ticks):
    """So long ago, but not before the machine was started."""
    return max(ticks_now() - ticks, 0)


def int64(draw):
    return draw.choice(ABSURD) if draw.random() < 0.5 else draw.randrange(-2**63, 2**63)


def some_bytes(draw, most):
    return draw.randbytes(min(int(draw.expovariate(8 / most)), most))


def text(draw, most=300):
    kind = draw.randrange(4)
    if kind == 0:
        return some_bytes(draw, most).replace(b"\0", b"")
    if kind == 1:
        return draw.choice([b"", b"../../../etc/passwd", b"/", b"%s%n%@%d", b"\n<default> forged line", b"\xff\xfe", b"a" * 255, b".", b"..",
                            b"a\nb", b"\x1b[31m", b"' OR 1=1 --"])
    return b"name %d" % draw.randrange(10_000)


class Persistent:
    """A connection that is made again when it was closed."""

    def __init__(self):
        self.client = None

    def send(self, datagram, descriptors=()):
        try:
            if self.client is None:
                self.client = Client().connect()
            self.client.send_datagram(datagram, descriptors)
        except OSError:
            self.close()

    def close(self):
        if self.client is not None:
            self.client.close()
            self.client = None


def message(draw):
    """A well-formed message that means anything."""
    command = draw.choice([2, 3, 3, 4, 5, 6, 7, 8, int64(draw)])
    now = ticks_now()
    values = {"command": Int64(command)}
    for key in draw.sample(["startTime", "endTime", "threadID", "name", "saveReport", "pid", "bundle-id", "vexStartLatency",
                            "app-activation-state", "app-activation-type", "app-activation-result", "unknown"], draw.randrange(12)):
        value = int64(draw) if draw.random() < 0.7 else now - draw.randrange(10**12)
        value = max(min(value, 2**63 - 1), -2**63)
        values[key] = draw.choice([Int64(value), UInt64(value & (2**64 - 1)), text(draw), bool(value & 1)])
    return encode(values)


def garbage(draw):
    """Datagrams that are none, or nearly one."""
    connection = Persistent()
    while True:
        kind = draw.randrange(5)
        if kind == 0:
            datagram = some_bytes(draw, 100_000)
        elif kind == 1:
            whole = message(draw)
            datagram = whole[:draw.randrange(len(whole) + 1)]
        elif kind == 2:
            whole = bytearray(message(draw))
            for _ in range(draw.randrange(1, 8)):
                whole[draw.randrange(len(whole))] = draw.randrange(256)
            datagram = bytes(whole)
        elif kind == 3:
            entries = [entry(draw.randrange(8), draw.randbytes(draw.randrange(1, 255)), draw.randbytes(draw.randrange(20))) for _ in range(draw.randrange(70))]
            datagram = frame(entries, count=draw.choice([None, 0, 64, 65, 65535]))
        else:
            datagram = message(draw)
        connection.send(datagram)


def descriptors(draw):
    """Descriptors of every kind, more than may be, and the connection's own end among them."""
    connection = Persistent()
    while True:
        opened = []
        try:
            memory = os.memfd_create("attack", os.MFD_ALLOW_SEALING)
            opened.append(memory)
            os.ftruncate(memory, draw.choice([0, 1, 2088, 1 << 20, 1 << 40]))
            if draw.random() < 0.5:
                fcntl.fcntl(memory, fcntl.F_ADD_SEALS, draw.choice([fcntl.F_SEAL_SHRINK, fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_WRITE, fcntl.F_SEAL_GROW]))
            opened += [*os.pipe(), os.open("/dev/zero", os.O_RDWR), os.open("/proc/self/mem", os.O_RDONLY), os.open("/", os.O_PATH)]
            ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            opened += [ours.detach(), theirs.detach()]
            if connection.client:
                opened.append(os.dup(connection.client.socket.fileno()))
            count = draw.choice([0, 1, 2, 4, 5, 16, 253])
            sent = [draw.choice(opened) for _ in range(count)]
            named = draw.choice([count, 1, 0, 4])
            entries = [entry(5, f"memory {index}", bytes([draw.choice([index, 0, 255])])) for index in range(min(named, 60))]
            command = entry(1, "command", struct.pack("<q", draw.choice([1, 1, 3, 9])))
            connection.send(frame([command, *entries]) if draw.random() < 0.5 else encode(
                {"command": Int64(1), "name": text(draw), "shmem": SharedMemory(0)}), sent)
        except (OSError, ValueError):
            connection.close()
        finally:
            for number in opened:
                os.close(number)


def regions(draw):
    """Regions whose every word lies, that change while they are read and have holes where memory was."""
    libc = ctypes.CDLL(None, use_errno=True)
    while True:
        connection = Persistent()
        length = draw.choice([2088, 4096, 8192, 65536, 1 << 20])
        region = Region(slots=20, length=length, slot_count=draw.choice([20, 21, 0, 39, 0xFFFFFFFF, draw.randrange(1 << 32)]),
                        version=draw.choice([4, 4, 4, 4, 3, 5, draw.randrange(1 << 32)]))
        connection.send(encode({"command": Int64(1), "name": text(draw), "shmem": SharedMemory(0)}), [region.descriptor])
        end = time.monotonic() + draw.uniform(0, 12)
        while time.monotonic() < end:
            for _ in range(200):
                region.words64[draw.randrange(len(region.words64))] = draw.choice([0, CONSUMED, ticks_now(), ago(2**33), draw.randrange(2**64)])
            slot = draw.randrange(20)
            region.begin(slot, text(draw), draw.choice([0, 1, ago(10**9), 2**64 - 2, 2**63]), save_report=draw.random() < 0.5,
                         thread=draw.randrange(2**63))
            if draw.random() < 0.3:
                page = draw.randrange(length // mmap.PAGESIZE) * mmap.PAGESIZE if length >= mmap.PAGESIZE else 0
                # Punches a hole, though the memory can't be made shorter.
                libc.fallocate(region.descriptor, 3, ctypes.c_long(page), ctypes.c_long(mmap.PAGESIZE))
            try:
                os.ftruncate(region.descriptor, draw.choice([0, 100, 2 * length]))
            except OSError:
                pass
            if draw.random() < 0.2:
                connection.send(encode({"command": Int64(2)}))
                connection.send(encode({"command": Int64(1), "name": "again", "shmem": SharedMemory(0)}), [region.descriptor])
            time.sleep(0.01)
        connection.close()
        region.close()


def storm(draw):
    """Connects and goes, at every moment of it; some keep their end open and say nothing."""
    kept = []
    while True:
        try:
            client = Client().connect()
            if draw.random() < 0.3:
                client.send_datagram(message(draw))
            if draw.random() < 0.2 and len(kept) < 300:
                kept.append(client)
                if draw.random() < 0.5:
                    client.socket.shutdown(draw.choice([socket.SHUT_RD, socket.SHUT_WR, socket.SHUT_RDWR]))
            else:
                client.close()
        except OSError:
            time.sleep(0.01)
        if draw.random() < 0.005:
            for client in kept:
                client.close()
            kept.clear()


def forks(draw):
    """Short lives: children that register, hang and die, heirs that hold a dead parent's connection, numbers that are
    given out again."""
    children = []
    while True:
        child = os.fork()
        if child == 0:
            status = 1
            try:
                client = Client().connect()
                client.start_watching(Region(), "short life")
                client.hang_detected(f"short {draw.randrange(50)}", save_report=draw.random() < 0.2)
                if draw.random() < 0.3 and os.fork() == 0:
                    time.sleep(draw.uniform(0, 0.5))
                if draw.random() < 0.5:
                    os.kill(os.getpid(), signal.SIGKILL)
                time.sleep(draw.uniform(0, 0.05))
                status = 0
            except OSError:
                status = 0
            finally:
                os._exit(status)
        children.append(child)
        if len(children) >= 4:
            last = children.pop(0)
            if os.waitpid(last, 0)[1] == 1 << 8:
                raise RuntimeError("a child broke down by itself")
            try:
                pathlib.Path("/proc/sys/kernel/ns_last_pid").write_text(str(last - 1))
            except OSError:
                pass


def activations(draw):
    """Begins that never end, ends that never began, names of every length."""
    connection = Persistent()
    while True:
        bundle = draw.choice([b"com.example.%d" % draw.randrange(5000), text(draw), b"b" * draw.randrange(60_000), b"com.example.same"])
        pid = draw.choice([412, int64(draw), os.getpid()])
        connection.send(encode({"command": Int64(draw.choice([4, 4, 5])), "pid": Int64(pid), "bundle-id": bundle,
                                "startTime": UInt64(int64(draw) & CONSUMED), "endTime": UInt64(int64(draw) & CONSUMED),
                                "vexStartLatency": UInt64(int64(draw) & CONSUMED), "app-activation-state": Int64(draw.choice([0, 1, int64(draw)])),
                                "app-activation-type": Int64(draw.choice([0, 1])), "app-activation-result": Int64(int64(draw))}))


def hangs(draw):
    """Is watched and tells of hangs that never were, as fast as it can, each with a name of its own and a report."""
    client = Client().connect()
    client.start_watching(Region(), "liar")
    while True:
        for _ in range(50):
            client.hang_detected(text(draw, 60_000 if draw.random() < 0.02 else 100), start=int64(draw), end=int64(draw), thread=int64(draw),
                                 save_report=draw.random() < 0.1)
            client.fence_begin(int64(draw), int64(draw))
            client.fence_blown(int64(draw), int64(draw))
        time.sleep(0.002)


def flood(draw):
    """As many messages as the socket takes."""
    connection = Persistent()
    datagrams = [message(draw) for _ in range(100)]
    while True:
        connection.send(draw.choice(datagrams))


def readers(draw):
    """Asks for the daemon's state and does not read it."""
    held = []
    while True:
        reader = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        reader.setblocking(False)
        try:
            reader.connect(ENDPOINT + ".state")
            if draw.random() < 0.3:
                reader.send(b"give me more")
        except OSError:
            pass
        held.append(reader)
        if len(held) > 40:
            held.pop(draw.randrange(len(held))).close()
        time.sleep(0.01)


FORBIDDEN = ["/run/vex/notify/com.norvane.quorvix.pref_changed", "/run/vex/notify/new", "/run/vex/com.norvane.quorvixd.lock",
             "/var/mobile/Library/Preferences/com.norvane.da.plist", "/var/mobile/Library/Preferences/.com.norvane.da.plist.lock",
             "/var/mobile/Library/Preferences/com.norvane.other.plist", "/var/lib/quorvix/wattrel.db", "/var/lib/quorvix/tallisk.db",
             "/var/root/Library/Caches/quorvixd/tmp/planted", "/var/root/Library/Caches/quorvixd/spool/planted", "/Library/Logs/Faultbox/planted",
             "/run/vex/assertions/1"]


def forbidden_successes(daemon_pid):
    """As an ordinary user: everything that must not be possible and is."""
    done = []
    for path in FORBIDDEN:
        for flags in (os.O_WRONLY, os.O_WRONLY | os.O_CREAT, os.O_WRONLY | os.O_TRUNC):
            try:
                os.close(os.open(path, flags, 0o666))
                done.append(f"wrote {path}")
            except OSError:
                pass
    tries = {"removed the socket": lambda: os.unlink(ENDPOINT), "moved the socket": lambda: os.rename(ENDPOINT, ENDPOINT + ".old"),
             "removed the preferences": lambda: os.unlink("/var/mobile/Library/Preferences/com.norvane.da.plist"),
             "signalled the daemon": lambda: os.kill(daemon_pid, signal.SIGTERM),
             "read the daemon's memory": lambda: os.close(os.open(f"/proc/{daemon_pid}/mem", os.O_RDONLY)),
             "read the power log": lambda: os.close(os.open("/var/lib/quorvix/wattrel.db", os.O_RDONLY))}
    for what, attempt in tries.items():
        try:
            attempt()
            done.append(what)
        except OSError:
            pass
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as state:
        try:
            state.connect(ENDPOINT + ".state")
            done.append("read the state")
        except OSError:
            pass
    return done


def nobody(draw, daemon_pid, tell):
    """An ordinary user, who may connect and nothing else, and takes all the connections that he gets."""
    os.setgroups([])
    os.setgid(NOBODY)
    os.setuid(NOBODY)
    connections = []
    while True:
        for success in forbidden_successes(daemon_pid):
            tell(success)
        try:
            client = Client().connect()
            client.socket.setblocking(False)
            connections.append(client)
            for _ in range(20):
                connections[draw.randrange(len(connections))].send_datagram(message(draw))
        except OSError:
            pass
        if len(connections) > draw.choice([100, 1100]):
            while connections:
                connections.pop().close()


KINDS = {kind.__name__: kind for kind in (garbage, descriptors, regions, storm, forks, activations, hangs, flood, readers, nobody)}
