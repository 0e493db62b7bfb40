"""quorvixctl beside a daemon that runs: what it shows is what happened."""

import json
import pathlib
import tempfile

import harness
from quorvix_client import TICKS_PER_SECOND, ticks_now

NOT_RUNNING = 3


def ctl_json(*arguments):
    return json.loads(harness.ctl(*arguments, "--json").stdout)


class Tool(harness.DaemonTest):
    def hang(self, client, times=1):
        end = ticks_now()
        for _ in range(times):
            client.hang_detected("work", end - 6 * TICKS_PER_SECOND, end, save_report=True)

    def test_the_budget_goes_down_and_says_who_was_refused(self):
        daemon = self.world.start_reporting()
        self.hang(self.world.watched_client(daemon), 5)
        daemon.wait_line("is out of credits. Not saving a report!")
        budget = ctl_json("budget")
        (app,) = budget["apps"]
        self.assertEqual(budget["apps"][app], 0)
        self.assertEqual(budget["device"], {"left": 21, "limit": 25})
        self.assertEqual(budget["refused"]["app-credits"], 1)
        self.assertEqual([(refusal["app"], refusal["hang"], refusal["reason"]) for refusal in budget["lastRefusals"]],
                         [(app, "work", "app-credits")])
        self.assertEqual(budget["refillEverySeconds"], 900)
        self.assertIn("the app has used up its reports", harness.ctl("budget").stdout)

    def test_counters_show_the_hang(self):
        daemon = self.world.start()
        self.hang(self.world.watched_client(daemon))
        harness.wait_until(lambda: harness.ctl("counters", check=False).returncode == 0)
        (hangs,) = ctl_json("counters", "WORK")["hangs"]
        self.assertEqual((hangs["count"], round(hangs["maximumMs"])), (1, 6000))
        self.assertEqual(ctl_json("counters", "nothing of this name"), {"hangs": [], "scalars": []})

    def test_the_story_of_an_app_is_read_from_standard_error(self):
        daemon = self.world.start()
        client = self.world.watched_client(daemon, "the story")
        self.hang(client)
        daemon.wait_line(": Hang detected 6.00s (work)")
        name = pathlib.Path("/proc/self/exe").resolve().name
        client.close()
        daemon.wait_line("Client disconnected: ")
        with tempfile.NamedTemporaryFile("w") as file:
            file.write("\n".join(daemon.log()) + "\n")
            file.flush()
            messages = [line["message"] for line in ctl_json("log", name, "--file", file.name)]
        self.assertTrue(messages[0].startswith("VEX: Client started new connection: pid "), messages)
        self.assertIn(f"{name}: Hang detected 6.00s (work)", messages)
        self.assertTrue(messages[-1].startswith("Client disconnected: "), messages)
        self.assertFalse(any("refreshPreferences" in message for message in messages))

    def test_the_level_of_the_log_takes_effect_while_the_daemon_runs(self):
        daemon = self.world.start()
        client = self.world.watched_client(daemon)
        harness.ctl("log", "level", "default")
        # Levels are read again when a line is written, a second after the last time at the earliest.
        def is_quiet():
            hangs = daemon.count_lines("Hang detected")
            unknown = daemon.count_lines("Don't know how to handle ")
            self.hang(client)
            client.send_command(99)
            # A line of the default level, written after the other would have been.
            harness.wait_until(lambda: daemon.count_lines("Don't know how to handle ") > unknown)
            return daemon.count_lines("Hang detected") == hangs
        harness.wait_until(is_quiet, what="silence")

    def test_the_doctor_finds_what_was_broken(self):
        self.world.start_reporting()
        def problems():
            result = harness.ctl("doctor", "--json", check=False)
            found = [finding["text"] for finding in json.loads(result.stdout)["findings"] if finding["kind"] == "problem"]
            self.assertEqual(result.returncode, 1 if found else 0)
            return found
        broken = pathlib.Path("/var/lib/quorvix")
        broken.chmod(0o755)
        self.assertTrue(any("/var/lib/quorvix has mode 0755" in text for text in problems()))
        broken.chmod(0o700)
        self.assertFalse(any("/var/lib/quorvix has" in text for text in problems()))
        self.assertFalse(any("does not run" in text for text in problems()))

    def test_without_a_daemon_scripts_are_told_so(self):
        for command in (["status"], ["budget"], ["activation", "end", "--pid", "1", "--bundle", "b"]):
            self.assertEqual(harness.ctl(*command, check=False).returncode, NOT_RUNNING, command)
