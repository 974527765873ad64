"""Files that change under a retryer, another retryer beside it, and a clock that is set: mail is not lost, and a
retryer that can do nothing does nothing."""
import os
import re
import signal
import struct
import time
import unittest

import harness
from crash_case import CLOCK, ONE_PASS
from deferred_case import CLOCK_SET_BACK, DAMAGED, GIVEN_UP, NO_FILE, RETRY_FAILED, RETRYER, numbered
from rmd_files import rmd
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


class TwoNames(TroublesCase):
    def test_mail_whose_file_has_two_names_waits_until_it_has_one(self):
        self.begin()
        self.provokes(DAMAGED)
        (path,) = self.keep(1)
        other = self.directory / "other.rmd"
        os.link(path, other)
        self.retryer(ONE_PASS).wait()
        self.assertEqual(len(self.noted(DAMAGED, 2)), 2)
        self.assertEqual(self.finding(DAMAGED), {"file has more than one name"})
        self.assertEqual(self.sink.messages, [])
        other.unlink()
        self.retryer(ONE_PASS).wait()
        self.assert_arrived(1)

    def named_again(self, change):
        """The file of a mail, in the midst of its delivery."""
        self.begin()
        (path,) = self.keep(1)

        def name_again(_):
            change(path, self.directory / "other.rmd")
            return "250 2.0.0 stored"
        self.sink.replies = {"END": name_again}
        for _ in range(2):
            self.retryer(ONE_PASS).wait()
            self.sink.replies = {}
        self.assert_arrived(1)

    def test_mail_whose_file_gets_a_second_name_while_it_is_delivered_is_delivered_once(self):
        self.named_again(os.link)

    def test_mail_whose_file_is_renamed_while_it_is_delivered_is_delivered_once(self):
        self.named_again(os.rename)


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


class ClockThatIsSet(TroublesCase):
    """A mail neither rests until the clock has caught up with its file nor is given up after a single try."""
    DAY = 86400

    def setUp(self):
        super().setUp()
        self.clock = self.root.path / "clock-calls"
        self.clock.write_bytes(bytes(16))

    def set_clock(self, by):
        since = int(time.time()) + 1
        harness.wait_until(lambda: time.time() >= since, "the next second")
        with open(self.clock, "r+b") as file:
            file.write(struct.pack("qq", by, since))

    def begin_tried(self, **smtp):
        """A mail that rests after a try that failed, in a world whose clock can be set."""
        self.begin(smtp=smtp, environment={"LD_PRELOAD": CLOCK, "VELT_CLOCK_CALLS": str(self.clock)})
        self.keep(1)
        self.sink.replies = {"MAIL": "451 4.3.2 still not"}
        self.retryer(RETRYER, environment=self.environment)
        self.wait_tries()

    def test_mail_does_not_rest_until_a_clock_that_was_set_back_has_caught_up(self):
        self.begin_tried()
        self.set_clock(-self.DAY)
        (event,) = self.noted(CLOCK_SET_BACK)
        self.assertEqual(event["values"], {"smtp_count": 1})
        self.keep(2)
        self.sink.replies = {}
        self.assert_arrived(1, 2)
        self.assertEqual(self.events(*GIVEN_UP), [])

    def test_clock_is_watched_also_while_there_is_nothing_to_try(self):
        self.begin(smtpretryer={"RetryInterval": 6}, environment={"LD_PRELOAD": CLOCK, "VELT_CLOCK_CALLS": str(self.clock)})
        self.retryer(RETRYER, environment=self.environment)
        harness.wait_until(lambda: self.counters().get("directory_scans"), "a walk")
        self.keep(1)
        self.set_clock(-self.DAY)
        self.noted(CLOCK_SET_BACK)
        self.assert_arrived(1)

    def test_retryer_that_was_not_there_when_the_clock_was_set_back_sees_it_at_its_start(self):
        self.begin(environment={"LD_PRELOAD": CLOCK, "VELT_CLOCK_CALLS": str(self.clock)})
        self.keep(1)
        self.set_clock(-self.DAY)
        self.retryer(RETRYER, environment=self.environment)
        self.noted(CLOCK_SET_BACK)
        self.assert_arrived(1)

    def test_mail_that_was_slow_to_be_kept_does_not_rest_until_the_clock_has_caught_up_either(self):
        """It was not tried yet, and is no new one by its times."""
        self.begin(environment={"LD_PRELOAD": CLOCK, "VELT_CLOCK_CALLS": str(self.clock)})
        path = self.directory / "slow.rmd"
        path.write_bytes(rmd("slow", content=numbered(1)))
        os.utime(path, (time.time(), time.time() - 10))
        self.set_clock(-self.DAY)
        self.retryer(RETRYER, environment=self.environment)
        self.noted(CLOCK_SET_BACK)
        self.assert_arrived(1)

    def test_mail_that_is_not_tried_ages_too_after_a_clock_was_set_back(self):
        self.begin(smtp={"RetryPause": 3600, "RetryPauseLimit": 3600},
                   environment={"LD_PRELOAD": CLOCK, "VELT_CLOCK_CALLS": str(self.clock)})
        self.away()
        files = self.keep(1, 2)
        self.retryer(RETRYER, environment=self.environment)
        self.wait_tries()
        self.set_clock(-self.DAY)
        self.noted(CLOCK_SET_BACK)
        harness.wait_until(lambda: all(re.search(rb" \d+/-\d+ [.?] w", file.read_bytes()) for file in files),
                           "both to begin anew from the time that the clock shows")

    def test_mail_is_not_given_up_for_a_clock_that_was_set_forward(self):
        self.begin_tried(GiveUpAfter=3600)
        tried = len(self.events(*RETRY_FAILED))
        self.set_clock(10 * self.DAY)
        self.wait_tries(tried + 3)
        self.assertEqual(self.events(*GIVEN_UP), [])
        self.sink.replies = {}
        self.assert_arrived(1)

    def test_mail_is_not_given_up_for_a_clock_that_was_set_forward_in_the_midst_of_a_try(self):
        self.begin_tried(GiveUpAfter=3600)

        def answer(_):
            self.sink.replies = {"MAIL": "451 4.3.2 still not"}
            self.set_clock(10 * self.DAY)
            tried.extend(self.events(*RETRY_FAILED))
            return "451 4.3.2 still not"
        tried = []
        self.sink.replies = {"MAIL": answer}
        harness.wait_until(lambda: tried, "a try in whose midst the clock is set")
        self.wait_tries(len(tried) + 3)
        self.assertEqual(self.events(*GIVEN_UP), [])
        self.sink.replies = {}
        self.assert_arrived(1)


if __name__ == "__main__":
    unittest.main()
