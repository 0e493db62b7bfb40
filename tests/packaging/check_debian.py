#!/usr/bin/env python3
"""The packages' own texts: what they need to be built, who takes what, and that the same things are said everywhere."""
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
# Not a matter of the packages: compilers come with what builds packages, these are tools of the tree.
TOOLS_OF_THE_TREE = {"g++", "ccache", "git", "python3"}


def build_packages():
    """What ./dev installs for a build."""
    text = re.search(r"BUILD_PACKAGES=\(([^)]*)\)", (ROOT / "dev").read_text())[1]
    return set(text.split()) - TOOLS_OF_THE_TREE


def build_dependencies():
    text = re.search(r"Build-Depends:((?:.*\n)(?: .*\n)*)", (ROOT / "debian/control").read_text())[1]
    return {re.split(r"[ (<:]", entry.strip())[0] for entry in text.split(",")}


class Debian(unittest.TestCase):
    maxDiff = None

    def share_out(self, *files):
        """Runs the script on an installation of these files; its status and file -> package."""
        with tempfile.TemporaryDirectory() as folder:
            root = Path(folder)
            (root / "debian").mkdir()
            for name in files:
                path = root / "debian/tmp" / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text("")
            status = subprocess.run([ROOT / "debian/share-out"], cwd=root, capture_output=True, check=False).returncode
            found = [path.relative_to(root / "debian") for path in root.glob("debian/*/**/*") if path.is_file()]
            return status, {"/".join(path.parts[1:]): path.parts[0] for path in found if path.parts[0] != "tmp"}

    def test_what_the_tree_needs_for_a_build_the_packages_need_too(self):
        self.assertGreater(len(build_packages()), 5)
        self.assertEqual(build_packages() - build_dependencies(), set())

    def test_every_file_has_its_package(self):
        lib = "usr/lib/x86_64-linux-gnu"
        status, taken = self.share_out("usr/sbin/quorvixd", "usr/sbin/quorvixctl", "usr/lib/libswivex.dylib",
                                       "usr/lib/systemd/system/quorvixd.service", f"{lib}/libquorvix.so.0",
                                       f"{lib}/libquorvix.so", "usr/include/quorvix.h", "usr/share/man/man1/quorvixctl.1",
                                       "usr/share/man/man3/libquorvix.3", "usr/share/man/man5/quorvix-counters.5",
                                       "usr/share/bash-completion/completions/quorvixctl")
        self.assertEqual(status, 0)
        self.assertEqual(taken, {
            "usr/sbin/quorvixd": "quorvixd", "usr/sbin/quorvixctl": "quorvix-tools", "usr/lib/libswivex.dylib": "quorvixd",
            "lib/systemd/system/quorvixd.service": "quorvixd", f"{lib}/libquorvix.so.0": "libquorvix0",
            f"{lib}/libquorvix.so": "libquorvix-dev", "usr/include/quorvix.h": "libquorvix-dev",
            "usr/share/man/man1/quorvixctl.1": "quorvix-tools", "usr/share/man/man3/libquorvix.3": "libquorvix-dev",
            "usr/share/man/man5/quorvix-counters.5": "quorvixd",
            "usr/share/bash-completion/completions/quorvixctl": "quorvix-tools"})

    def test_a_file_that_no_package_takes_ends_the_build(self):
        status, _ = self.share_out("usr/sbin/quorvixd", "usr/games/quorvix")
        self.assertNotEqual(status, 0)

    def test_the_version_is_the_trees(self):
        tree = re.search(r"project\(quorvix VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())[1]
        self.assertTrue((ROOT / "debian/changelog").read_text().startswith(f"quorvix ({tree})"))


if __name__ == "__main__":
    unittest.main()
