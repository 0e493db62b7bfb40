#!/usr/bin/env python3
"""The page of "quorvixctl report html" in a real browser, headless: what is seen, heard by a reader's software, and reached
with keys alone.

The pages are made by the tool that was built, of reports that the tests write and, where the kernel's tracing and a file
system of one's own can be had, of a hang, launches and a leak that the demo brings about. Pictures of them go to
build/viewer-pictures.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import browser
import samples

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("QUORVIX_BUILD", ROOT / "build/release")).resolve()
TOOL = BUILD / "bin/quorvixctl"
PICTURES = ROOT / "build/viewer-pictures"
WIDTHS = {"desk": 1200, "phone": 360}

# The least contrast of any text that can be seen, with the text. Colours are blended over what lies behind them.
CONTRASTS = """
const parts = (colour) => { const found = colour.match(/[\\d.]+/g).map(Number); return found.length < 4 ? [...found, 1] : found; };
const over = (top, below) => [0, 1, 2].map((at) => top[at] * top[3] + below[at] * (1 - top[3])).concat(1);
const light = ([red, green, blue]) => {
  const [r, g, b] = [red, green, blue].map((value) => { const c = value / 255; return c <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4; });
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
};
const behind = (element) => {
  const layers = [];
  for (let at = element; at; at = at.parentElement) layers.push(parts(getComputedStyle(at).backgroundColor));
  return layers.reverse().reduce((below, layer) => over(layer, below), [255, 255, 255, 1]);
};
const found = [];
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
while (walker.nextNode()) {
  const element = walker.currentNode.parentElement;
  if (!walker.currentNode.textContent.trim() || element.closest("script, .hidden-text, .skip, [hidden], noscript")) continue;
  if (!element.checkVisibility()) continue;
  const back = behind(element);
  const [one, other] = [light(over(parts(getComputedStyle(element).color), back)), light(back)].sort((a, b) => b - a);
  found.push([(one + 0.05) / (other + 0.05), walker.currentNode.textContent.slice(0, 40)]);
}
found.sort((a, b) => a[0] - b[0]);
return { texts: found.length, least: found[0] };
"""
# What reaches beyond the page's right edge.
OVERFLOWING = """
return [...document.body.querySelectorAll("*")].filter((element) => element.checkVisibility() && !element.closest(".hidden-text, .skip, thead")
  && element.getBoundingClientRect().right > innerWidth + 1).map((element) => element.outerHTML.slice(0, 120));
