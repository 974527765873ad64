"""Destinations that do not answer, and what waits behind them."""
import os
import time
import unittest

import harness
import mail_sink
from deferred_case import DeferredCase
from rmd_files import rmd

DEAD = 200  # mails to the one that does not answer
SOON = 12.0  # seconds, of which five are the patience with that one
THREADS = 3
PATIENT_WITH_SERVERS = {f"Upstream{stage}Timeout": 600 for stage in ("Greeting", "Command", "Data", "Block", "Final")}


class DeadServers(DeferredCase):
    def write(self, name, port):
        (self.directory / f"{name}.rmd").write_bytes(rmd(name, f"{harness.SERVER}:{port}"))

    def put_last(self, name, port):
        """A file that a walk comes by after all others: their order is the directory's, by the names."""
        for turn in range(10 * DEAD):
            path = self.directory / f"{name}{turn}.rmd"
            self.write(path.stem, port)
            if [entry.name for entry in os.scandir(self.directory)][-1] == path.name:
                return
            path.unlink()
        self.fail("no name comes last")

    def fill(self, dead):
        self.directory.mkdir(parents=True, exist_ok=True)
        for number in range(DEAD):
            self.write(f"dead{number}", dead.port)
        self.put_last("live", self.sink.port)

    def another_sink(self):
        made = mail_sink.MailSink()
        self.addCleanup(made.close)
        return made

    def assert_live_one_arrives(self, dead, at_once):
        """Soon, while so many mails ask the dead one."""
        begin = time.monotonic()
        self.sink.wait_messages(1, 60)
        after = time.monotonic() - begin
        print(f"\nbehind {DEAD} mails to a server that does not answer: after {after:.1f} s, {len(dead.open)} at once ask it",
              flush=True)
        self.assertLess(after, harness.bound(SOON))
        self.assertEqual(len(dead.open), at_once)
        harness.wait_until(lambda: len(self.waiting()) == DEAD, "the end of its file")
        dead.close()

    def test_mail_is_not_held_up_behind_a_server_that_does_not_answer(self):
        self.begin(smtp=PATIENT_WITH_SERVERS)
        dead = self.another_sink()
        dead.fault = "stall-at-greeting"
        self.fill(dead)
        self.retryer()
        self.assert_live_one_arrives(dead, 1)

    def test_mail_is_not_held_up_behind_a_server_that_answers_no_longer(self):
        self.begin(smtp=PATIENT_WITH_SERVERS, smtpretryer={"ScanInterval": 1, "MaxConncurrent": THREADS})
        dead = self.another_sink()
        self.retryer()
        self.directory.mkdir(parents=True, exist_ok=True)
        self.write("early", dead.port)
        dead.wait_messages(1)
        self.wait_empty()
        dead.fault = "stall-at-greeting"
        self.fill(dead)
        self.assert_live_one_arrives(dead, THREADS - 1)


if __name__ == "__main__":
    unittest.main()
