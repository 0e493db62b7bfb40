"""The memory part of the demo: a program leaks, the daemon takes snapshots, and the tool names the leaker."""

import json
import pathlib
import subprocess
import sys
import time

REPORTS = pathlib.Path("/Library/Logs/Faultbox")
INTERVAL_SECONDS = 3
LEAKED_MIB_PER_SECOND = 32
SNAPSHOTS = 3
LONGEST_WAIT = 60
LEAKER = "leaky-app"

# Writes to what it allocates, since memory that nobody wrote to takes no page.
LEAK = f"""
import time
held = []
while True:
    held.append(bytearray(b"x" * ({LEAKED_MIB_PER_SECOND} << 18)))
    time.sleep(0.25)
"""


def wait_for_reports(daemon):
    end = time.monotonic() + LONGEST_WAIT
    while time.monotonic() < end and daemon.poll() is None:
        reports = sorted(REPORTS.glob("memory-snapshot-*.ips"))
        if len(reports) >= SNAPSHOTS:
            return reports
        time.sleep(0.1)
    return []


def run(demo, step, say):
    """Status 0 only when the tool names the leaker with what it leaked. Other programs of the machine may grow too."""
    REPORTS.mkdir(parents=True)
    step(f"Memory snapshots are switched on, every {INTERVAL_SECONDS} s")
    demo.ctl("prefs", "set", "QuorvixMemoryLoggingInterval", str(INTERVAL_SECONDS))
    demo.ctl("prefs", "set", "QuorvixEnableMemoryLogging", "true")
    step("The daemon starts")
    daemon = demo.start_daemon()
    step(f"A program starts that leaks {LEAKED_MIB_PER_SECOND} MiB a second")
    # A copy under its own name: a process is named by its executable.
    program = pathlib.Path("/tmp") / LEAKER
    program.write_bytes(pathlib.Path(sys.executable).resolve().read_bytes())
    program.chmod(0o755)
    leaker = subprocess.Popen([str(program), "-c", LEAK], stdin=subprocess.DEVNULL)
    demo.processes.append(leaker)
    reports = wait_for_reports(daemon)
    if not reports:
        step("The snapshots did not come: this demo failed")
        return 1
    step("What the snapshots tell")
    demo.ctl("memory", "list")
    demo.ctl("memory", "top", "--rows", "5")
    first, last = reports[0].name, reports[SNAPSHOTS - 1].name
    demo.ctl("memory", "diff", first, last, "--rows", "5")
    changes = json.loads(subprocess.run([str(demo.bin / "quorvixctl"), "memory", "diff", first, last, "--json"],
                                        check=True, capture_output=True).stdout)
    # Where processes came or went, their sum says nothing of one that grows.
    grown = [change for change in changes["processes"] if change["before_count"] == change["after_count"]]
    leaked = next((change["growth_bytes"] for change in grown if change["name"] == LEAKER), 0)
    found = leaked >= LEAKED_MIB_PER_SECOND * INTERVAL_SECONDS << 20
    if found:
        place = [change["name"] for change in grown].index(LEAKER) + 1
        step(f"Growth number {place} among programs that ran all along: {LEAKER}, {leaked >> 20} MiB")
    else:
        step(f"The tool does not name {LEAKER}: this demo failed")
    # In the same second it takes the place of the daemon's last: the leaker is to be in it too.
    demo.ctl("memory", "snapshot")
    leaker.terminate()
    leaker.wait()
    daemon.terminate()
    daemon.wait()
    return 0 if found else 1