"""


def make_page(page, source, *options):
    subprocess.run([TOOL, "report", "html", source, "--output", page, *options], check=True, capture_output=True, text=True)
    return page


def setUpModule():
    if browser.why_not():
        raise unittest.SkipTest(browser.why_not())
    PICTURES.mkdir(parents=True, exist_ok=True)


class Page(unittest.TestCase):
    """One browser for all the tests of a class; every test must leave it without an error and a request."""

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.make()
        cls.browser = browser.Browser()
        cls.addClassCleanup(cls.browser.close)
        cls.browser.open(cls.page)

    def setUp(self):
        self.browser.look()
        self.browser.errors()
        self.browser.requests()

    def tearDown(self):
        self.assertEqual(self.browser.errors(), [])
        asked = set(self.browser.requests())
        self.assertLessEqual({address.partition("#")[0] for address in asked}, {self.page.resolve().as_uri(), "about:blank"})

    def text(self, selector="body"):
        return self.browser.run("return document.querySelector(arguments[0]).innerText", selector)

    def focus(self):
        return self.browser.run("return document.activeElement.getAttribute('href') || document.activeElement.innerText")

    def address(self):
        return self.browser.run("return location.hash")

    def check_looks(self, anchor, name):
        for scheme in ("light", "dark"):
            for device, width in WIDTHS.items():
                with self.subTest(scheme=scheme, device=device):
                    self.browser.look(scheme, width)
                    self.browser.open(self.page, anchor)
                    self.browser.run("for (const part of document.querySelectorAll('details')) part.open = true")
                    self.browser.picture(PICTURES / f"{name}-{scheme}-{device}.png")
                    self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)
                    self.assertEqual(self.browser.run(OVERFLOWING), [])
                    contrast = self.browser.run(CONTRASTS)
                    self.assertGreater(contrast["texts"], 20)
                    self.assertGreaterEqual(contrast["least"][0], 4.5, contrast["least"][1])


class Folder(Page):
    @classmethod
    def make(cls):
        spool, memory = cls.folder / "spool", cls.folder / "memory"
        spool.mkdir()
        memory.mkdir()
        samples.folder_of_all_causes(spool)
        for hour in range(3):
            (memory / f"memory-snapshot-2026-01-15-1{hour}0000.ips").write_text(
                samples.snapshot(f"2026-01-15-1{hour}0000", {samples.HOSTILE: 100 + 1000 * hour, "steady": 7}))
        cls.page = make_page(cls.folder / "page.html", spool, "--memory-reports", memory, "--power-log", cls.folder / "none.db")

    def items(self):
        """The list's links, the newest first."""
        return self.browser.run("return [...document.querySelectorAll('.list a')].map((item) => item.getAttribute('href'))")

    def open_cause(self, cause):
        index = self.browser.run("const data = JSON.parse(document.getElementById('data').textContent);"
                                 "return data.hangs.findIndex((hang) => hang.cause === arguments[0])", cause)
        self.browser.open(self.page, f"#hang-{index}")

    def test_the_list_looks_right_in_both_schemes_and_on_a_phone(self):
        self.check_looks("", "folder")

    def test_a_hang_looks_right_in_both_schemes_and_on_a_phone(self):
        self.check_looks("#hang-2", "hang")

    def test_hostile_names_are_text(self):
        self.browser.open(self.page)
        self.assertIn("<_script><img src=x onerror=alert(1)>", self.text("#hangs"))
        self.assertIn(samples.HOSTILE, self.text("#memory"))
        self.assertIn("broken <b>.swivex", self.text("#hangs"))
        self.open_cause("blocked")
        self.assertIn(samples.HOSTILE, self.text(".facts"))
        self.assertIn("<b>\\xff\\xfe&lt;\\u202e\\x1b[2J</b>", self.text("#hangs"))
        self.assertEqual(self.browser.run("return document.querySelectorAll('img, b:not(.bar b), iframe').length"), 0)
        self.assertEqual(self.browser.run("return document.scripts.length"), 2)

    def test_a_script_that_got_into_the_page_would_not_run(self):
        """The page's own policy, should anything else have failed: a script put into it is refused, and said to be."""
        hurt = self.folder / "hurt.html"
        hurt.write_text(self.page.read_text().replace("</main>", "<script>document.title = 'taken'</script></main>"))
        self.browser.open(hurt)
        self.assertNotEqual(self.browser.run("return document.title"), "taken")
        self.assertEqual(len([line for line in self.browser.errors() if "Content Security Policy" in line]), 1)
        self.browser.requests()

    def test_keys_alone_walk_through_the_list_open_a_hang_and_come_back(self):
        self.browser.open(self.page)
        items = self.items()
        self.assertEqual(len(items), 6)
        for _ in range(12):
            self.browser.press("Tab")
            if self.focus() == items[0]:
                break
        self.assertEqual(self.focus(), items[0], "the list was not reached with Tab")
        outline = self.browser.run("const style = getComputedStyle(document.activeElement); return [style.outlineStyle, style.outlineWidth]")
        self.assertEqual(outline, ["solid", "3px"])
        self.browser.press("Down", "Down")
        self.assertEqual(self.focus(), items[2])
        self.browser.press("End", "Down")
        self.assertEqual(self.focus(), items[-1])
        self.browser.press("Home", "Up", "Down")
        self.assertEqual(self.focus(), items[1])
        self.browser.press("Enter")
        self.assertEqual(self.address(), items[1])
        self.assertIn(" hung for ", self.focus())
        self.assertIn(" hung for ", self.browser.run("return document.title"))
        self.browser.press("Escape")
        self.assertEqual(self.address(), "#hangs")
        self.assertEqual(self.focus(), items[1])
        # The list is one stop: the next Tab leaves it.
        self.browser.press("Tab")
        self.assertNotIn(self.focus(), items)

    def test_keys_alone_walk_through_the_flame_graph(self):
        self.open_cause("blocked")
        for _ in range(20):
            self.browser.press("Tab")
            if self.focus() == "all threads":
                break
        self.assertEqual(self.focus(), "all threads")
        self.browser.press("Up", "Up")
        self.assertEqual(self.focus(), f"outer {samples.HOSTILE}")
        self.assertIn("main (50)", self.text(".flame-told"))
        self.browser.press("Right")
        self.assertEqual(self.focus(), "<b>\\xff\\xfe&lt;\\u202e\\x1b[2J</b>")
        self.browser.press("Left", "Up", "Enter")
        width = "return document.activeElement.offsetWidth / document.querySelector('.flame').offsetWidth"
        self.assertEqual(self.focus(), "futex_wait")
        self.assertGreater(self.browser.run(width), 0.98)
        self.browser.press("Escape")
        self.assertLess(self.browser.run(width), 0.52)
        self.assertTrue(self.address().startswith("#hang-"))
        self.browser.press("Escape")
        self.assertEqual(self.address(), "#hangs")

    def test_every_verdict_has_a_word_and_a_shape_of_its_own(self):
        self.browser.open(self.page)
        shapes = self.browser.run("return [...document.querySelectorAll('.list .mark path')].map((path) => path.getAttribute('d'))")
        self.assertEqual(len(set(shapes)), 6)
        for word in ("Busy", "Starved", "Blocked", "Waited for a device", "Stopped", "Unknown"):
            self.assertIn(word, self.text(".list"))

    def test_states_differ_without_their_colours(self):
        drawn = set()
        for cause in ("busy", "starved", "blocked", "io", "stopped"):
            self.open_cause(cause)
            drawn.add(tuple(self.browser.run(
                "const strip = document.querySelector('.thread .strip'), most = [...strip.children].sort((a, b) => b.offsetWidth - a.offsetWidth)[0];"
                "return [most.offsetHeight, getComputedStyle(most).backgroundImage.replace(/rgba?\\([^)]*\\)/g, '')]")))
        self.assertEqual(len(drawn), 5)

    def test_a_report_without_a_recorder_says_so_and_why_the_verdict_is_unknown(self):
        self.open_cause("unknown")
        text = self.text("#hangs")
        self.assertIn("The flight recorder was off", text)
        self.assertIn("only 0.0 % of the hang is known", text)
        self.assertIn("No wait is known.", text)

    def test_what_is_not_there_is_said_in_words(self):
        self.browser.open(self.page)
        self.assertIn("No launches are shown: no activation was stored yet", self.text("#launches"))

    def test_memory_tells_what_grew(self):
        self.browser.open(self.page)
        rows = self.browser.run("return [...document.querySelectorAll('#memory table tbody tr')].map((row) => row.innerText)")
        self.assertEqual(len(rows), 1)
        self.assertIn("+7.8 MiB", rows[0])

    def test_motion_that_is_not_wanted_is_left_out(self):
        for motion, behaviour in (("no-preference", "smooth"), ("reduce", "auto")):
            self.browser.look(motion=motion)
            self.browser.open(self.page)
            self.assertEqual(self.browser.run("return getComputedStyle(document.documentElement).scrollBehavior"), behaviour)

    def test_every_control_and_picture_has_a_name(self):
        for anchor in ("", "#hang-2"):
            self.browser.open(self.page, anchor)
            nodes = self.browser.protocol("Accessibility.getFullAXTree")["nodes"]
            roles = [(node["role"]["value"], node.get("name", {}).get("value", "")) for node in nodes if not node["ignored"]]
            named = [(role, name) for role, name in roles if role in ("link", "button", "image", "searchbox", "region", "table", "list")]
            self.assertGreater(len(named), 10)
            self.assertEqual([role for role, name in named if not name and role != "list"], [])


