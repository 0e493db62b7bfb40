#!/usr/bin/env python3
"""Runs one Python test file and writes {"passed": n, "failed": n, "skipped": n}, so that each test counts by itself.

    run_unittests.py FILE JSON
"""
import importlib.util
import json
import sys
import unittest
from pathlib import Path


def main():
    file, report = Path(sys.argv[1]), Path(sys.argv[2])
    found = importlib.util.spec_from_file_location(file.stem, file)
    module = importlib.util.module_from_spec(found)
    # Where unittest looks for setUpModule.
    sys.modules[file.stem] = module
    found.loader.exec_module(module)
    result = unittest.TextTestRunner(verbosity=2).run(unittest.defaultTestLoader.loadTestsFromModule(module))
    failed, skipped = len(result.failures) + len(result.errors) + len(result.unexpectedSuccesses), len(result.skipped)
    report.write_text(json.dumps({"passed": max(0, result.testsRun - failed - skipped), "failed": failed, "skipped": skipped}))
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
