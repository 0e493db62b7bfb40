#!/usr/bin/env python3
"""The journal's catalogue: it explains every event that the daemon writes, and every reason."""
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
CATALOG = ROOT / "packaging/quorvix.catalog"
IDS = dict(re.findall(r'LogEventKind::(\w+): return "([0-9a-f]{32})"', (ROOT / "platform/linux/MessageIds.h").read_text()))


def entries():
    """id -> text."""
    parts = re.split(r"(?m)^-- ([0-9a-f]{32})$", CATALOG.read_text())
    return dict(zip(parts[1::2], parts[2::2]))


class Catalog(unittest.TestCase):
    def test_every_event_is_explained_and_nothing_else(self):
        self.assertEqual(len(IDS), 6)
        self.assertEqual(set(entries()), set(IDS.values()))

    def test_every_explanation_says_what_to_do(self):
        for name, number in IDS.items():
            text = entries()[number]
            self.assertRegex(text, r"\nSubject: \S", name)
            self.assertIn("What to do next", text, name)

    def test_the_pages_that_installed_files_name_are_installed(self):
        named = set()
        for file in [*ROOT.glob("packaging/**/*"), *ROOT.glob("ctl/*.cpp"), *ROOT.glob("man/*.in")]:
            if file.is_file():
                text = re.sub(r"(?m)^ *//.*$", "", file.read_text())
                self.assertNotRegex(text, r"(?<!/)docs/\w+\.md", file)
                named.update(re.findall(r"/usr/share/doc/quorvixd/([\w.-]+)", text))
        self.assertGreater(len(named), 2)
        for name in named:
            self.assertTrue((ROOT / "docs" / name).exists(), name)
        self.assertIn("docs/*.md", (ROOT / "debian/quorvixd.docs").read_text().split())

    def test_every_reason_is_explained_and_documented(self):
        sources = "".join(path.read_text() for path in (ROOT / "hang").glob("*.cpp"))
        reasons = set(re.findall(r'about\(LogEventKind::reportRefused,\s*"([a-z-]+)"', sources))
        self.assertGreater(len(reasons), 5)
        explained = set(re.findall(r"(?m)^([a-z]+-[a-z]+) {3,}", entries()[IDS["reportRefused"]]))
        self.assertEqual(explained, reasons)
        documented = (ROOT / "docs/logging.md").read_text()
        for reason in reasons:
            self.assertIn(f"`{reason}`", documented)

    def test_every_id_is_documented(self):
        documented = (ROOT / "docs/logging.md").read_text()
        for name, number in IDS.items():
            self.assertIn(f"`{number}`", documented, name)

    @unittest.skipUnless(shutil.which("journalctl"), "journalctl is not installed")
    def test_the_journal_takes_it(self):
        with tempfile.TemporaryDirectory() as root:
            folder = Path(root, "usr/lib/systemd/catalog")
            folder.mkdir(parents=True)
            Path(root, "var/lib/systemd/catalog").mkdir(parents=True)
            shutil.copy(CATALOG, folder)
            update = subprocess.run(["journalctl", f"--root={root}", "--update-catalog"], capture_output=True, text=True,
                                    check=False)
            self.assertEqual((update.returncode, update.stderr), (0, ""))
            listed = subprocess.run(["journalctl", f"--root={root}", "--list-catalog"], capture_output=True, text=True,
                                    check=False).stdout
            for number in IDS.values():
                self.assertIn(number, listed)


if __name__ == "__main__":
    unittest.main()