class ManyHangs(Page):
    @classmethod
    def make(cls):
        spool = cls.folder / "spool"
        spool.mkdir()
        for at in range(100):
            (spool / f"{at}.swivex").write_bytes(samples.report(f"app-{at % 40}", samples.BEGAN + 7919 * at, 6, ["busy", "io"][at % 2]))
        cls.page = make_page(cls.folder / "page.html", spool, "--memory-reports", cls.folder)

    def test_a_hundred_hangs_can_be_filtered_and_are_readable_on_a_phone(self):
        self.browser.look("light", 360)
        self.browser.open(self.page)
        self.browser.picture(PICTURES / "many-light-phone.png")
        self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), 360)
        self.browser.run("document.getElementById('filter').focus()")
        self.browser.press(*"APP-17")
        left = self.browser.run("return [...document.querySelectorAll('.list li')].filter((item) => item.checkVisibility()).length")
        self.assertEqual(left, 3)
        self.assertIn("3 of 100", self.text(".tools"))

    def test_a_page_of_a_hundred_hangs_stays_small(self):
        self.assertLess(self.page.stat().st_size, 4 << 20)


class RealReport(Page):
    """Of a hang, launches and a leak that the demo brings about on this machine."""

    @classmethod
    def make(cls):
        source = cls.folder / "real"
        for job in ("blocked", "launch", "memory"):
            # Under the tree: a file system of its own has no other folder of the host to write to.
            into = ROOT / "build/viewer-pictures/real"
            into.mkdir(parents=True, exist_ok=True)
            done = subprocess.run([ROOT / "demo/private-root", "python3", "-B", str(ROOT / "tests/viewer/real_data.py"), job, str(BUILD), str(into)],
                                  cwd=ROOT, capture_output=True, text=True, timeout=300)
            if done.returncode == 77:
                raise unittest.SkipTest(done.stderr.strip().splitlines()[-1])
            if done.returncode != 0:
                raise AssertionError(done.stdout[-4000:] + done.stderr[-4000:])
        shutil.move(into, source)
        report = next((source / "spool").glob("*.swivex"))
        cls.page = make_page(cls.folder / "page.html", report, "--memory-reports", source / "memory", "--power-log", source / "wattrel.db")

    def test_it_looks_right_in_both_schemes_and_on_a_phone(self):
        self.check_looks("", "real")

    def test_it_tells_the_verdict_the_launches_and_what_leaked(self):
        self.browser.open(self.page)
        self.assertEqual(self.text(".verdict h2"), "Blocked")
        self.assertIn("quorvix_hanging_app hung for", self.text("h1"))
        self.assertIn("com.example.launched", self.text("#launches"))
        self.assertIn("leaky-app", self.text("#memory"))
        self.assertGreater(self.browser.run("return document.querySelectorAll('.flame button').length"), 10)


if __name__ == "__main__":
    unittest.main()
