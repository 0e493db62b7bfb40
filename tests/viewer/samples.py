"""Files for the viewer's tests, field by field, independent of the code that writes real ones: hang reports and memory
snapshots with names that mean harm, and a power log."""

import json

PREFIX = "com.norvane.quorvix."
SECOND = 10**9
MS = 10**6
# What would do something if it became markup or was obeyed.
HOSTILE = "</script><img src=x onerror=alert(1)>"
HOSTILE_BYTES = b"<b>\xff\xfe&lt;\xe2\x80\xae\x1b[2J</b>"
BEGAN = 1_790_000_000


def varint(value):
    value &= 2**64 - 1
    out = bytearray()
    while value >= 0x80:
        out.append(value & 0x7F | 0x80)
        value >>= 7
    return bytes(out) + bytes([value])


def field(number, value):
    if isinstance(value, int):
        return varint(number << 3) + varint(value)
    value = value.encode() if isinstance(value, str) else value
    return varint(number << 3 | 2) + varint(len(value)) + value


def message(*fields):
    return b"".join(field(number, value) for number, value in fields)


class Report:
    """A trace file: what docs/hang-report.md says of it."""

    def __init__(self):
        self.packets = []

    def packet(self, *fields):
        self.packets.append(field(1, message(*fields)))

    def attributes(self, **values):
        entries = [(1, message((1, PREFIX + key.replace("__", ".")), (2, value) if isinstance(value, int) else (3, value)))
                   for key, value in values.items()]
        self.packet((10, 1), (126, message(*entries)))

    def clocks(self, realtime, monotonic):
        self.packet((6, message((1, message((1, 1), (2, realtime))), (1, message((1, 3), (2, monotonic))))))

    def process(self, pid, name):
        self.packet((2, message((1, message((1, pid), (3, name))))))

    def thread(self, tid, pid, name):
        self.packet((2, message((2, message((1, tid), (2, name), (3, pid))))))

    def switches(self, cpu, switches):
        """Each: time, who leaves, in which state, who comes."""
        events = [(2, message((1, at), (2, left), (4, message((1, "a"), (2, left), (3, 120), (4, state), (5, "b"), (6, came), (7, 120)))))
                  for at, left, state, came in switches]
        self.packet((10, 3), (1, message((1, cpu), *events)))

    def stack(self, pid, tid, frames):
        """Kernel frames by name, innermost first."""
        interned = []
        for iid, name in enumerate(frames, 1):
            interned += [(5, message((1, iid), (2, name))), (6, message((1, iid), (2, iid)))]
        interned.append((7, message((1, 1), *((2, iid) for iid in range(len(frames), 0, -1)))))
        self.packet((8, 1), (10, 5), (13, 3), (12, message(*interned)), (135, message((1, message((2, pid), (3, tid))), (6, 1))))

    def file(self):
        end = message((1, message((1, PREFIX + "end"), (2, len(self.packets) + 1))))
        return b"".join(self.packets) + field(1, message((10, 1), (126, end)))


def report(app="editor", began=BEGAN, seconds=6, cause="blocked", recorder="mapped", thread_name="main"):
    begin, end = 10 * SECOND, (10 + seconds) * SECOND
    made = Report()
    covered = {"covered_begin_ns": 9 * SECOND, "covered_end_ns": end + SECOND} if recorder != "none" else {}
    reason = {"Reason": f"timeout of {HOSTILE}", "ServiceName": "main", "ProcessPath": f"/opt/{app}", "PID": 50, "ThreadID": 50}
    made.attributes(asked_begin_ns=begin, asked_end_ns=end, hung_pid=50, hung_tid=50, recorder=recorder,
                    reason=json.dumps(reason), **covered,
                    **({"missing__events": f"the recorder is off {HOSTILE}"} if recorder == "none" else {}))
    made.clocks(began * SECOND, begin)
    made.process(50, app)
    made.thread(50, 50, thread_name)
    made.thread(51, 50, HOSTILE_BYTES)
    if recorder != "none":
        state = {"busy": None, "starved": 0, "blocked": 1, "io": 2, "stopped": 4}[cause]
        hung = [(begin - 500 * MS, 0, 0, 50)]
        if state is not None:
            hung += [(begin + 100 * MS, 50, state, 51), (end + 10 * MS, 51, 0, 50)]
        made.switches(0, hung)
    made.stack(50, 50, ["futex_wait", f"outer {HOSTILE}", "start"])
    made.stack(50, 51, [HOSTILE_BYTES, "start"])
    return made.file()


def snapshot(timestamp, sizes):
    """A memory snapshot's text; sizes: pages by name of the process."""
    head = ('{"bug_type":"152","os_version":"x"}\n{\n"Model" : "m",\n"Timestamp" : "%s",\n"OSVersion" : "x"\n}\n{\n'
            '"page_size" : 4096,\n"free_count" : 100000,\n"Processes" :\n[\n' % timestamp)
    processes = ",\n".join('{"ProcessName":"%s", "Priority":1, "Footprint":%d, "Dirty":"-"}' % item for item in sizes.items())
    return head + processes + '],\n"Zones" :\n[\n{ "Name" : "dentry", "Pages" : 7 }],\n"Wired" :\n[\n{ "stack" : 1024 }]\n}\n'


def folder_of_all_causes(folder):
    """Reports of every verdict and of a file that is none, the newest last."""
    causes = ["busy", "starved", "blocked", "io", "stopped"]
    for at, cause in enumerate(causes):
        name = HOSTILE.replace("/", "_") if cause == "blocked" else f"app-{cause}"
        (folder / f"{cause}.swivex").write_bytes(report(name, BEGAN + 3600 * at, 6 + at, cause))
    (folder / "off.swivex").write_bytes(report("recorder-off", BEGAN + 3600 * 5, 9, recorder="none", thread_name=HOSTILE))
    (folder / "broken <b>.swivex").write_bytes(b"hello")
