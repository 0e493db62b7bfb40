#!/usr/bin/env python3
"""The fault injector does to a process what it says, and nothing else."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import campaign  # noqa: E402
import system_calls  # noqa: E402
from supervisor import Call, Fault, Supervisor, alike  # noqa: E402

UNAVAILABLE = campaign.available()


@unittest.skipIf(UNAVAILABLE, UNAVAILABLE or "")
class OneCommand(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="faults")
        self.addCleanup(folder.cleanup)
        self.file = pathlib.Path(folder.name) / "file"
        self.file.write_text("0123456789" * 10)

    def run_under(self, fault, command):
        """Its status, its output and the calls that it made."""
        supervisor = Supervisor()
        supervisor.arm(fault)
        process = subprocess.Popen([*supervisor.prefix(), *command], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **supervisor.options())
        supervisor.attach(process.pid)
        output = process.communicate(timeout=30)
        supervisor.wait_end()
        self.struck, self.untried = supervisor.struck, supervisor.untried
        return process.returncode, output, supervisor.disarm()

    def call(self, name, creates=False):
        return Call(name, alike(str(self.file)), creates)

    def cat(self, *fault, **more):
        return self.run_under(Fault(*fault, **more) if fault else None, ["/bin/cat", str(self.file)])

    def test_without_a_fault_all_is_as_ever_and_every_call_is_seen(self):
        status, output, calls = self.cat()
        self.assertEqual((status, output), (0, ("0123456789" * 10, "")))
        self.assertEqual((calls[self.call("openat")], calls[self.call("read")]), (1, 2))
        self.assertIsNone(self.struck)

    def test_a_call_that_is_in_no_plan_is_told(self):
        for command, untried in (([sys.executable, "-c", f"import os; os.truncate({str(self.file)!r}, 5)"], {"truncate"}),
                                 ([sys.executable, "-c", f"open({str(self.file)!r}).close()"], set())):
            status, output, _ = self.run_under(None, command)
            self.assertEqual((status, output, self.untried), (0, ("", ""), untried))
        self.assertEqual(self.file.read_text(), "01234")

    def test_the_two_tables_have_no_call_in_common(self):
        self.assertFalse(system_calls.numbers().keys() & system_calls.untried().keys())

    def test_error_comes_at_its_call(self):
        status, output, _ = self.cat(self.call("openat"), 1, "EMFILE")
        self.assertEqual((status, self.struck), (1, self.call("openat")))
        self.assertIn("Too many open files", output[1])

    def test_second_call_of_a_kind(self):
        status, output, _ = self.cat(self.call("read"), 2, "EIO")
        self.assertEqual((status, output[0]), (1, "0123456789" * 10))

    def test_call_that_never_comes_strikes_nothing(self):
        status, _, _ = self.cat(self.call("read"), 3, "EIO")
        self.assertEqual((status, self.struck), (0, None))

    def test_short_reading_is_gone_on_with(self):
        status, output, calls = self.cat(self.call("read"), 1, "short")
        self.assertEqual((status, output[0]), (0, "0123456789" * 10))
        self.assertGreaterEqual(calls[self.call("read")], 2)
        self.assertIsNotNone(self.struck)

    def test_short_writing_leaves_half(self):
        code = "import os,sys; print(os.write(os.open(sys.argv[1], os.O_WRONLY | os.O_TRUNC), b'abcdef'))"
        status, output, _ = self.run_under(Fault(self.call("write"), 1, "short"), [sys.executable, "-c", code, str(self.file)])
        self.assertEqual((status, output[0], self.file.read_text()), (0, "3\n", "abc"))

    def test_killed_at_its_call_before_it_is_done(self):
        code = "import os,sys; os.unlink(sys.argv[1])"
        status, _, _ = self.run_under(Fault(self.call("unlink"), 1, "kill"), [sys.executable, "-c", code, str(self.file)])
        self.assertEqual(status, -9)
        self.assertTrue(self.file.exists())

    def test_lasting_error_comes_at_what_shares_its_cause(self):
        code = ("import os,sys\n"
                "for name in 'abc':\n"
                "    try: os.close(os.open(sys.argv[1] + name, os.O_CREAT | os.O_WRONLY)); print('made')\n"
                "    except OSError as error: print(error.errno)\n"
                "print(os.open(sys.argv[1], os.O_RDONLY) > 0)")
        second = Call("openat", alike(str(self.file)) + "b", True)
        _, output, _ = self.run_under(Fault(second, 1, "ENOSPC", lasting=True), [sys.executable, "-c", code, str(self.file)])
        self.assertEqual(output[0].split(), ["made", "28", "28", "True"])

    def test_children_are_left_alone(self):
        status, output, _ = self.run_under(Fault(self.call("openat"), 1, "EIO"), ["/bin/sh", "-c", f"/bin/cat {self.file}; true"])
        self.assertEqual((status, len(output[0]), self.struck), (0, 100, None))


class Points(unittest.TestCase):
    def test_each_call_is_tried_with_each_error_and_the_kill(self):
        faults = campaign.faults_of({Call("write", "/var/x"): 2})
        tried = {(fault.number, fault.what, fault.lasting) for fault in faults}
        for number in (1, 2):
            for what in ("ENOSPC", "EIO", "EINTR", "short", "kill"):
                self.assertIn((number, what, False), tried)
            self.assertIn((number, "ENOSPC", True), tried)

    def test_one_that_makes_a_file_may_find_no_room(self):
        def errors(creates):
            return {fault.what for fault in campaign.faults_of({Call("openat", "/var/x", creates): 1})}

        self.assertIn("ENOSPC", errors(True))
        self.assertNotIn("ENOSPC", errors(False))

    def test_of_many_alike_the_first_and_the_last_are_tried(self):
        most = campaign.MOST_OF_A_KIND
        self.assertEqual(campaign.numbers_tried(most, most), list(range(1, most + 1)))
        self.assertEqual(campaign.numbers_tried(most + 5, most), [*range(1, most), most + 5])


if __name__ == "__main__":
    unittest.main()
