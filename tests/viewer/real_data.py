"""Within demo/private-root: lets the demo do one of its jobs and keeps what quorvixd wrote.

    real_data.py blocked|launch|memory BUILD FOLDER

Status 77: not on this machine; the last line of standard error says why.
"""

import importlib.machinery
import importlib.util
import os
import pathlib
import shutil
import sqlite3
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
SKIPPED = 77


def load_demo():
    loader = importlib.machinery.SourceFileLoader("demo_run", str(ROOT / "demo/run"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("demo_run", loader))
    loader.exec_module(module)
    return module


def main():
    job, build, folder = sys.argv[1], pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3])
    if os.geteuid() != 0:
        print("the demo's hang needs root", file=sys.stderr)
        return SKIPPED
    demo_run = load_demo()
    demo = demo_run.Demo(build)
    try:
        if job == "launch":
            status = demo.run_launches()
            # A copy with what is still in the store's journal.
            with sqlite3.connect("/var/lib/quorvix/wattrel.db") as store, sqlite3.connect(folder / "wattrel.db") as copy:
                store.backup(copy)
        elif job == "memory":
            status = demo.run_memory()
            (folder / "memory").mkdir(exist_ok=True)
            # A later one may be of when the leak was over: from the first to the last nothing would have grown.
            sys.path.insert(0, str(ROOT / "demo"))
            import memory_demo
            for report in sorted(memory_demo.REPORTS.glob("memory-snapshot-*.ips"))[:memory_demo.SNAPSHOTS]:
                shutil.copy(report, folder / "memory")
        else:
            status = demo.run(job)
            shutil.copytree(demo_run.SPOOL, folder / "spool", dirs_exist_ok=True)
            if not (demo_run.TRACING / "instances/swivex").exists():
                print("the flight recorder of the kernel can not be switched on here", file=sys.stderr)
                return SKIPPED
        return status
    finally:
        demo.end()


if __name__ == "__main__":
    sys.exit(main())
