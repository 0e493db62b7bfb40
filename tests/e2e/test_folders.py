"""Report folders that are missing, read-only, full or no folders, when the daemon starts and while it runs."""

import os
import pathlib
import shutil

import harness

PROGRAM = os.path.basename(os.path.realpath("/proc/self/exe"))
NO_FILE = f"<default> {PROGRAM}: Could not create file - won't take a swivex: "
NOT_MOVED = f"<default> {PROGRAM}: Unable to move swivex to final path: "
NOT_WRITTEN = f"<default> {PROGRAM}: Unable to save swivex data to file.\\n"
WRITTEN = f"<info> {PROGRAM} Log credits: "


class Folders(harness.DaemonTest):
    def start(self):
        self.daemon = self.world.start_reporting()
        self.client = self.world.watched_client(self.daemon)
        self.hangs = 0

    def hang(self, line, contains=""):
        """One hang with a report wished for, that ends in this line; no two have the same name."""
        before = self.daemon.count_lines(line)
        self.hangs += 1
        self.client.hang_detected(f"work {self.hangs}", save_report=True)
        harness.wait_until(lambda: self.daemon.count_lines(line) > before, what=f"line {line!r}")
        self.assertTrue(self.daemon.has_line(contains), contains)

    def replace(self, folder, make=lambda folder: None):
        shutil.rmtree(folder)
        make(folder)


class AtStartUp(Folders):
    def test_missing_ones_are_made(self):
        self.start()
        for folder in (harness.CACHES, harness.TMP, harness.SPOOL):
            self.assertTrue(self.daemon.has_line(f"<info> Create log directory: {folder}"))
        self.hang(WRITTEN)

    def test_existing_ones_make_no_line(self):
        for folder in (harness.TMP, harness.SPOOL):
            folder.mkdir(parents=True)
        self.start()
        self.assertFalse(self.daemon.has_line("log directory"))

    def test_files_in_their_place_are_replaced(self):
        harness.CACHES.mkdir()
        harness.TMP.write_text("a file")
        harness.SPOOL.symlink_to("/nowhere")
        self.start()
        self.assertTrue(harness.TMP.is_dir())
        self.assertFalse(self.daemon.has_line("Unable to remove previous non-directory"))
        # A link that leads nowhere is no file that stat() finds, and mkdir() does not follow it.
        self.assertTrue(self.daemon.has_line(f"<default> Cannot create spool directory - {harness.SPOOL} failed with File exists - continuing anyway."))
        self.hang(NOT_MOVED)

    def test_file_in_place_of_the_first_folder(self):
        harness.CACHES.write_text("a file")
        self.start()
        self.assertTrue(harness.SPOOL.is_dir())
        self.hang(WRITTEN)

    def test_file_that_cannot_be_removed(self):
        self.world.mount_memory(harness.CACHES, "mode=0755")
        harness.TMP.write_text("a file")
        self.world.remount_read_only(harness.CACHES)
        self.start()
        self.assertTrue(self.daemon.has_line(f"<default> Unable to remove previous non-directory at {harness.TMP}"))
        self.assertTrue(self.daemon.has_line(f"<default> Cannot create spool directory - {harness.TMP} failed with File exists - continuing anyway."))
        self.hang(NO_FILE, "Not a directory")

    def test_read_only_parent(self):
        self.world.mount_memory(harness.CACHES.parent, "mode=0755,ro")
        self.start()
        self.assertTrue(self.daemon.has_line(f"<default> Cannot create spool directory - {harness.CACHES} failed with Read-only file system - continuing anyway."))
        for folder in (harness.TMP, harness.SPOOL):
            self.assertTrue(self.daemon.has_line(f"<default> Cannot create spool directory - {folder} failed with No such file or directory - continuing anyway."))
        self.hang(NO_FILE, "No such file or directory")

    def test_missing_parent(self):
        shutil.rmtree("/var/root")
        self.start()
        self.assertEqual(self.daemon.count_lines("failed with No such file or directory - continuing anyway."), 3)
        self.hang(NO_FILE)

    def test_read_only_tmp(self):
        self.world.mount_memory(harness.TMP, "mode=0755,ro")
        self.start()
        self.hang(NO_FILE, "Read-only file system")


class WhileRunning(Folders):
    def setUp(self):
        super().setUp()
        # A small file system of its own for both, so that a report can be moved and the place can run out.
        self.world.mount_memory(harness.CACHES, "mode=0755,size=64k,nr_inodes=16")
        self.start()

    def test_tmp_goes_and_comes_back(self):
        self.replace(harness.TMP)
        self.hang(NO_FILE, "No such file or directory")
        harness.TMP.mkdir()
        self.hang(WRITTEN)

    def test_spool_goes_and_comes_back(self):
        self.replace(harness.SPOOL)
        self.hang(NOT_MOVED + "No such file or directory")
        self.assertTrue(self.daemon.has_line(f"{WRITTEN}4 -> 3"))
        harness.SPOOL.mkdir()
        self.hang(WRITTEN)
        self.assertEqual(len(harness.reports()), 1)

    def test_tmp_becomes_a_file(self):
        self.replace(harness.TMP, pathlib.Path.touch)
        self.hang(NO_FILE, "Not a directory")

    def test_spool_becomes_a_file(self):
        self.replace(harness.SPOOL, pathlib.Path.touch)
        self.hang(NOT_MOVED + "Not a directory")

    def test_all_becomes_read_only(self):
        self.world.remount_read_only(harness.CACHES)
        self.hang(NO_FILE, "Read-only file system")

    def test_spool_on_another_file_system(self):
        self.world.mount_memory(harness.SPOOL, "mode=0755,ro")
        self.hang(NOT_MOVED)

    def test_no_place_for_a_file(self):
        filler = 0
        try:
            while True:
                (harness.CACHES / f"filler {filler}").touch()
                filler += 1
        except OSError:
            pass
        self.hang(NO_FILE, "No space left on device")
        (harness.CACHES / "filler 0").unlink()
        self.hang(WRITTEN)

    def test_no_place_for_a_files_bytes(self):
        filler = harness.CACHES / "filler"
        try:
            with open(filler, "wb", buffering=0) as file:
                while True:
                    file.write(bytes(4096))
        except OSError:
            pass
        self.hang(NOT_WRITTEN)
        self.assertEqual(self.daemon.status()["appCredits"], {})
        filler.unlink()
        self.hang(WRITTEN)
        self.assertTrue(harness.reports()[0].read_text().endswith("end\n"))
