"""Files that change under a retryer, another retryer beside it, and a clock that is set back: mail is not lost, and a
retryer that can do nothing does nothing."""
import os
import signal
import struct
import time
import unittest

import harness
from crash_case import CLOCK
from deferred_case import DAMAGED, GIVEN_UP, NO_FILE, RETRYER, WALK
from troubles_case import TroublesCase

HELD = 2  # files at most by a retryer of one thread: one is worked on, and one waits for that


class Changed(TroublesCase):
    """A file changes while a retryer works on it."""

    def at_mail(self, act, reply="250 2.1.0 ok"):
        """act() in the midst of the next try; later ones go through."""
        def answer(_):
            self.sink.replies = {}
            act()
            return reply
        self.sink.replies = {"MAIL": answer}

    def test_file_that_took_the_place_of_another_is_delivered_too(self):
        self.begin()
        first, second = self.keep(1, 2)
        aside = second.rename(self.directory / "aside")
        self.at_mail(lambda: aside.rename(first))
        self.retryer()
        self.assert_arrived(1, 2)

    def test_file_that_is_gone_was_delivered_all_the_same(self):
        self.begin()
        (path,) = self.keep(1)
        self.at_mail(path.unlink)
        self.retryer()
        self.assert_arrived(1)

    def test_mail_whose_file_was_cut_is_delivered_by_the_try_that_has_it(self):
        self.begin()
        (path,) = self.keep(1)
        self.at_mail(lambda: os.truncate(path, 0))
        self.retryer()
        self.assert_arrived(1)

    def test_file_that_was_cut_is_reported_after_the_try_that_failed(self):
        self.begin()
        self.provokes(DAMAGED)
        (path,) = self.keep(1)
        whole = path.read_bytes()
        self.at_mail(lambda: os.truncate(path, len(whole) - 1), "451 4.3.2 later")
        retryer = self.retryer()
        self.assert_at_rest(retryer, DAMAGED)
        path.write_bytes(whole)
        self.assert_arrived(1)


class Two(TroublesCase):
    def test_other_retryer_does_what_the_one_that_stands_still_has_not_begun(self):
        self.begin(smtpretryer={"MaxConncurrent": 1})
        self.expect(*NO_FILE, at_least=0)
        self.keep(*range(8))
        stopped = []

        def stop(_):
            self.sink.replies = {}
            stopped.extend(retryer.workers())
            os.kill(stopped[0], signal.SIGSTOP)
            return "250 2.1.0 ok"
        self.sink.replies = {"MAIL": stop}
        retryer = self.retryer()
        harness.wait_until(lambda: stopped, "a retryer that stands still")
        self.addCleanup(os.kill, stopped[0], signal.SIGCONT)
        self.retryer(name="smtp-retryer2")
        self.sink.wait_messages(8 - HELD)
        harness.wait_until(lambda: len(self.waiting()) <= HELD, "the end of what nobody holds")
        os.kill(stopped[0], signal.SIGCONT)
        self.assert_arrived(*range(8))


class SetBack(TroublesCase):
    def setUp(self):
        super().setUp()
        self.clock = self.root.path / "clock-calls"
        self.clock.write_bytes(bytes(16))

    def set_clock(self, by):
        since = int(time.time()) + 1
        harness.wait_until(lambda: time.time() >= since, "the next second")
        with open(self.clock, "r+b") as file:
            file.write(struct.pack("qq", by, since))

    def test_mail_outlives_a_clock_that_was_set_back(self):
        """What rests does so by the times of its file, which were the other clock's: until that time has come again, or a
        pass takes all."""
        self.begin(environment={"LD_PRELOAD": CLOCK, "VELT_CLOCK_CALLS": str(self.clock)})
        self.keep(1)
        self.sink.replies = {"MAIL": "451 4.3.2 still not"}
        retryer = self.retryer(RETRYER, environment=self.environment)
        self.wait_tries()
        self.set_clock(-3600)
        self.keep(2)
        self.sink.wait_messages(1)
        harness.wait_until(lambda: len(self.waiting()) == 1, "the end of the new one")
        self.assert_at_rest(retryer, WALK)
        self.retryer(("-p", *RETRYER[1:]), environment=self.environment)
        self.assert_arrived(1, 2)
        self.assertEqual(self.events(*GIVEN_UP), [])


if __name__ == "__main__":
    unittest.main()
