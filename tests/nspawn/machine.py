"""A small Debian under its own service manager, with quorvixd installed in it: made, booted, spoken to and ended here."""

import contextlib
import json
import os
import pathlib
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import uuid

# What a bare system lacks: the service manager with its bus, and the shared libraries that daemon, tool and trace library
# link.
PACKAGES = "systemd,systemd-sysv,dbus,libpugixml1v5,libdw1"
SUITE = "bookworm"
SERVICE, SOCKET = "quorvixd.service", "quorvixd.socket"
PATH_UNITS = ("quorvixd.path", "quorvixd-activations.path", "quorvixd-profile.path")
UNITS = (SERVICE, *PATH_UNITS, SOCKET)
RECORDER = "quorvixd-recorder.service"
HELPER_UNITS = (RECORDER, "quorvixd-prune.timer", "quorvixd-prune.service", "quorvixd-reports.path", "quorvixd-reports.service")
PREFERENCES = "/var/mobile/Library/Preferences"
CACHES = "/var/root/Library/Caches/quorvixd"
SPOOL = CACHES + "/spool"
MEMORY_REPORTS = "/Library/Logs/Faultbox"
# Everything that waits for the machine ends by then, whatever hangs: its processes are killed.
LONGEST_RUN_SECONDS = 480
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8", "SYSTEMD_COLORS": "0", "SYSTEMD_PAGER": ""}


def why_not():
    """The reason why no machine can be booted here, or nothing."""
    if os.geteuid() != 0:
        return "needs root"
    for tool in ("systemd-nspawn", "debootstrap", "nsenter", "unshare"):
        if not shutil.which(tool):
            return f"{tool} is not installed"
    return None


def make_image(folder):
    """The bare system, made once and kept. Half of one, left by an interrupted run, is made again."""
    stamp = folder.with_name(folder.name + ".packages")
    wanted = f"{SUITE} {PACKAGES}"
    if folder.is_dir() and stamp.exists() and stamp.read_text() == wanted:
        return
    stamp.unlink(missing_ok=True)
    shutil.rmtree(folder, ignore_errors=True)
    print("making the bare system", flush=True)
    subprocess.run(["debootstrap", "--variant=minbase", f"--include={PACKAGES}", SUITE, str(folder)], check=True,
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, timeout=900)
    for waste in ("var/cache/apt/archives", "var/lib/apt/lists", "usr/share/doc", "usr/share/man", "usr/share/locale"):
        shutil.rmtree(folder / waste, ignore_errors=True)
    stamp.write_text(wanted)


def why_no_image(folder):
    """Makes the bare system where it is missing; the reason why that was not possible, or nothing."""
    try:
        make_image(folder)
    except subprocess.SubprocessError as error:
        return f"the bare system could not be made: {error}"
    return None


def install(build, root, stand_in=True):
    """quorvixd by its own install rules; beside it the apps, which are not installed, and the stand-in for the trace library
    where it is wanted."""
    subprocess.run(["cmake", "--install", str(build), "--prefix", "/usr"], check=True, stdout=subprocess.DEVNULL,
                   env=dict(os.environ, DESTDIR=str(root)), timeout=60)
    shutil.copy(build / "bin/quorvix_poll_app", root / "usr/bin")
    if stand_in:
        shutil.copy(build / "standin/standin_swivex/libswivex.dylib", root / "usr/lib")
    # The folder that the node exporter's package brings.
    (root / "var/lib/prometheus/node-exporter").mkdir(parents=True)
    # Not a first boot, which would switch every unit on that has no preset.
    (root / "etc/machine-id").write_text(uuid.uuid4().hex + "\n")
    # As a package does it: what is switched on is what the preset says.
    subprocess.run(["chroot", str(root), "systemctl", "preset", *UNITS, *HELPER_UNITS], check=True,
                   capture_output=True, env=ENVIRONMENT, timeout=60)


