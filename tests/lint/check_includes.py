#!/usr/bin/env python3
"""Proves the include rule of docs/architecture.md: each folder includes what it may and nothing else.

The rule is what keeps the subsystems testable in virtual time: what they can't include, they can't call around the
platform. An include that this script does not understand counts as broken.

    check_includes.py [--root FOLDER]
"""
import argparse
import os
import re
import sys
from pathlib import Path

SUBSYSTEMS = ("service", "hang", "activation", "perfstats", "memsnapshot")

# The standard library without what reaches the operating system by itself (files, threads, streams, signals): for
# those there is the platform.
STANDARD = set("""
    algorithm any array atomic bit bitset cassert cctype cerrno cfloat charconv chrono cinttypes climits cmath compare
    complex concepts coroutine cstdarg cstddef cstdint cstdio cstdlib cstring cwchar deque exception execution forward_list
    functional initializer_list ios iosfwd iterator limits list map memory memory_resource mutex new numbers numeric
    optional ostream queue random ranges ratio regex set shared_mutex source_location span sstream stack stdexcept
    streambuf string string_view system_error tuple type_traits typeindex typeinfo unordered_map unordered_set utility
    valarray variant vector version
    """.split())
# All of it: to tell C++ from C where only C may stand.
CPLUSPLUS = STANDARD | set("""
    barrier condition_variable filesystem format fstream future iomanip iostream istream latch locale semaphore
    stop_token strstream syncstream thread ccomplex cfenv ciso646 clocale csetjmp csignal ctgmath ctime cuchar
    cwctype
    """.split())
C_FREESTANDING = {"stdbool.h", "stddef.h", "stdint.h", "time.h"}
C_LIBRARY = C_FREESTANDING | set("""
    assert.h ctype.h dlfcn.h errno.h fcntl.h inttypes.h limits.h poll.h pthread.h sched.h signal.h stdalign.h stdarg.h
    stdatomic.h stdio.h stdlib.h string.h unistd.h
    """.split())
C_HEADERS_OF_PLATFORM = ("platform/quorvix_ticks.h", "platform/quorvix_channel.h", "platform/swivex.h")
SOURCE_ENDINGS = {".c", ".cc", ".cpp", ".h", ".hpp", ".inc", ".ipp"}

DIRECTIVE = re.compile(r"^\s*(?:#|%:|\?\?=)\s*(?:include(?:_next)?|import)\b(.*)$")
TARGET = re.compile(r'^\s*(?:<([^>]+)>|"([^"]+)")')


def directives(text):
    """(line number, what stands after "include"), comments taken out, continued lines joined."""
    joined = text.replace("\\\n", "")
    joined = re.sub(r"/\*.*?\*/", lambda match: " " + "\n" * match.group().count("\n"), joined, flags=re.DOTALL)
    for number, line in enumerate(joined.splitlines(), 1):
        match = DIRECTIVE.match(line)
        if match:
            yield number, match.group(1)
        elif re.match(r"^\s*(?:export\s+)?import\s+[<\"\w]", line) and not line.rstrip().endswith(","):
            yield number, "a module"


def resolve(root, file, target):
    """A quoted include as a path from the root; as the compiler does it, the including file's own folder first."""
    for base in (file.parent, root):
        path = Path(os.path.normpath(base / target))
        if path.is_file() and path.is_relative_to(root):
            return path.relative_to(root).as_posix()
    return None


def is_interface(path):
    return path.startswith("platform/") and path.count("/") == 1


def in_folder(path, *folders):
    return any(path.startswith(folder + "/") for folder in folders)


def subsystem_may(_, angled, quoted):
    if angled:
        return angled in STANDARD
    return is_interface(quoted) or in_folder(quoted, *SUBSYSTEMS)


def interface_may(file, angled, quoted):
    if file in C_HEADERS_OF_PLATFORM:
        return angled in C_FREESTANDING if angled else quoted in C_HEADERS_OF_PLATFORM
    return angled in STANDARD if angled else is_interface(quoted)


def linux_may(_, angled, quoted):
    return bool(angled) or in_folder(quoted, "platform/linux") or is_interface(quoted)


def simulation_may(_, angled, quoted):
    return bool(angled) or in_folder(quoted, "platform/sim", "platform/linux") or is_interface(quoted)


