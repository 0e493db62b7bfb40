#!/usr/bin/env python3
"""The library's reference: it is made without a word of complaint, and has every function that the library exports."""
import re
import shutil
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
HEADERS = [*(ROOT / "client").glob("quorvix*.h"), *(ROOT / "client").glob("quorvix*.hpp"),
           ROOT / "platform/quorvix_ticks.h", ROOT / "platform/quorvix_channel.h", ROOT / "platform/swivex.h"]


def exported():
    names = re.search(r"global:(.*?)local:", (ROOT / "client/libquorvix.map").read_text(), re.S)[1]
    return set(re.findall(r"\w+", names))


def installed_headers():
    text = re.search(r"set\(QUORVIX_CLIENT_HEADERS(.*?)\)\n", (ROOT / "client/CMakeLists.txt").read_text(), re.S)[1]
    # The trace library's part of the build installs its one header by itself.
    text += "".join(re.findall(r"install\(FILES (.*?)\)", (ROOT / "swivex/CMakeLists.txt").read_text(), re.S))
    return {Path(name).name for name in re.findall(r"[\w./]+\.hp*", text)}


@unittest.skipUnless(shutil.which("doxygen"), "doxygen is not installed")
class Reference(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tree = Path(folder.name)
        for path in [*HEADERS, *(ROOT / "docs/api").iterdir()]:
            copy = self.tree / path.relative_to(ROOT)
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(path, copy)
        (self.tree / "build/docs").mkdir(parents=True)

    def make(self):
        return subprocess.run(["doxygen", "docs/api/Doxyfile"], cwd=self.tree, capture_output=True, text=True, check=False)

    def documented(self, kind):
        """Names of this kind -> the file that describes them."""
        tags = xml.etree.ElementTree.parse(self.tree / "build/docs/api.tag")
        return {member.findtext("name"): member.findtext("anchorfile")
                for member in tags.iterfind(f".//member[@kind='{kind}']")}

    def test_it_is_made_without_complaint(self):
        result = self.make()
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertTrue((self.tree / "build/docs/api/index.html").exists())

    def test_it_has_every_function_that_the_library_exports(self):
        self.make()
        functions = self.documented("function")
        self.assertGreater(len(exported()), 20)
        self.assertEqual(exported() - set(functions), set())
        for name in exported():
            page = (self.tree / "build/docs/api" / functions[name]).read_text()
            # Its place among the described ones, not only its declaration in the list.
            self.assertTrue(f"</span>{name}()</h2>" in page, name)

    def test_it_has_what_headers_alone_have(self):
        self.make()
        self.assertLessEqual({"quorvix_begin", "quorvix_end", "quorvix_poll", "quorvix_ticks_now", "quorvix_glib_watch_attach",
                              "begin", "adopt", "error", "QtWatch"}, set(self.documented("function")))
        self.assertLessEqual({"QUORVIX_WATCH_SAVE_REPORT", "QUORVIX_CHANNEL_VERSION"}, set(self.documented("define")))

    def test_it_has_every_header_that_is_installed(self):
        self.make()
        tags = xml.etree.ElementTree.parse(self.tree / "build/docs/api.tag")
        files = {compound.findtext("name") for compound in tags.iterfind("compound[@kind='file']")}
        self.assertEqual(files, installed_headers())

    def assert_refused(self, header, words, instead):
        path = self.tree / header
        text = path.read_text()
        self.assertIn(words, text)
        path.write_text(text.replace(words, instead, 1))
        result = self.make()
        self.assertNotEqual(result.returncode, 0)
        self.assertIn(path.name, result.stderr)

    def test_a_function_without_words_is_refused(self):
        self.assert_refused("client/quorvix.h", "/**\n * Makes an empty message.", "/*\n * Makes an empty message.")

    def test_a_result_without_words_is_refused(self):
        self.assert_refused("client/quorvix.h", " * @return the watch, never NULL.", " * the watch, never NULL.")

    def test_a_parameter_without_words_is_refused(self):
        self.assert_refused("client/quorvix_poll.h", " * @param count ", " * count ")

    def test_a_member_without_words_is_refused(self):
        self.assert_refused("client/quorvix.hpp", "    /** A unit of work starts now: quorvix_begin(). On the watch's own thread. */\n", "")


if __name__ == "__main__":
    unittest.main()
