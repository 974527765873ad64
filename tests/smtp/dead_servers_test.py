"""Destinations that do not answer, and what waits behind them."""
import ctypes
import os
import struct
import time
import unittest

import harness
import mail_sink
from crash_case import CLOCK
from deferred_case import DeferredCase
from rmd_files import rmd

DEAD = 200  # mails to the one that does not answer
SOON = 12.0  # seconds, of which five are the patience with that one
THREADS = 3
FEW_THREADS = {"ScanInterval": 1, "MaxConncurrent": THREADS}
PATIENT_WITH_SERVERS = {f"Upstream{stage}Timeout": 600 for stage in ("Greeting", "Command", "Data", "Block", "Final")}


def exchange(one, other):
    """Each has the other's name."""
    at_once, here = 2, -100
    if ctypes.CDLL(None, use_errno=True).renameat2(here, bytes(one), here, bytes(other), at_once):
        raise OSError(ctypes.get_errno(), "renameat2")


class DeadServers(DeferredCase):
    @staticmethod
    def write(directory, name, port):
        (directory / f".{name}").write_bytes(rmd(name, f"{harness.SERVER}:{port}"))
        (directory / f".{name}").rename(directory / f"{name}.rmd")  # no walk comes by it before it is whole

    def write_last(self, directory, name, port, write_others):
        """A file that a walk comes by after all others. Their order is the directory's: the newest first, or the oldest, or
        by their names."""
        self.write(directory, name, port)
        write_others()
        if self.is_last(directory, name):
            return
        (directory / f"{name}.rmd").unlink()
        for turn in range(10 * DEAD):
            self.write(directory, f"{name}{turn}", port)
            if self.is_last(directory, f"{name}{turn}"):
                return
            (directory / f"{name}{turn}.rmd").unlink()
        self.fail("no name comes last")

    @staticmethod
    def is_last(directory, name):
        return [entry.name for entry in os.scandir(directory)][-1] == f"{name}.rmd"

    def fill(self, *dead):
        """All at once, as a retryer may be at work."""
        made = self.directory.with_name("made")
        made.mkdir(0o700, parents=True)
        self.directory.mkdir(exist_ok=True)

        def write_dead():
            for number in range(DEAD):
                self.write(made, f"dead{number}", dead[number % len(dead)].port)
        self.write_last(made, "live", self.sink.port, write_dead)
        exchange(made, self.directory)

    def another_sink(self):
        made = mail_sink.MailSink()
        self.addCleanup(made.close)
        return made

    def assert_live_one_arrives(self, at_once, *dead):
        """Soon, while so many mails ask the dead ones."""
        had, begin = len(self.sink.messages), time.monotonic()
        self.sink.wait_messages(had + 1, 60)
        after, asking = time.monotonic() - begin, sum(len(one.open) for one in dead)
        print(f"\nbehind {DEAD} mails to {len(dead)} that do not answer: after {after:.1f} s, {asking} at once ask them",
              flush=True)
        self.assertLess(after, harness.bound(SOON))
        self.assertEqual(asking, at_once)
        harness.wait_until(lambda: len(self.waiting()) == DEAD, "the end of its file")
        for one in dead:
            one.close()

    def deliver_one(self, sink):
        """It is known to answer then."""
        self.directory.mkdir(parents=True, exist_ok=True)
        self.write(self.directory, "early", sink.port)
        sink.wait_messages(1)
        self.wait_empty()

    def test_mail_is_not_held_up_behind_a_server_that_does_not_answer(self):
        self.begin(smtp=PATIENT_WITH_SERVERS)
        dead = self.another_sink()
        dead.fault = "stall-at-greeting"
        self.fill(dead)
        self.retryer()
        self.assert_live_one_arrives(1, dead)

    def test_mail_is_not_held_up_behind_a_server_that_answers_no_longer(self):
        self.begin(smtp=PATIENT_WITH_SERVERS, smtpretryer=FEW_THREADS)
        dead = self.another_sink()
        self.retryer()
        self.deliver_one(dead)
        dead.fault = "stall-at-greeting"
        self.fill(dead)
        self.assert_live_one_arrives(THREADS - 1, dead)

    def test_mail_is_not_held_up_behind_many_servers_that_do_not_answer(self):
        self.begin(smtp=PATIENT_WITH_SERVERS, smtpretryer=FEW_THREADS)
        dead = [self.another_sink() for _ in range(4 * THREADS)]
        for one in dead:
            one.fault = "stall-at-greeting"
        self.retryer()
        self.deliver_one(self.sink)
        self.fill(*dead)
        self.assert_live_one_arrives(THREADS - 1, *dead)

    def test_mail_is_not_held_up_behind_many_servers_of_which_as_little_is_known(self):
        self.begin(smtp={**PATIENT_WITH_SERVERS, "RetryPatience": 2}, smtpretryer=FEW_THREADS)
        self.expect(12000, 8, at_least=0)  # a connection that its server's end resets
        dead = [self.another_sink() for _ in range(2 * THREADS)]
        for one in dead:
            one.fault = "stall-at-greeting"
        self.fill(*dead)
        begin = time.monotonic()
        self.retryer()
        self.sink.wait_messages(1, 60)
        took = time.monotonic() - begin
        print(f"\nbehind {len(dead)} that do not answer either: after {took:.1f} s", flush=True)
        self.assertLess(took, harness.bound(4 * THREADS + SOON))
        for one in dead:
            one.close()

    def test_mail_is_not_held_up_by_a_clock_that_was_set(self):
        """The mails before it wait for what becomes of the first of them, and only so long."""
        clock = self.root.path / "clock-calls"
        clock.write_bytes(struct.pack("qq", 3600, int(time.time())))
        self.begin(smtp=PATIENT_WITH_SERVERS, smtpretryer={"MaxConncurrent": 2},
                   environment={"LD_PRELOAD": CLOCK, "VELT_CLOCK_CALLS": str(clock)})
        dead = self.another_sink()
        dead.fault = "stall-at-greeting"
        self.retryer(environment=self.environment)
        self.deliver_one(self.sink)
        self.fill(dead)
        self.assert_live_one_arrives(1, dead)


if __name__ == "__main__":
    unittest.main()
