#!/usr/bin/env python3
"""The exported counters, the alert rules and the dashboard, with Prometheus's own tools; and the whole way: the daemon
counts a hang, the node exporter reads the file, a Prometheus on loopback scrapes it and answers for it."""
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import urllib.request
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("QUORVIX_BUILD", ROOT / "build" / "release"))
RULES = ROOT / "packaging/prometheus/quorvix.rules.yml"
DASHBOARD = ROOT / "packaging/prometheus/quorvix-dashboard.json"
EXPORTED = Path("/var/lib/prometheus/node-exporter/quorvix.prom")
INSIDE = "QUORVIX_PROMETHEUS_INSIDE"
# All that may ever be exported, and with which labels: no text of an app is a name of a metric or of a label.
METRICS = {
    "quorvix_hang_duration_seconds": {"hang", "process", "le"},
    "quorvix_hang_duration_longest_seconds": {"hang", "process"},
    "quorvix_fence_hangs_total": set(),
    "quorvix_reports_missed_total": {"limit"},
    "quorvix_process_reports_missed_total": {"limit", "process"},
    "quorvix_reports_at_daily_reset": set(),
    "quorvix_other_scalar": {"key"},
    "quorvix_refused_changes_total": {"reason"},
    "quorvix_series_left_out": set(),
}
HOSTILE_NAME = 'ha"ng\\}\n# TYPE evil counter\nevil 1 \u202e'
PATIENCE = 60
# A key is split at its last dot, wherever a name has others: docs/counters.md.
PROCESS = Path("/proc/self/exe").resolve().name


def hang_label(name):
    return f"{name}.{PROCESS}".rpartition(".")[0]



def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def wait_for(condition, what):
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.1)
    raise AssertionError(f"{what} did not come within {PATIENCE} s")


def fetch(url):
    try:
        with urllib.request.urlopen(url, timeout=5) as answer:
            return answer.read().decode()
    except OSError:
        return None


def promtool(*arguments, text=None):
    result = subprocess.run(["promtool", *arguments], input=text, capture_output=True, text=True, check=False)
    return result.returncode, result.stdout + result.stderr


def metrics_in(expression):
    return set(re.findall(r"\b(?:quorvix|node_textfile)_\w+", expression))


def known(name):
    return name.startswith("node_textfile_") or re.sub(r"_(bucket|sum|count)$", "", name) in METRICS or name in METRICS


@unittest.skipUnless(shutil.which("promtool"), "promtool is not installed")
class Shipped(unittest.TestCase):
    def test_the_alert_rules_are_valid(self):
        status, said = promtool("check", "rules", str(RULES))
        self.assertEqual(status, 0, said)

    def test_the_alerts_fire_past_their_thresholds_and_not_before(self):
        status, said = promtool("test", "rules", str(ROOT / "tests/prometheus/rules_test.yml"))
        self.assertEqual(status, 0, said)

    def test_rules_and_dashboard_ask_for_metrics_that_exist(self):
        expressions = re.findall(r"expr: *>?\n?((?:.*\n)(?:          .*\n)*)", RULES.read_text())
        targets = [target["expr"] for panel in json.loads(DASHBOARD.read_text())["panels"] for target in panel.get("targets", [])]
        self.assertGreater(len(expressions), 4)
        self.assertGreater(len(targets), 4)
        for expression in expressions + targets:
            names = metrics_in(expression)
            self.assertTrue(names, expression)
            self.assertTrue(all(known(name) for name in names), expression)


@unittest.skipUnless(shutil.which("promtool") and shutil.which("prometheus") and shutil.which("prometheus-node-exporter")
                     and INSIDE in os.environ, "needs Prometheus, its node exporter and a file system of its own")
