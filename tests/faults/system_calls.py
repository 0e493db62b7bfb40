"""The system calls that can be stopped at, and what of each says which file it is about."""

import os

# name: number on x86_64, number on aarch64 (None: it has no such call), what to look at, errors that are tried.
# What to look at: "at0": a folder's descriptor and a path from argument 0 on; "path0": a path; "fd0": a descriptor;
# "": nothing.
_TABLE = {
    "open": (2, None, "path0", ("EMFILE", "EACCES", "EIO")),
    "openat": (257, 56, "at0", ("EMFILE", "EACCES", "EIO")),
    "openat2": (437, 437, "at0", ("EMFILE", "EACCES", "EIO", "EINTR")),
    "close": (3, 57, "fd0", ("EIO", "EINTR")),
    "read": (0, 63, "fd0", ("EIO", "EINTR", "short")),
    "pread64": (17, 67, "fd0", ("EIO", "EINTR", "short")),
    "readv": (19, 65, "fd0", ("EIO", "EINTR")),
    "write": (1, 64, "fd0", ("ENOSPC", "EIO", "EINTR", "short")),
    "pwrite64": (18, 68, "fd0", ("ENOSPC", "EIO", "EINTR", "short")),
    "writev": (20, 66, "fd0", ("ENOSPC", "EIO", "EINTR")),
    "fsync": (74, 82, "fd0", ("EIO", "ENOSPC")),
    "fdatasync": (75, 83, "fd0", ("EIO", "ENOSPC")),
    "ftruncate": (77, 46, "fd0", ("ENOSPC", "EIO")),
    "fallocate": (285, 47, "fd0", ("ENOSPC", "EIO")),
    "stat": (4, None, "path0", ("EACCES", "EIO")),
    "lstat": (6, None, "path0", ("EACCES", "EIO")),
    "fstat": (5, 80, "fd0", ("EIO",)),
    "newfstatat": (262, 79, "at0", ("EACCES", "EIO")),
    "statx": (332, 291, "at0", ("EACCES", "EIO")),
    "access": (21, None, "path0", ("EACCES", "EIO")),
    "faccessat": (269, 48, "at0", ("EACCES", "EIO")),
    "lseek": (8, 62, "fd0", ("EIO",)),
    "rename": (82, None, "path0", ("EXDEV", "ENOSPC", "EACCES", "EROFS", "EIO")),
    "renameat": (264, 38, "at0", ("EXDEV", "ENOSPC", "EACCES", "EROFS", "EIO")),
    "renameat2": (316, 276, "at0", ("EXDEV", "ENOSPC", "EACCES", "EROFS", "EINVAL")),
    "unlink": (87, None, "path0", ("EACCES", "EROFS", "EIO")),
    "unlinkat": (263, 35, "at0", ("EACCES", "EROFS", "EIO")),
    "linkat": (265, 37, "at0", ("EXDEV", "ENOSPC", "EPERM")),
    "mkdir": (83, None, "path0", ("ENOSPC", "EACCES", "EROFS")),
    "mkdirat": (258, 34, "at0", ("ENOSPC", "EACCES", "EROFS")),
    "chmod": (90, None, "path0", ("EPERM", "EROFS")),
    "fchmod": (91, 52, "fd0", ("EPERM", "EIO")),
    "fchmodat": (268, 53, "at0", ("EPERM", "EIO")),
    "fchown": (93, 55, "fd0", ("EPERM", "EIO")),
    "flock": (73, 32, "fd0", ("EINTR", "EIO")),
    "fcntl": (72, 25, "fd0", ("EACCES", "EIO")),
    "getdents64": (217, 61, "fd0", ("EIO",)),
    "readlink": (89, None, "path0", ("EACCES", "EIO")),
    "readlinkat": (267, 78, "at0", ("EACCES", "EIO")),
    "statfs": (137, 43, "path0", ("EACCES", "EIO")),
    "fstatfs": (138, 44, "fd0", ("EIO",)),
    "mmap": (9, 222, "fd4", ("ENOMEM",)),
    "ioctl": (16, 29, "fd0", ("EIO",)),
    "memfd_create": (319, 279, "", ("EMFILE", "ENOMEM")),
    "pipe2": (293, 59, "", ("EMFILE",)),
    "socketpair": (53, 199, "", ("EMFILE",)),
    "clone": (56, 220, "", ("EAGAIN",)),
    "clone3": (435, 435, "", ("EAGAIN",)),
    "perf_event_open": (298, 241, "", ("EMFILE", "EPERM")),
    "bpf": (321, 280, "", ("EPERM", "ENOMEM")),
}

