"""Regions of clients that are mistaken or lie."""

import fcntl
import mmap
import os
import tempfile

import harness
from quorvix_client import LEAST_REGION_BYTES, TICKS_PER_SECOND, ticks_now

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
                child.say()
                harness.wait_until(lambda: False, seconds=120)
            child = cls.world.child(run)
            child.hear()
            cls.daemon.wait_line(f"({child.pid}) | {make.__name__}")
            cls.pids[make.__name__] = child.pid

        def kind(**options):
            def mark(function):
                function.options = options
                client_with(function)
            return mark

        past = ticks_now() - 60 * TICKS_PER_SECOND

        @kind(slot_count=0xFFFFFFFF)
        def liar(region):
            pass

        @kind(slot_count=21)
        def off_by_one_page(region):
            # The slot behind the last one is still in the mapping's page and reads as zeros: as work begun long ago.
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

        @kind()
        def hole(region):
            region.memory.madvise(mmap.MADV_REMOVE, 0, mmap.PAGESIZE)

        @kind(length=3 * mmap.PAGESIZE, slots=117)
        def hole_in_the_middle(region):
            region.begin(116, "behind the hole", past)
            for index in range(38, 80):
                region.words64[region.offset(index) // 8] = 0xFFFFFFFFFFFFFFFF
            region.memory.madvise(mmap.MADV_REMOVE, mmap.PAGESIZE, mmap.PAGESIZE)

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
        cls.daemon.wait_line("(the second of two)")

    def test_slot_count_of_all_ones_drops_the_process(self):
        self.daemon.wait_line(f"[platform] The hang channel of python3")
        self.daemon.wait_line(f"({self.pids['liar']}) can't be read: it is no longer watched")
        state = self.daemon.status()
        self.assertNotIn(self.pids["liar"], [process["pid"] for process in state["watched"]])
        self.assertEqual(state["counters"]["hangs"]["regionFaults"], 1)

    def test_the_others_stay_watched(self):
        watched = [process["pid"] for process in self.daemon.status()["watched"]]
        self.assertEqual(sorted(watched), sorted(pid for name, pid in self.pids.items() if name != "liar"))

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