def client_may(file, angled, quoted):
    is_cplusplus = file.endswith((".hpp", ".cpp"))
    if in_folder(file, "client/examples/getting-started"):
        return bool(angled)  # as somebody else's app: installed headers alone
    if angled:
        if angled in CPLUSPLUS:
            return is_cplusplus
        if angled.startswith("Q"):
            return "_qt." in file
        if angled.startswith("glib"):
            return "glib" in file  # the ready-made watch for a GLib main loop
        return angled in C_LIBRARY or angled.startswith(("sys/", "linux/", "asm/"))
    return in_folder(quoted, "client") or quoted in C_HEADERS_OF_PLATFORM[:2]


# The tool takes a memory snapshot with the daemon's own code; only its main, which makes the real services, knows of it.
SNAPSHOT_HEADERS = ("memsnapshot/MemorySnapshot.h", "service/ServiceState.h")


# The tool arms the recorder with the trace library's own code.
RECORDER_HEADERS = ("swivex/FlightRecorder.h",)


def tool_may(file, angled, quoted):
    if file.startswith("ctl/RecorderCommand.") and quoted in RECORDER_HEADERS:
        return True
    if file == "ctl/main.cpp" and quoted in SNAPSHOT_HEADERS:
        return True
    # The measuring of activations and its renderings are the same code in the daemon and in the tool.
    return bool(angled) or in_folder(quoted, "ctl", "platform/linux", "activation", "perfstats", "report") or is_interface(quoted)


def trace_library_may(_, angled, quoted):
    return bool(angled) or in_folder(quoted, "swivex") or quoted in C_HEADERS_OF_PLATFORM


def report_reader_may(_, angled, quoted):
    return bool(angled) or in_folder(quoted, "report") or quoted == "platform/Result.h"


def main_may(_, angled, quoted):
    return bool(angled) or in_folder(quoted, "platform/linux", *SUBSYSTEMS) or is_interface(quoted)


def simulator_may(file, angled, quoted):
    if angled or in_folder(quoted, "simulate", "platform/sim") or is_interface(quoted):
        return True
    # The model shares nothing with what it is compared with.
    is_model = file.startswith("simulate/Model")
    return not is_model and in_folder(quoted, *SUBSYSTEMS)


def rule_for(file):
    if in_folder(file, *SUBSYSTEMS):
        return subsystem_may
    if is_interface(file):
        return interface_may
    for folder, rule in (("platform/linux", linux_may), ("platform/sim", simulation_may), ("client", client_may),
                         ("ctl", tool_may), ("swivex", trace_library_may), ("report", report_reader_may),
                         ("simulate", simulator_may)):
        if in_folder(file, folder):
            return rule
    return main_may if file == "main.cpp" else None


def check(root):
    """Complaints, and the number of files looked at."""
    complaints, looked_at = [], 0
    for folder in (*SUBSYSTEMS, "platform", "client", "ctl", "swivex", "report", "simulate", "main.cpp"):
        start = root / folder
        for path in sorted([start] if start.is_file() else start.rglob("*")):
            name = path.relative_to(root).as_posix()
            if path.suffix not in SOURCE_ENDINGS:
                continue
            rule = rule_for(name)
            looked_at += 1
            for number, text in directives(path.read_text(errors="replace")):
                match = TARGET.match(text)
                if rule is None or match is None:
                    complaints.append(f"{name}:{number}: not understood: {text.strip()}")
                    continue
                angled, quoted = match.groups()
                resolved = resolve(root, path, quoted) if quoted else None
                # Headers that are installed flat beside each other are named without a folder.
                for installed in ("client", "platform"):
                    if quoted and resolved is None and (root / installed / quoted).is_file():
                        resolved = f"{installed}/{quoted}"
                if quoted and resolved is None:
                    complaints.append(f"{name}:{number}: no such file in this tree: {quoted}")
                elif not rule(name, angled, resolved):
                    complaints.append(f"{name}:{number}: may not include {text.strip()}")
    return complaints, looked_at


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--root", type=Path, default=Path(__file__).resolve().parents[2])
    complaints, looked_at = check(parser.parse_args().root.resolve())
    print("\n".join([*complaints, f"{looked_at} files, {len(complaints)} broken includes"]))
    return 1 if complaints or looked_at == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