class Machine:
    """One boot. Nothing of it is left when it has ended: its folder, a copy, goes too."""

    def __init__(self, image, folder, prepare):
        """prepare(root) puts into the copy what is to be there at the boot."""
        self.folder = folder
        shutil.rmtree(folder, ignore_errors=True)
        try:
            subprocess.run(["cp", "-a", "--reflink=auto", str(image), str(folder)], check=True, timeout=120)
            prepare(folder)
        except BaseException:
            shutil.rmtree(folder, ignore_errors=True)
            raise
        self.leader = None
        self.output = folder.with_name("nspawn-console.log").open("wb")
        # A /run of its own: systemd-nspawn leaves folders there.
        self.process = subprocess.Popen(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c", 'mount -t tmpfs own-run /run && exec "$@"', "sh",
             "systemd-nspawn", "--quiet", "-D", str(folder), f"--machine=quorvixd-test-{os.getpid()}", "--register=no",
             "--keep-unit", "--private-network", "--resolv-conf=off", "--timezone=off", "--link-journal=no", "-b"],
            stdin=subprocess.DEVNULL, stdout=self.output, stderr=subprocess.STDOUT)
        self.watchdog = threading.Timer(LONGEST_RUN_SECONDS, self.kill)
        self.watchdog.daemon = True
        self.watchdog.start()

    def wait_booted(self):
        self.leader = wait_until(self._find_leader, 20, "the machine's first process")
        wait_until(lambda: self.run("systemctl", "is-system-running").stdout.strip() in ("running", "degraded"), 60,
                   "the end of booting")

    def _find_leader(self):
        """The child that is process 1 of its own pid namespace."""
        if self.process.poll() is not None:
            raise AssertionError(f"systemd-nspawn ended with {self.process.returncode}: {self.console()}")
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        for child in children:
            try:
                lines = pathlib.Path(f"/proc/{child}/status").read_text().splitlines()
            except OSError:
                continue
            if next((line.split() for line in lines if line.startswith("NSpid:")), [])[2:] == ["1"]:
                return int(child)
        return None

    def console(self):
        return pathlib.Path(self.output.name).read_text(errors="replace")

    def path(self, name):
        """A file of the machine as seen from outside, its own mounts included."""
        return pathlib.Path(f"/proc/{self.leader}/root{name}")

    def _inside(self, command):
        return ["nsenter", f"--target={self.leader}", "--mount", "--uts", "--ipc", "--net", "--pid", "--root", "--wd", "--",
                *command]

    def run(self, *command, seconds=30):
        """Runs a command in the machine, to its end."""
        return subprocess.run(self._inside(command), capture_output=True, text=True, errors="replace", env=ENVIRONMENT,
                              stdin=subprocess.DEVNULL, timeout=seconds, check=False)

    def must(self, *command):
        result = self.run(*command)
        if result.returncode != 0:
            raise AssertionError(f"{' '.join(command)} ended with {result.returncode}: {result.stdout}{result.stderr}")
        return result.stdout

    def fetch(self, address):
        """What a server inside the machine answers; nothing while there is none. The machine itself has nothing to ask it with."""
        asking = f"import urllib.request; print(urllib.request.urlopen({address!r}, timeout=5).read().decode())"
        result = subprocess.run(["nsenter", f"--target={self.leader}", "--net", "--", sys.executable, "-c", asking],
                                capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=30, check=False)
        return result.stdout if result.returncode == 0 else None

    def start(self, *command):
        """Starts a process in the machine, which the caller ends."""
        return subprocess.Popen(self._inside(command), env=ENVIRONMENT, stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def show(self, unit):
        """The unit's properties, as far as the tests look at them."""
        names = ("ActiveState,SubState,Result,NRestarts,ExecMainStatus,ExecMainCode,MainPID,Type,StatusText,"
                 "LogRateLimitIntervalUSec,ActiveEnterTimestampMonotonic,InvocationID,UnitFileState,ConditionResult")
        return dict(line.split("=", 1) for line in self.must("systemctl", "show", "-p", names, unit).splitlines())

    def ctl(self, *arguments):
        return self.must("quorvixctl", *arguments)

    def status(self):
        """The daemon's state; nothing while it is down."""
        result = self.run("quorvixctl", "status", "--json")
        return json.loads(result.stdout) if result.returncode == 0 else None

    def watched(self):
        """The names of the watched processes."""
        state = self.status()
        return [process["name"] for process in state["watched"]] if state else []

    def failed_units(self):
        return self.must("systemctl", "--failed", "--plain", "--no-legend", "list-units", "quorvixd*")

    def start_app(self, unit, *command):
        """Starts an app as a service of its own, which is gone when it has ended."""
        self.must("systemd-run", "--quiet", f"--unit={unit}", "--property=CollectMode=inactive-or-failed", *command)

    def journal(self, *matches, since=0):
        """The entries that match, after the moment `since`."""
        # Not --after-cursor: together with matches it leaves out one entry too many.
        self.must("journalctl", "--sync")
        text = self.must("journalctl", "-o", "json", "--all", "--no-pager", *matches)
        entries = [json.loads(line) for line in text.splitlines()]
        return [entry for entry in entries if int(entry["__REALTIME_TIMESTAMP"]) > since]

    def reports(self):
        return sorted(self.path(SPOOL).glob("*.swivex"))

    @contextlib.contextmanager
    def counter_store(self):
        """The store of the counters, opened."""
        # A copy: the path leads through another file system's root, where the files beside the store are not found.
        with tempfile.TemporaryDirectory() as folder:
            for source in self.path("/var/lib/quorvix").glob("tallisk.db*"):
                shutil.copy(source, folder)
            with contextlib.closing(sqlite3.connect(f"{folder}/tallisk.db")) as store:
                yield store

    def power_off(self):
        """Ends the machine as its owner would, and gives how long that took; None where it had to be killed."""
        begun = time.monotonic()
        try:
            os.kill(self.leader, signal.SIGRTMIN + 4)
            self.process.wait(30)
            return time.monotonic() - begun
        except (ProcessLookupError, subprocess.TimeoutExpired):
            self.kill()
            return None

    def kill(self):
        # Its first process takes all others with it.
        for pid in (self.leader, self.process.pid):
            if pid is not None and self.process.poll() is None:
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass

    def close(self):
        self.watchdog.cancel()
        self.kill()
        self.process.wait()
        self.output.close()
        shutil.rmtree(self.folder, ignore_errors=True)


def wait_until(condition, seconds, what):
    """Polls until condition() gives something true, and returns it."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"{what} did not come within {seconds} s")
        time.sleep(0.05)
