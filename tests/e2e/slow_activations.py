"""What takes an activation its minute."""

import harness
from test_activations import APP, ActivationTest, stored, wait_stored


class TimeOut(ActivationTest):
    def test_begin_without_an_end_is_given_up_after_a_minute(self):
        """Three stories share the minute."""
        self.begin(f"{APP}.lost")
        self.activate(f"{APP}.ended")
        wait_stored(f"{APP}.ended")
        # A newer activation of the same key falls to the older one's time-out.
        self.activate(f"{APP}.again")
        self.begin(f"{APP}.again")
        harness.wait_until(lambda: self.counters()["open"] == 2)
        missing = "Did not find an end call entry for 412:"
        line = self.daemon.wait_line(f"{missing}{APP}.lost", 90)
        self.assertEqual(line, f"<default> QXActivationStats: beginActivationTrackingForPID: {missing}{APP}.lost\\n")
        self.daemon.wait_line(f"{missing}{APP}.again")
        harness.wait_until(lambda: self.counters()["open"] == 0)
        lines, times = self.daemon.log(), list(self.daemon.times)
        moments = [times[lines.index(next(text for text in lines if wanted in text))]
                   for wanted in (f"{APP}.lost[412] activation begin", f"{missing}{APP}.lost")]
        self.assertGreaterEqual(moments[1] - moments[0], 60)
        self.assertLess(moments[1] - moments[0], 75)
        self.assertEqual(self.daemon.count_lines(missing), 2)
        self.assertEqual(stored(f"{APP}.lost"), [])
        self.end(f"{APP}.again")
        self.assertEqual([row["ActivationResult"] for row in wait_stored(f"{APP}.again", 2)], [0, 32])
