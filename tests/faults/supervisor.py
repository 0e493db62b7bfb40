"""Stands between a process and the kernel: sees each of its system calls about files, and may fail one, shorten it or
kill the process at it."""

import collections
import ctypes
import dataclasses
import errno
import fcntl
import os
import pathlib
import re
import select
import signal
import socket
import struct
import sys
import threading

import system_calls

RECEIVE, SEND = 0xC0502100, 0xC0182101
QUESTION = struct.Struct("<QIIiIQ6Q")
ANSWER = struct.Struct("<QqiI")
CONTINUE = 1
AT_FDCWD = -100
O_CREAT, O_TMPFILE = 0o100, 0o20200000
PIDFD_OPEN, PIDFD_GETFD = 434, 438
_libc = ctypes.CDLL(None, use_errno=True)


@dataclasses.dataclass(frozen=True, order=True)
class Call:
    """One kind of call: its name, and the file with all numbers in it made equal. Two runs of the same work make the
    same kinds of calls, whatever the time and the process ids are."""
    name: str
    file: str
    creates: bool = False

    def __str__(self):
        return f"{self.name}({self.file}{', creates' if self.creates else ''})"


@dataclasses.dataclass(frozen=True)
class Fault:
    """What happens at the n-th call of a kind: an errno's name, "short", or "kill"; lasting: at all calls that share
    the cause from then on."""
    call: Call
    number: int
    what: str
    lasting: bool = False

    def __str__(self):
        return f"{self.what}{' from' if self.lasting else ' at'} {self.call} #{self.number}"


def alike(path):
    path = re.sub(r"\d+", "#", path)
    return re.sub(r" \(deleted\)$", "", path)


def descriptor_of(pid, number):
    """A copy of a descriptor of that process."""
    handle = _libc.syscall(PIDFD_OPEN, pid, 0)
    if handle < 0:
        raise OSError(ctypes.get_errno(), "pidfd_open")
    try:
        copy = _libc.syscall(PIDFD_GETFD, handle, number, 0)
        if copy < 0:
            raise OSError(ctypes.get_errno(), "pidfd_getfd")
        return copy
    finally:
        os.close(handle)


