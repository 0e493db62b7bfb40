#!/usr/bin/env python3
"""Runs a command as on an older kernel: a filter of system calls answers what such a kernel answers.

    old_kernel.py WHAT[,WHAT...] COMMAND [ARGUMENT...]

WHAT is a name of MISSING below. The filter also holds for what the command starts.
"""

import ctypes
import os
import struct
import sys

# The kernel's numbers for this processor; where they are not known there is no filter.
NUMBERS = {"x86_64": {"openat2": 437, "renameat2": 316, "bpf": 321, "getsockopt": 55, "memfd_create": 319},
           "aarch64": {"openat2": 437, "renameat2": 276, "bpf": 280, "getsockopt": 209, "memfd_create": 279}}
ENOSYS, EINVAL, ENOPROTOOPT = 38, 22, 92
SO_PEERPIDFD, MFD_NOEXEC_SEAL = 77, 8

# name: (system call, the answer, which argument, its value, whether one bit of it counts)
MISSING = {
    "openat2": ("openat2", ENOSYS, None, 0, False),
    "renameat2": ("renameat2", ENOSYS, None, 0, False),
    "bpf": ("bpf", ENOSYS, None, 0, False),
    "peer-pidfd": ("getsockopt", ENOPROTOOPT, 2, SO_PEERPIDFD, False),
    "noexec-seal": ("memfd_create", EINVAL, 1, MFD_NOEXEC_SEAL, True),
}

LOAD, JUMP_EQUAL, JUMP_ANY_BIT, RETURN = 0x20, 0x15, 0x45, 0x06
ALLOW, ERROR = 0x7FFF0000, 0x00050000
PR_SET_NO_NEW_PRIVS, PR_SET_SECCOMP, SECCOMP_MODE_FILTER = 38, 22, 2


def instruction(code, value, if_true=0, if_false=0):
    return struct.pack("<HBBI", code, if_true, if_false, value)


def program(missing, machine):
    """The filter: each entry looks at the call's number, and where it says so at the low half of one argument."""
    code = []
    for name in missing:
        call, answer, argument, value, bit = MISSING[name]
        body = []
        if argument is not None:
            body.append(instruction(LOAD, 16 + 8 * argument))
            body.append(instruction(JUMP_ANY_BIT if bit else JUMP_EQUAL, value, 0, 1))
        body.append(instruction(RETURN, ERROR | answer))
        code.append(instruction(LOAD, 0))
        code.append(instruction(JUMP_EQUAL, NUMBERS[machine][call], 0, len(body)))
        code.extend(body)
    code.append(instruction(RETURN, ALLOW))
    return code


def take_away(missing):
    code = program(missing, os.uname().machine)
    text = ctypes.create_string_buffer(b"".join(code))
    libc = ctypes.CDLL(None, use_errno=True)
    header = struct.pack("<HxxxxxxQ", len(code), ctypes.addressof(text))
    for arguments in ((PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), (PR_SET_SECCOMP, SECCOMP_MODE_FILTER, header, 0, 0)):
        if libc.prctl(*arguments) != 0:
            raise OSError(ctypes.get_errno(), "the filter was not taken")


if __name__ == "__main__":
    take_away(sys.argv[1].split(","))
    os.execvp(sys.argv[2], sys.argv[2:])
