"""Every call that changes what is on disk may be the last one of its process, or fail: what was told 250 arrives, none
twice but those whose answer was lost, which are counted, and nothing is left once it was swept."""
import concurrent.futures
import contextlib
import random
import time
import unittest

import harness
import smtp_case
from crash_case import DORA, FAILS, HOLDS, LARGE, NEVER, CrashCase
from deferred_case import STORE_FAILED
from smtp_case import BOARD, DEFERRED, NOTIFIED, PHRASE, RULE_HIT, SENDER, STAFF, body

LEAST = 4  # calls, below those of the smallest of these


class Keeping(CrashCase):
    def mail(self):
        """Sends one until it is taken: whoever heard nothing sends again."""
        while True:
            with contextlib.suppress(OSError), contextlib.closing(smtp_case.Client(self.port)) as client:
                self.tries += 1
                if client.mail(LARGE).startswith("250"):
                    return

    def keep(self):
        self.tries, before = 0, self.files()
        self.mail()
        new = [content for name, content in self.files().items() if name not in before and name.endswith(".rmd")]
        self.assertIn(len(new), range(1, self.tries + 1))
        self.taken += len(new)

    def test_gateway_that_dies_while_it_keeps_a_mail_has_told_nobody_that_it_has_it(self):
        self.taken = 0
        self.begin(environment=self.dying)
        self.away()
        self.assertGreater(self.each_call(self.keep), LEAST)
        self.stop(self.gateway)
        self.back()
        self.mark()
        self.recover()
        self.assertEqual(len(self.sink.messages), self.taken)
        self.assertEqual(self.files(), {})
        self.gateway = self.launch(environment=self.later())
        self.wait_worker()
        self.assertEqual(self.left_in_spool(), [])


class Failing(CrashCase):
    """Each call fails, one after the other."""
    phrase = "REPLACE"

    def test_mail_of_two_contents_is_kept_whole_or_stays_with_its_client(self):
        self.begin(environment=self.dying)
        self.provokes(RULE_HIT, STORE_FAILED, DEFERRED)
        self.away()

        def keep():
            before = set(self.directory.iterdir())
            with contextlib.closing(smtp_case.Client(self.port)) as client:
                reply = client.mail(body(PHRASE), [STAFF, BOARD])
            made = set(self.directory.iterdir()) - before
            self.assertEqual((reply[:3], len(made)), ("250", 2) if made else ("451", 0))
        self.assertGreater(self.each_call(keep, [FAILS]), 12)

    def test_who_has_it_has_it_and_what_can_be_kept_is(self):
        """Nobody may be told to send again what somebody has: what one file cannot hold another one may."""
        self.begin(environment=self.dying)
        self.provokes(RULE_HIT, STORE_FAILED, NOTIFIED)
        self.sink.replies = {f"RCPT {one}": "451 4.2.1 later" for one in (BOARD, DORA)}
        self.arm(1, FAILS)
        recipients = [STAFF, DORA, BOARD]
        self.assertRegex(self.client().mail(body(PHRASE), recipients), r"^250 ")
        self.assertEqual(len(self.waiting()), 1)
        report = self.sink.wait_messages(2)[1]
        self.assertEqual(report.recipients, [SENDER])
        self.assertIn(DORA.encode(), report.content)
        self.assertNotIn(BOARD.encode(), report.content)


class Undoing(CrashCase):
    """What may still be undone is nobody else's."""
    phrase = "REPLACE"

    def keep(self):
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        with contextlib.closing(smtp_case.Client(self.port)) as client:
            reply = client.mail(body(PHRASE), [STAFF, BOARD])
        self.sink.replies = {}
        return reply

    def test_mail_that_may_still_go_back_to_its_client_is_taken_by_no_retryer(self):
        self.begin(environment=self.dying)
        self.provokes(RULE_HIT, STORE_FAILED, DEFERRED)
        [worker], made = self.wait_worker(), self.calls_of(self.keep)
        self.assertGreater(made, 2 * LEAST)
        for call in range(1, made + 1):
            self.lay({})
            self.arm(call, HOLDS)
            with self.subTest(call=call), concurrent.futures.ThreadPoolExecutor(1) as client:
                reply = client.submit(self.keep)
                self.wait_held(worker)
                self.sink.replies = {}
                self.one_pass()
                self.go_on(worker)
                self.assertRegex(reply.result(), r"^451 ")
                self.one_pass()
                self.assertEqual((self.files(), self.sink.messages), ({}, []))
        self.assertRegex(self.keep(), r"^250 ")
        self.one_pass()
        self.assertEqual(sorted(one.recipients for one in self.sink.messages), sorted([[BOARD], [STAFF]]))


class Retrying(CrashCase):
    def die_again(self, chance):
        """The next pass dies, too, in one of its calls."""
        was_hit = self.was_hit()
        self.arm(chance.randint(1, LEAST))
        self.one_pass(self.dying)
        self.arm(0 if was_hit else NEVER)

    def sweep(self, owed, told=(), replies=None, later=None, greeting=None):
        """A pass of the retryer that dies in each of its calls, while the next server answers with `replies`; then what
        the next start makes of it, with the answers `later`."""
        self.begin()
        waiting, usual, chance = self.kept([*owed, *told]), self.sink.greeting, random.Random(1)

        def act():
            self.lay(waiting)
            self.mark()
            self.sink.replies, self.sink.greeting = replies or {}, greeting or usual
            self.one_pass(self.dying)
            if harness.FULL:
                self.die_again(chance)
            self.sink.replies, self.sink.greeting = later or {}, usual
            self.recover()
            self.judge(owed, told)
        self.assertGreater(self.each_call(act), LEAST)

    def test_retryer_that_dies_while_it_delivers_loses_nothing_and_counts_each_second_copy(self):
        self.sweep([STAFF])

    def test_retryer_that_dies_while_some_recipients_are_put_off_loses_none_of_them(self):
        self.sweep([STAFF, DORA], replies={f"RCPT {STAFF}": "451 4.2.1 later"})

    def test_retryer_that_dies_while_the_next_server_is_away_loses_nothing(self):
        self.sweep([STAFF], greeting="421 4.3.2 not now")

    def test_retryer_that_dies_while_it_gives_up_tells_the_sender(self):
        refused = {f"RCPT {STAFF}": "550 5.1.1 who?"}
        self.sweep([], [STAFF], replies=refused, later=refused)


class Resting(CrashCase):
    def test_mail_whose_try_ends_the_worker_rests_before_the_next(self):
        self.begin(smtpretryer={"RetryInterval": 5})
        waiting = self.kept()
        retryer = self.retryer(environment=self.dying)
        harness.wait_until(retryer.workers, "a retryer at work")
        self.arm(3)  # the file is locked, the mail is let rest; then its status is written
        self.lay(waiting)
        harness.wait_until(lambda: self.plan.read_bytes()[0] == 0, "the end of a worker")
        (name,) = self.waiting()
        died = (self.directory / name).stat().st_ctime
        self.sink.wait_messages(1)
        self.assertGreater(time.time() - died, 5)
        self.wait_empty()
        self.assertEqual(len(self.sink.messages), 1)


if __name__ == "__main__":
    unittest.main()