class Supervisor:
    """Use prefix() and options() to start the process, then attach(). Between arm() and disarm() the calls of its own
    threads are counted, those of its children are not. Answers come from a thread of its own."""

    def __init__(self):
        self.names = system_calls.numbers()
        self.names_of_untried = system_calls.untried()
        self.lock = threading.Lock()
        self.listener = None
        self.pid = None
        self.armed = False
        self.fault = None
        self.struck = None  # what the fault hit, once it has
        self.counts = collections.Counter()
        self.order = []
        self.untried = set()  # calls that were made and are never made to fail
        self.ours, self.theirs = socket.socketpair()
        self.memory = None
        self.thread = None
        self.known = {}

    def prefix(self):
        return [sys.executable, "-B", str(pathlib.Path(__file__).with_name("supervised.py")), str(self.theirs.fileno())]

    def options(self):
        return {"pass_fds": [self.theirs.fileno()]}

    def attach(self, pid):
        self.theirs.close()
        self.ours.settimeout(30)
        _, (self.listener,), _, _ = socket.recv_fds(self.ours, 1, 1)
        self.ours.close()
        self.pid = pid
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def arm(self, fault=None):
        with self.lock:
            self.armed, self.fault, self.struck = True, fault, None
            self.counts.clear()
            self.order = []

    def disarm(self):
        """Gives what came while it was armed: how often each kind of call, in the order of the first."""
        with self.lock:
            self.armed = False
            return {call: self.counts[call] for call in dict.fromkeys(self.order)}

    def wait_end(self, seconds=30):
        """The process and all that has its filter is gone."""
        self.thread.join(seconds)

    def _serve(self):
        poll = select.poll()
        poll.register(self.listener, select.POLLIN)
        question = bytearray(QUESTION.size)
        while True:
            events = poll.poll()[0][1]
            if not events & select.POLLIN:
                break
            question[:] = bytes(QUESTION.size)
            try:
                fcntl.ioctl(self.listener, RECEIVE, question)
            except OSError as error:
                if error.errno in (errno.ENOENT, errno.EINTR):  # its asker was killed
                    continue
                break
            fields = QUESTION.unpack(question)
            answer = self._decide(fields[1], fields[3], fields[6:])
            if answer is None:
                continue
            try:
                fcntl.ioctl(self.listener, SEND, ANSWER.pack(fields[0], *answer))
            except OSError:  # its asker was killed meanwhile
                pass
        os.close(self.listener)
        if self.memory is not None:
            os.close(self.memory)

    def _decide(self, thread, number, arguments):
        passes = (0, 0, CONTINUE)
        with self.lock:
            if not self.armed or not self._is_ours(thread):
                return passes
            if number in self.names_of_untried:
                self.untried.add(self.names_of_untried[number])
                return passes
            name = self.names[number]
            call = self._call(thread, name, arguments)
            if call is None:
                return passes
            self.counts[call] += 1
            self.order.append(call)
            fault = self.fault
            if fault is None or not self._strikes(fault, call):
                return passes
            self.struck = self.struck or call
            if fault.what == "kill":
                os.kill(self.pid, signal.SIGKILL)
                return None
            if fault.what == "short":
                return self._shorten(name, arguments)
            return 0, -getattr(errno, fault.what), 0

    def _strikes(self, fault, call):
        if self.struck is not None:
            if not fault.lasting:
                return False
            shared = {"ENOSPC": system_calls.ALLOCATING, "EROFS": system_calls.ALLOCATING | {"unlink", "unlinkat"},
                      "EMFILE": system_calls.OPENING, "EIO": system_calls.OF_A_DEVICE}[fault.what]
            needs_room = call.name not in ("open", "openat", "openat2") or call.creates or fault.what in ("EMFILE", "EIO")
            of_state = not call.file.startswith(("/proc", "/sys"))
            return call.name in shared and needs_room and (of_state or fault.what == "EMFILE")
        return call == fault.call and self.counts[call] == fault.number

    def _is_ours(self, thread):
        if thread not in self.known:
            self.known[thread] = os.path.exists(f"/proc/{self.pid}/task/{thread}")
        return self.known[thread]

    def _text(self, address):
        # Opened when it is needed: the process is another program before.
        memory = os.open(f"/proc/{self.pid}/mem", os.O_RDONLY)
        try:
            text = b""
            while b"\0" not in text and len(text) < 8192:
                text += os.pread(memory, 4096 - (address + len(text)) % 4096, address + len(text))
            return os.fsdecode(text.split(b"\0")[0])
        except OSError:
            return "?"
        finally:
            os.close(memory)

    def _link(self, number):
        try:
            return os.readlink(f"/proc/{self.pid}/fd/{number}")
        except OSError:
            return None

    def _call(self, thread, name, arguments):
        """The kind of call; nothing for one that is about no file."""
        target = system_calls.target_of(name)
        creates = False
        detail = ""
        if target.startswith("fd"):
            number = ctypes.c_int(arguments[int(target[2])]).value
            path = self._link(number) if number >= 0 else None
            if path is None or path.startswith(("socket:", "pipe:", "anon_inode:[event", "anon_inode:[timerfd", "anon_inode:[signalfd", "anon_inode:inotify",
                                                "anon_inode:[pidfd", "/dev/null")) or number == 2:
                return None
            if name in ("fcntl", "ioctl"):
                detail = f" {arguments[1] & 0xFFFFFFFF:#x}"
        elif target == "path0":
            path = self._text(arguments[0])
        elif target == "at0":
            folder = ctypes.c_int(arguments[0]).value
            path = self._text(arguments[1])
            if not path.startswith("/") and folder != AT_FDCWD:
                path = f"{self._link(folder)}/{path}" if path else str(self._link(folder))
        else:
            path = ""
        if name == "open":
            creates = bool(arguments[1] & O_CREAT)
        elif name == "openat":
            creates = bool(arguments[2] & O_CREAT)
        elif name == "openat2":
            creates = bool(self._word(arguments[2]) & O_CREAT)
        return Call(name, alike(path) + detail, creates)

    def _word(self, address):
        memory = os.open(f"/proc/{self.pid}/mem", os.O_RDONLY)
        try:
            return struct.unpack("<Q", os.pread(memory, 8, address))[0]
        finally:
            os.close(memory)

    def _shorten(self, name, arguments):
        """Does half of a reading or writing in the process's place, at its own descriptor's position."""
        length = arguments[2] // 2
        if length == 0:
            return 0, 0, CONTINUE
        copy = descriptor_of(self.pid, arguments[0])
        memory = os.open(f"/proc/{self.pid}/mem", os.O_RDWR)
        try:
            if name in ("write", "pwrite64"):
                data = os.pread(memory, length, arguments[1])
                done = os.write(copy, data) if name == "write" else os.pwrite(copy, data, arguments[3])
            else:
                data = os.read(copy, length) if name == "read" else os.pread(copy, length, arguments[3])
                done = os.pwrite(memory, data, arguments[1]) if data else 0
            return done, 0, 0
        except OSError as error:
            return 0, -error.errno, 0
        finally:
            os.close(copy)
            os.close(memory)