class Scraped(unittest.TestCase):
    """One daemon, one node exporter, one Prometheus, on loopback, in a file system of their own."""

    @classmethod
    def setUpClass(cls):
        sys.path.insert(0, str(ROOT / "tests/e2e"))
        import harness
        from quorvix_client import TICKS_PER_SECOND, ticks_now
        harness.BUILD = BUILD
        cls.folder = Path(tempfile.mkdtemp())
        cls.processes = []
        EXPORTED.parent.mkdir(parents=True)
        cls.world = harness.World()
        try:
            daemon = cls.world.start()
            client = cls.world.watched_client(daemon)
            end = ticks_now()
            for name in ("main", "main", HOSTILE_NAME):
                client.hang_detected(name, end - 7 * TICKS_PER_SECOND, end)
            wait_for(lambda: EXPORTED.exists() and EXPORTED.read_text().count("_seconds_count{") == 2, "the exported counters")
            cls.exporter_port, cls.prometheus_port = free_port(), free_port()
            cls.start("prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile",
                      f"--collector.textfile.directory={EXPORTED.parent}", f"--web.listen-address=127.0.0.1:{cls.exporter_port}")
            wait_for(lambda: fetch(f"http://127.0.0.1:{cls.exporter_port}/metrics"), "the node exporter")
            (cls.folder / "prometheus.yml").write_text(
                f"global: {{scrape_interval: 1s}}\nrule_files: ['{RULES}']\nscrape_configs:\n"
                f"  - job_name: node\n    static_configs: [{{targets: ['127.0.0.1:{cls.exporter_port}']}}]\n")
            cls.start("prometheus", f"--config.file={cls.folder}/prometheus.yml", f"--storage.tsdb.path={cls.folder}/store",
                      f"--web.listen-address=127.0.0.1:{cls.prometheus_port}")
            wait_for(lambda: fetch(f"http://127.0.0.1:{cls.prometheus_port}/-/ready"), "Prometheus")
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def start(cls, *command):
        cls.processes.append(subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))

    @classmethod
    def tearDownClass(cls):
        for process in cls.processes:
            process.send_signal(signal.SIGKILL)
            process.wait()
        cls.world.close()
        shutil.rmtree(cls.folder)

    def query(self, expression):
        url = f"http://127.0.0.1:{self.prometheus_port}/api/v1/query?" + urllib.parse.urlencode({"query": expression})
        answer = json.loads(fetch(url) or '{"data": {"result": []}}')
        return answer["data"]["result"]

    def test_promtool_accepts_the_file(self):
        status, said = promtool("check", "metrics", text=EXPORTED.read_text())
        self.assertEqual((status, said), (0, ""))

    def test_names_of_metrics_and_labels_are_ours(self):
        for line in EXPORTED.read_text().splitlines():
            if line.startswith("#"):
                continue
            name, labels = re.match(r'(\w+)(?:\{((?:\w+="(?:[^"\\]|\\.)*",?)*)\})? \S+$', line).groups()
            family = name if name in METRICS else re.sub(r"_(bucket|sum|count)$", "", name)
            self.assertIn(family, METRICS, line)
            self.assertLessEqual(set(re.findall(r'(\w+)="(?:[^"\\]|\\.)*"', labels or "")), METRICS[family], line)

    def test_the_node_exporter_takes_it_whole(self):
        text = fetch(f"http://127.0.0.1:{self.exporter_port}/metrics")
        self.assertIn("node_textfile_scrape_error 0", text)
        self.assertNotIn("\nevil", text)

    def test_prometheus_answers_for_the_hangs(self):
        name = hang_label("main")
        (result,) = wait_for(lambda: self.query(f'quorvix_hang_duration_seconds_count{{hang="{name}"}}'), "the scrape")
        self.assertEqual(result["value"][1], "2")
        (up_to_five,) = self.query(f'quorvix_hang_duration_seconds_bucket{{hang="{name}", le=~"5(\\\\.0)?"}}')
        (up_to_ten,) = self.query(f'quorvix_hang_duration_seconds_bucket{{hang="{name}", le=~"10(\\\\.0)?"}}')
        self.assertEqual((up_to_five["value"][1], up_to_ten["value"][1]), ("0", "2"))

    def test_a_hostile_name_is_a_labels_value(self):
        wait_for(lambda: self.query("quorvix_hang_duration_seconds_count"), "the scrape")
        names = {result["metric"]["hang"] for result in self.query("quorvix_hang_duration_seconds_count")}
        self.assertEqual(names, {hang_label("main"), hang_label(HOSTILE_NAME)})

    def test_prometheus_has_loaded_the_rules(self):
        groups = json.loads(fetch(f"http://127.0.0.1:{self.prometheus_port}/api/v1/rules"))["data"]["groups"]
        rules = [rule for group in groups for rule in group["rules"]]
        self.assertGreaterEqual(len(rules), 5)
        for rule in rules:
            wait_for(lambda: not self.failed(rule["name"]), f"evaluation of {rule['name']}")

    def failed(self, name):
        groups = json.loads(fetch(f"http://127.0.0.1:{self.prometheus_port}/api/v1/rules"))["data"]["groups"]
        return any(rule["name"] == name and rule["health"] == "err" for group in groups for rule in group["rules"])

    def test_every_panel_of_the_dashboard_is_a_query_that_prometheus_takes(self):
        for panel in json.loads(DASHBOARD.read_text())["panels"]:
            for target in panel.get("targets", []):
                expression = target["expr"].replace("$__range", "1h").replace("$instance", ".*").replace("$process", ".*")
                expression = expression.replace("$__rate_interval", "5m")
                url = f"http://127.0.0.1:{self.prometheus_port}/api/v1/query?" + urllib.parse.urlencode({"query": expression})
                self.assertEqual(json.loads(fetch(url) or "{}").get("status"), "success", expression)


if __name__ == "__main__":
    unittest.main()
