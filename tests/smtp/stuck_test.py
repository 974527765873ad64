"""An engine that never comes back from one message: what is told of it, who goes on meanwhile, and how it ends."""
import os
import subprocess
import unittest

import harness
from smtp_case import STAFF, SmtpCase, body

ENGINE = os.environ["VELT_STUCK_ENGINE"]
COUNTERS = os.environ["VELT_COUNTERS"]
SPIN = (16000, None)
WORDS = "a riddle without an answer"


class Stuck(SmtpCase):
    def launch(self, options=("-d",), arguments=(), environment=None):
        self.ahead = self.root.path / "ahead"
        return super().launch(options, arguments, {"LD_PRELOAD": ENGINE, "VELT_STUCK_AT": WORDS,
                                                   "VELT_STUCK_AHEAD": str(self.ahead)})

    def begin_stuck(self, **sections):
        """A gateway with two sessions: one is served, the other's message never comes back from the engine."""
        self.begin(scanning={"FlatSpinTimeout": 1}, **sections)
        self.served, self.stuck = self.client(), self.client()
        self.stuck.hello()
        self.stuck.envelope([STAFF])
        self.assertRegex(self.stuck.ask("DATA"), "^354 ")
        self.stuck.send(body(WORDS) + b".\r\n")

    def assert_others_are_served(self):
        for client in (self.served, self.client()):
            self.assertRegex(client.mail(), "^250 ")

    def assert_told(self):
        """By one event, one count and one bundle."""
        self.go_ahead(10)
        [event] = self.noted(SPIN)
        self.assertEqual(self.counters()["scanner.flatspins"], "1")
        [bundle] = harness.wait_until(self.whole_bundles, "a bundle with its item")
        report = dict(line.split(": ", 1) if ": " in line else (line, "")
                      for line in (bundle / "report").read_text().splitlines())
        self.assertEqual((report["process"], report["policy"]), (str(event["pid"]), "content_in"))
        self.assertGreaterEqual(int(report["seconds"]), 2)
        self.assertIn(WORDS.encode(), (bundle / "item").read_bytes())
        return event["pid"], bundle

    def whole_bundles(self):
        """Those that are complete but for the other threads' traces."""
        found = sorted((self.root.path / "scandir" / self.proxy / "spins").glob("*"))
        return [one for one in found if (one / "threads").exists() and (one / "threads").stat().st_size]

    def assert_trace_names_the_engine(self, bundle):
        def first():
            return (bundle / "threads").read_text().split("\nthread ")[0]
        self.assertIn(", which scans", first())
        harness.wait_until(lambda: os.path.basename(ENGINE) in first(), "a trace of the thread that scans")

    def counters(self):
        shown = subprocess.run([COUNTERS, self.proxy], capture_output=True, text=True, check=True,
                               env={**os.environ, "VELT_ROOT": str(self.root.path)}).stdout
        return dict(line.split()[:2] for line in shown.splitlines())

    def go_ahead(self, seconds):
        """The daemon's clock, from where it was at the start. A sanitizer keeps it as it is."""
        self.ahead.write_bytes(b"." * seconds)

    def assert_session_ends_without_an_answer(self):
        try:
            self.assertEqual(self.stuck.read(), "")
        except ConnectionResetError:
            pass
        self.assertNotIn(WORDS.encode(), b"".join(one.content for one in self.sink.messages))


class Threaded(Stuck):
    def test_the_worker_serves_others_until_it_ends_and_another_takes_its_place(self):
        self.begin_stuck()
        [worker] = self.workers()
        self.assert_others_are_served()
        process, bundle = self.assert_told()
        self.assertEqual(process, worker)
        self.assert_trace_names_the_engine(bundle)
        self.assert_others_are_served()
        if harness.SANITIZED:  # the minute is a minute there
            self.kill_worker(worker)
        else:
            self.expect_end(worker)
            self.go_ahead(80)
            self.wait_gone(worker)
        self.assert_session_ends_without_an_answer()
        self.assertNotEqual(self.wait_worker(), [worker])
        self.assertRegex(self.client().mail(), "^250 ")
        self.assertEqual(len(self.events(*SPIN)), 1)


class Forked(Stuck):
    """Without threads, a handler of the alarm sees to it all, in the process of the session."""

    def test_the_process_of_the_session_ends_and_no_other(self):
        self.begin_stuck(network={"MaxConnections": 4},
                         process={"ForkedModel": True, "ForkedModelThreads": False})
        [worker] = self.workers()
        self.assert_others_are_served()
        process, bundle = self.assert_told()
        self.assertIn(process, self.connection_children())
        self.assert_trace_names_the_engine(bundle)
        self.assert_others_are_served()
        if harness.SANITIZED:  # the minute is a minute there
            os.kill(process, 9)
        else:
            self.go_ahead(80)
        self.wait_gone(process)
        self.assert_session_ends_without_an_answer()
        self.assertEqual(self.workers(), [worker])
        self.assert_others_are_served()


if __name__ == "__main__":
    unittest.main()
