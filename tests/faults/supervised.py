#!/usr/bin/env python3
"""Runs a command whose system calls are asked about before the kernel does them.

    supervised.py SOCKET COMMAND [ARGUMENT...]

The descriptor on which the questions come is sent over SOCKET, an open descriptor of a Unix socket; whoever has it
decides. The filter also holds for what the command starts.
"""

import ctypes
import os
import socket
import struct
import sys

import system_calls

LOAD, JUMP_EQUAL, RETURN = 0x20, 0x15, 0x06
ALLOW, ASK = 0x7FFF0000, 0x7FC00000
SECCOMP_SET_MODE_FILTER, FLAG_NEW_LISTENER, FLAG_WAIT_KILLABLE = 1, 8, 32
SECCOMP_CALL = {"x86_64": 317, "aarch64": 277}


def instruction(code, value, if_true=0, if_false=0):
    return struct.pack("<HBBI", code, if_true, if_false, value)


def program(numbers):
    """Asks about these calls of the machine's own kind and lets all else pass."""
    code = [instruction(LOAD, 4), instruction(JUMP_EQUAL, system_calls.AUDIT_ARCH, 1, 0), instruction(RETURN, ALLOW), instruction(LOAD, 0)]
    for position, number in enumerate(numbers):
        code.append(instruction(JUMP_EQUAL, number, len(numbers) - position, 0))
    return code + [instruction(RETURN, ALLOW), instruction(RETURN, ASK)]


def install():
    """Installs the filter on this process; gives the descriptor on which the questions come."""
    code = program(sorted(system_calls.numbers() | system_calls.untried()))
    text = ctypes.create_string_buffer(b"".join(code))
    header = struct.pack("<HxxxxxxQ", len(code), ctypes.addressof(text))
    libc = ctypes.CDLL(None, use_errno=True)
    listener = libc.syscall(SECCOMP_CALL[os.uname().machine], SECCOMP_SET_MODE_FILTER, FLAG_NEW_LISTENER, header)
    if listener < 0:
        raise OSError(ctypes.get_errno(), "the filter was not taken")
    return listener


def main():
    channel = socket.socket(fileno=int(sys.argv[1]))
    os.environ.pop("QUORVIX_SUPERVISOR", None)
    listener = install()
    # Nothing between these two may be asked about: nobody would answer.
    socket.send_fds(channel, [b"l"], [listener])
    os.close(listener)
    channel.close()
    os.execvp(sys.argv[2], sys.argv[2:])


if __name__ == "__main__":
    main()
