"""Regions of clients that are mistaken or lie."""

import fcntl
import mmap
import os
import tempfile

import harness
from quorvix_client import LEAST_REGION_BYTES, TICKS_PER_SECOND, ticks_now

PROGRAM = os.path.basename(os.path.realpath("/proc/self/exe"))
WATCHED = "Initialization complete now watching hangs for "


class Refused(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        self.daemon = self.world.start()
        self.client = self.world.client()

    def refuse(self, line, region):
        before = self.daemon.count_lines(line)
        self.client.start_watching(region)
        harness.wait_until(lambda: self.daemon.count_lines(line) > before, what=f"line {line!r}")
        self.assertEqual(self.daemon.platform("regions")["mappings"], 0)
        self.assertFalse(self.daemon.has_line(WATCHED))

    def accept(self, region):
        self.client.start_watching(region)
        self.daemon.wait_line(WATCHED)

    def refuse_descriptor(self, descriptor):
        class Bare:
            pass

        bare = Bare()
        bare.descriptor = descriptor
        self.refuse("<default> Something wrong w/shmem", bare)

    def test_every_length_that_is_too_small(self):
        for length in range(1, LEAST_REGION_BYTES):
            region = harness.Region(length=length, slots=0)
            self.client.start_watching(region)
            region.close()
        self.daemon.wait_line(f"smaller than expected: {LEAST_REGION_BYTES - 1} < {LEAST_REGION_BYTES}")
        self.assertEqual(self.daemon.count_lines("<default> Shared memory region smaller than expected: "), LEAST_REGION_BYTES - 1)
        self.assertEqual(self.daemon.platform("regions")["mappings"], 0)
        self.accept(self.world.region())

    def test_unsealed(self):
        self.refuse("<default> Something wrong w/shmem", self.world.region(seals=0))

    def test_sealed_against_writing(self):
        descriptor = os.memfd_create("read only", os.MFD_ALLOW_SEALING)
        self.addCleanup(os.close, descriptor)
        os.ftruncate(descriptor, LEAST_REGION_BYTES)
        fcntl.fcntl(descriptor, fcntl.F_ADD_SEALS, fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_WRITE)
        self.refuse_descriptor(descriptor)

    def test_longest_and_one_byte_more(self):
        self.refuse("<default> Something wrong w/shmem", self.world.region(length=(1 << 20) + 1))
        self.accept(self.world.region(length=1 << 20))

    def test_empty(self):
        descriptor = os.memfd_create("empty", os.MFD_ALLOW_SEALING)
        self.addCleanup(os.close, descriptor)
        fcntl.fcntl(descriptor, fcntl.F_ADD_SEALS, fcntl.F_SEAL_SHRINK)
        self.refuse_descriptor(descriptor)

    def test_opened_for_reading_only(self):
        descriptor = os.open(f"/proc/self/fd/{self.world.region().descriptor}", os.O_RDONLY)
        self.addCleanup(os.close, descriptor)
        self.refuse_descriptor(descriptor)

    def test_ordinary_files_pipes_sockets_and_devices(self):
        with tempfile.TemporaryFile() as file, open("/dev/zero", "rb+", buffering=0) as device:
            file.truncate(LEAST_REGION_BYTES)
            pipe = os.pipe()
            for descriptor in (file.fileno(), device.fileno(), self.client.socket.fileno(), *pipe):
                self.refuse_descriptor(descriptor)
            for descriptor in pipe:
                os.close(descriptor)

    def test_versions_3_and_5(self):
        for version in (3, 5, 0, 0xFFFFFFFF):
            self.refuse(f"<default> Client is not vending the current protocol version: {version}", self.world.region(version=version))
        self.accept(self.world.region())

    def test_a_region_in_use_cannot_be_truncated(self):
        region = self.world.region()
        self.accept(region)
        for length in (0, LEAST_REGION_BYTES - 1):
            with self.assertRaises(PermissionError):
                os.ftruncate(region.descriptor, length)


class WhatTheTickFinds(harness.SharedWorldTest):
    """Clients of one daemon, each with its own region; all are looked at by the same tick."""

    @classmethod
    def arrange(cls):
        cls.daemon = cls.world.start()
        cls.pids = {}

        def client_with(make):
            def run(child):
                client = harness.Client().connect()
                region = harness.Region(**make.options)
                make(region)
                client.start_watching(region, make.__name__)
                child.wait_for_go()
                make.late(region)
                child.say()
                child.wait_for_end()
            child = cls.world.child(run)
            cls.daemon.wait_line(f"({child.pid}) | {make.__name__}")
            child.go()
            child.hear()
            cls.pids[make.__name__] = child.pid

        def kind(late=lambda region: None, **options):
            """Runs a client whose region is made so, and changed by late() when the daemon watches it."""
            def mark(function):
                function.late, function.options = late, options
                client_with(function)
            return mark

        past = ticks_now() - 60 * TICKS_PER_SECOND

        @kind(slot_count=0xFFFFFFFF, length=mmap.PAGESIZE, slots=39)
        def liar(region):
            # Also what fits of slot 39 says inactive: the walk goes on behind the mapping.
            region.words32[(region.offset(39) + 16) // 4] = 1

        @kind(slot_count=21)
        def one_slot_too_many(region):
            # It lies in the mapping's last page and reads as zeros: as work without a name, begun long ago.
            pass

        @kind()
        def endless_name(region):
            region.words64[harness.Region.offset(1) // 8] = 0x4242424242424242
            region.begin(0, "", past)
            region.memory[48:112] = b"A" * 64

        @kind()
        def endless_last_name(region):
            region.begin(19, "", past)
            region.memory[-64:] = b"Z" * 64

        @kind(late=lambda region: region.memory.madvise(mmap.MADV_REMOVE, 0, mmap.PAGESIZE))
        def hole(region):
            region.begin(0, "in the hole", ticks_now() + TICKS_PER_SECOND * 3600)

        @kind(late=lambda region: region.memory.madvise(mmap.MADV_REMOVE, 2 * mmap.PAGESIZE, mmap.PAGESIZE), slots=117)
        def hole_behind(region):
            region.begin(1, "before the hole", past)

        @kind()
        def two_hangs(region):
            region.begin(3, "the first of two", past)
            region.begin(7, "the second of two", past)

        @kind()
        def in_time(region):
            region.begin(0, "begun just now", ticks_now() + 3600 * TICKS_PER_SECOND)

        @kind()
        def honest(region):
            region.begin(0, "the honest one", past)

        cls.daemon.wait_line("(the honest one)")
        cls.daemon.wait_line("(before the hole)")
        cls.daemon.wait_line("(the second of two)")

    def test_slot_count_of_all_ones_drops_the_process(self):
        self.daemon.wait_line(f"<default> [platform] The hang channel of {PROGRAM}({self.pids['liar']}) can't be read: it is no longer watched")
        state = self.daemon.status()
        self.assertNotIn(self.pids["liar"], [process["pid"] for process in state["watched"]])
        self.assertEqual(state["counters"]["hangs"]["regionFaults"], 1)

    def test_the_others_stay_watched(self):
        watched = [process["pid"] for process in self.daemon.status()["watched"]]
        self.assertEqual(sorted(watched), sorted(pid for name, pid in self.pids.items() if name != "liar"))

    def test_slot_behind_the_region_is_read_as_it_lies_there(self):
        self.daemon.wait_line(": Hang detected ")
        self.assertTrue(self.daemon.has_line("s ()"))

    def test_name_without_a_nul_ends_at_the_next_one(self):
        self.daemon.wait_line("s (" + "A" * 64 + "B" * 8 + ")")

    def test_name_without_a_nul_ends_with_the_mapping(self):
        self.daemon.wait_line("s (" + "Z" * 64 + ")")

    def test_hole_reads_as_zeros(self):
        self.assertIn(self.pids["hole"], [process["pid"] for process in self.daemon.status()["watched"]])

    def test_one_hang_a_check_the_lower_slot_first(self):
        lines = [line for line in self.daemon.log() if "of two)" in line]
        self.assertEqual([line.split("(")[-1] for line in lines], ["the first of two)", "the second of two)"])

    def test_work_that_has_just_begun_is_left_alone(self):
        self.assertFalse(self.daemon.has_line("begun just now"))
