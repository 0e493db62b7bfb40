#!/usr/bin/env python3
"""Tests of check_includes.py on planted files: that what is forbidden is found, and what is allowed is not."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

CHECKER = Path(__file__).with_name("check_includes.py")


class IncludeRule(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)
        for name in ("platform/Files.h", "platform/quorvix_ticks.h", "platform/linux/Files.h", "platform/sim/Files.h",
                     "hang/Registry.h", "service/Core.h", "client/quorvix.h"):
            self.plant(name, "")

    def plant(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text + "\n")

    def check(self, name, text):
        self.plant(name, text)
        return subprocess.run([sys.executable, CHECKER, "--root", self.root], capture_output=True, text=True, check=False)

    def refuses(self, name, text):
        result = self.check(name, text)
        self.assertEqual(result.returncode, 1, result.stdout)
        self.assertIn(name, result.stdout)

    def accepts(self, name, text):
        result = self.check(name, text)
        self.assertEqual(result.returncode, 0, result.stdout)

    def test_a_subsystem_may_use_the_standard_library_interfaces_and_subsystems(self):
        self.accepts("hang/Good.cpp", '#include <vector>\n#include "platform/Files.h"\n#include "service/Core.h"\n'
                                      '#include "Registry.h"\n#include "platform/quorvix_ticks.h"')

    def test_a_subsystem_may_not_use_the_linux_platform(self):
        self.refuses("hang/Bad.cpp", '#include "platform/linux/Files.h"')

    def test_the_report_reader_stands_by_itself(self):
        self.plant("platform/Result.h", "")
        self.plant("report/Reader.h", "")
        self.plant("swivex/Writer.h", "")
        self.accepts("ctl/Good.cpp", '#include "report/Reader.h"')
        self.accepts("report/Good.cpp", '#include <zlib.h>\n#include "report/Reader.h"\n#include "platform/Result.h"')
        self.refuses("report/Bad.cpp", '#include "swivex/Writer.h"')
        self.refuses("report/Bad.cpp", '#include "platform/Files.h"')
        self.refuses("report/Bad.cpp", '#include "hang/Registry.h"')

    def test_a_subsystem_may_not_use_the_simulation(self):
        self.refuses("service/Bad.cpp", '#include "platform/sim/Files.h"')

    def test_a_detour_through_another_folder_is_seen_through(self):
        self.refuses("hang/Bad.cpp", '#include "platform/../platform/linux/Files.h"')

    def test_a_subsystem_may_not_use_the_operating_system(self):
        for header in ("unistd.h", "sys/socket.h", "thread", "fstream", "filesystem", "sqlite3.h", "pugixml.hpp"):
            with self.subTest(header):
                self.refuses("perfstats/Bad.h", f"#include <{header}>")

    def test_spacing_and_continued_lines_do_not_hide_an_include(self):
        self.refuses("hang/Bad.cpp", "  #  include \\\n <unistd.h>")
        self.refuses("hang/Bad.cpp", "#/**/include <unistd.h>")
        self.refuses("hang/Bad.cpp", "%:include <unistd.h>")

    def test_an_include_by_macro_is_refused(self):
        self.refuses("hang/Bad.cpp", "#define HEADER <unistd.h>\n#include HEADER")

    def test_an_include_in_a_comment_is_none(self):
        self.accepts("hang/Good.cpp", "/* as in\n#include <unistd.h>\n*/\n// #include <unistd.h>")

    def test_an_interface_holds_no_system_header(self):
        self.refuses("platform/Bad.h", "#include <sys/mman.h>")
        self.accepts("platform/Bad.h", '#include <string>\n#include "platform/Files.h"')

    def test_an_interface_may_not_use_a_subsystem(self):
        self.refuses("platform/Bad.h", '#include "hang/Registry.h"')

    def test_a_shared_c_header_holds_no_cplusplus(self):
        self.refuses("platform/swivex.h", "#include <string>")

    def test_the_client_is_c_and_depends_on_libc_only(self):
        self.accepts("client/good.c", '#include <pthread.h>\n#include <sys/socket.h>\n#include "quorvix.h"\n'
                                      '#include "platform/quorvix_ticks.h"')
        for text in ("#include <string>", "#include <glib.h>", '#include "platform/Files.h"', '#include "hang/Registry.h"'):
            with self.subTest(text):
                self.refuses("client/bad.c", text)
                (self.root / "client/bad.c").unlink()

    def test_headers_that_are_installed_flat_are_found_flat(self):
        self.accepts("client/examples/app.c", '#include "quorvix.h"\n#include "quorvix_ticks.h"')
        self.refuses("hang/Bad.cpp", '#include "quorvix.h"')

    def test_only_the_watch_for_qt_knows_qt(self):
        self.accepts("client/quorvix_qt.hpp", "#include <QCoreApplication>")
        self.refuses("client/quorvix.hpp", "#include <QCoreApplication>")

    def test_the_first_apps_are_somebody_elses(self):
        self.accepts("client/examples/getting-started/app.c", "#include <gtk/gtk.h>\n#include <quorvix.h>")
        self.refuses("client/examples/getting-started/app.c", '#include "quorvix.h"')

    def test_the_linux_platform_may_not_use_a_subsystem(self):
        self.refuses("platform/linux/Bad.cpp", '#include "hang/Registry.h"')

    def test_the_tool_may_not_use_a_subsystem(self):
        self.refuses("ctl/Bad.cpp", '#include "service/Core.h"')
        self.refuses("ctl/main.cpp", '#include "service/Core.h"')
        self.refuses("ctl/Bad.cpp", '#include "memsnapshot/MemorySnapshot.h"')

    def test_the_simulation_s_model_may_not_use_a_subsystem(self):
        self.refuses("simulate/ModelHangs.cpp", '#include "hang/Registry.h"')
        (self.root / "simulate/ModelHangs.cpp").unlink()
        self.accepts("simulate/Checkers.cpp", '#include "hang/Registry.h"')

    def test_the_simulation_may_not_use_the_linux_platform(self):
        self.refuses("simulate/World.cpp", '#include "platform/linux/Files.h"')

    def test_a_file_that_is_not_there_is_refused(self):
        self.refuses("hang/Bad.cpp", '#include "platform/Gone.h"')

    def test_an_empty_tree_is_not_success(self):
        with tempfile.TemporaryDirectory() as empty:
            result = subprocess.run([sys.executable, CHECKER, "--root", empty], capture_output=True, check=False)
            self.assertEqual(result.returncode, 1)


if __name__ == "__main__":
    unittest.main()