# Other calls about files: number on x86_64, on aarch64. The daemon makes none of them; one that it begins to make belongs
# into the table above, or nobody would ever see it fail.
_UNTRIED = {
    "creat": (85, None), "truncate": (76, 45), "link": (86, None), "symlink": (88, None), "symlinkat": (266, 36), "rmdir": (84, None),
    "mknod": (133, None), "mknodat": (259, 33), "chown": (92, None), "lchown": (94, None), "fchownat": (260, 54),
    "faccessat2": (439, 439), "fchmodat2": (452, 452), "utime": (132, None), "utimes": (235, None), "futimesat": (261, None),
    "utimensat": (280, 88), "setxattr": (188, 5), "lsetxattr": (189, 6), "fsetxattr": (190, 7), "getxattr": (191, 8),
    "lgetxattr": (192, 9), "fgetxattr": (193, 10), "listxattr": (194, 11), "llistxattr": (195, 12), "flistxattr": (196, 13),
    "removexattr": (197, 14), "lremovexattr": (198, 15), "fremovexattr": (199, 16), "preadv": (295, 69), "pwritev": (296, 70),
    "preadv2": (327, 286), "pwritev2": (328, 287), "sendfile": (40, 71), "copy_file_range": (326, 285), "splice": (275, 76),
    "tee": (276, 77), "vmsplice": (278, 75), "sync": (162, 81), "syncfs": (306, 267), "sync_file_range": (277, 84),
    "msync": (26, 227), "fadvise64": (221, 223), "readahead": (187, 213), "getdents": (78, None), "name_to_handle_at": (303, 264),
    "open_by_handle_at": (304, 265), "io_uring_setup": (425, 425),
}

_COLUMN = {"x86_64": 0, "aarch64": 1}.get(os.uname().machine)
AUDIT_ARCH = {"x86_64": 0xC000003E, "aarch64": 0xC00000B7}.get(os.uname().machine)

# Calls whose failure says that there is no room, that there are no descriptors left, that the device is broken.
ALLOCATING = {"open", "openat", "openat2", "write", "pwrite64", "writev", "fsync", "fdatasync", "ftruncate", "fallocate",
              "rename", "renameat", "renameat2", "linkat", "mkdir", "mkdirat"}
OPENING = {"open", "openat", "openat2", "memfd_create", "pipe2", "socketpair", "perf_event_open"}
OF_A_DEVICE = ALLOCATING | {"read", "pread64", "unlink", "unlinkat", "fstat", "newfstatat", "stat", "lstat"}

# What may change a file or a folder.
CHANGING = ALLOCATING - {"open", "openat", "openat2"} | {"unlink", "unlinkat", "chmod", "fchmod", "fchmodat", "fchown"}


def _numbers_of(table):
    if _COLUMN is None:
        return {}
    return {row[_COLUMN]: name for name, row in table.items() if row[_COLUMN] is not None}


def numbers():
    """Number to name, on this processor; nothing where its numbers are not known."""
    return _numbers_of(_TABLE)


def untried():
    """The same of the calls that the daemon does not make and that are not made to fail."""
    return _numbers_of(_UNTRIED)


def target_of(name):
    return _TABLE[name][2]


def errors_of(name, creates=False):
    """What is tried at this call; one that makes a file may also find no room for it."""
    return _TABLE[name][3] + (("ENOSPC", "EROFS") if creates else ())
