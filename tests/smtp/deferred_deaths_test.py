"""Processes that die while mail waits: what was told 250 arrives, and what arrives twice was counted."""
import collections
import contextlib
import os
import pathlib
import random
import signal
import struct
import threading
import time
import unittest

import harness
import mail_sink
import smtp_case
from deferred_case import GIVEN_UP, NO_FILE, RESENT, STORE_FAILED, DeferredCase, message_id, numbered
from smtp_case import BOARD, DEFERRED, NOTIFIED, PHRASE, RULE_HIT, SENDER, STAFF, body

WORKER, CLIENT_GONE = (10000, 54), (60000, 14)
COUNT = int(os.environ.get("VELT_DEFERRED_MAILS", 60))


class Killed(DeferredCase):
    """What was told 250 arrives, whoever dies; what arrives twice was counted."""
    repeats = 0  # of mails whose client heard no 250

    def send_all(self, count, told):
        """Sends mails, each until it was told 250."""
        for number in range(count):
            while not self.send(number):
                self.repeats += 1
            told.append(number)

    def send(self, number):
        with contextlib.suppress(OSError), contextlib.closing(smtp_case.Client(self.port)) as client:
            return client.mail(numbered(number)).startswith("250")
        return False

    def kill_workers(self, daemon):
        """SIGKILL for what this daemon's monitor has forked."""
        children = pathlib.Path(f"/proc/{daemon.pid}/task/{daemon.pid}/children")
        for pid in map(int, children.read_text().split()):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)

    def turn(self, number):
        """The next server goes and comes."""
        if number % 4 == 1:
            self.away()
        elif number % 4 == 3:
            self.back()
            self.sinks.append(self.sink)

    def numbers_that_arrived(self):
        return [int(mail_sink.subject_of(one.content)) for sink in self.sinks for one in sink.messages]

    def test_nothing_that_was_taken_is_lost(self):
        self.begin()
        self.sinks = [self.sink]
        for event in (RESENT, DEFERRED, CLIENT_GONE, NO_FILE, WORKER):
            self.expect(*event, at_least=0)
        retryer, told = self.retryer(), []
        sender = threading.Thread(target=self.send_all, args=(COUNT, told))
        sender.start()
        number = 0
        while sender.is_alive() or number % 4 != 3 or number < 12:
            number += 1
            self.kill_workers(self.gateway if number % 2 else retryer)
            self.turn(number)
            sender.join(random.uniform(0.1, 0.5))
        self.wait_empty()
        arrived = collections.Counter(self.numbers_that_arrived())
        self.assertEqual(set(range(COUNT)) - set(arrived), set(), "told 250, and never seen")
        again = sum(arrived.values()) - COUNT
        # A client whose answer was lost sends again, too: what it said twice is known by its audit ids.
        self.assertLessEqual(again, len(self.events(*RESENT)) + self.repeats, arrived)


class CallsCase(DeferredCase):
    """Each call that changes what is on disk is the last of its process, or fails, one after the other."""
    LIBRARY = os.environ.get("VELT_DYING_CALLS_LIBRARY", "")

    def setUp(self):
        super().setUp()
        self.plan = self.root.path / "dying-calls"
        self.plan.write_bytes(bytes(16))
        for event in (RESENT, CLIENT_GONE, WORKER, GIVEN_UP):
            self.expect(*event, at_least=0)
        self.sent = 0

    @property
    def dying(self):
        return {"LD_PRELOAD": self.LIBRARY, "VELT_DYING_CALLS": str(self.plan)}

    def arm(self, call):
        """The process that makes so many calls dies of the last one; of -n the n-th call fails."""
        with open(self.plan, "r+b") as file:
            file.write(struct.pack("qq", call, 0))

    def was_hit(self):
        """False: fewer calls were made, and nobody will be hit any more."""
        with open(self.plan, "r+b") as file:
            at, _ = struct.unpack("qq", file.read(16))
        self.arm(0)
        return at == 0

    def sweep(self, act, sign=1):
        """act() with the first call as the one that is hit, with the second, and so on until none is."""
        for call in range(1, 100):
            self.arm(sign * call)
            act()
            if not self.was_hit():
                return call - 1
        self.fail("no end of calls")


class Failing(CallsCase):
    phrase = "REPLACE"

    def test_mail_of_two_contents_is_kept_whole_or_stays_with_its_client(self):
        self.begin(environment=self.dying)
        self.provokes(RULE_HIT, STORE_FAILED, DEFERRED)
        self.away()

        def keep():
            before = set(self.directory.iterdir())
            reply = self.client().mail(body(PHRASE), [STAFF, BOARD])
            made = set(self.directory.iterdir()) - before
            self.assertEqual((reply[:3], len(made)), ("250", 2) if made else ("451", 0))
        self.assertGreater(self.sweep(keep, -1), 12)

    def test_who_has_it_has_it_and_what_can_be_kept_is(self):
        """Nobody may be told to send again what somebody has: what one file cannot hold another one may."""
        self.begin(environment=self.dying)
        self.provokes(RULE_HIT, STORE_FAILED, NOTIFIED)
        self.sink.replies = {f"RCPT {one}": "451 4.2.1 later" for one in (BOARD, "dora@inside.example")}
        self.arm(-1)
        recipients = [STAFF, "dora@inside.example", BOARD]
        self.assertRegex(self.client().mail(body(PHRASE), recipients), r"^250 ")
        self.assertEqual(len(self.waiting()), 1)
        report = self.sink.wait_messages(2)[1]
        self.assertEqual(report.recipients, [SENDER])
        self.assertIn(b"dora@inside.example", report.content)
        self.assertNotIn(BOARD.encode(), report.content)


class Dying(CallsCase):
    """A process dies in the place of each call."""

    def dying_retryer(self):
        """One that has begun its work: what it does from now on is what a walk and its sessions do."""
        daemon = self.retryer(environment=self.dying)
        harness.wait_until(daemon.workers, "a retryer at work")

    def mail(self):
        """A mail with a number of its own, sent until it is taken."""
        self.sent += 1
        while True:
            with contextlib.suppress(OSError), contextlib.closing(smtp_case.Client(self.port)) as client:
                if client.mail(numbered(self.sent)).startswith("250"):
                    return self.sent

    def copies(self, number):
        return sum(mail_sink.subject_of(one.content) == str(number) for one in self.sink.messages)

    def resent(self):
        return len(self.events(*RESENT))

    def test_gateway_that_dies_while_it_keeps_a_mail_has_told_nobody_that_it_has_it(self):
        self.begin(environment=self.dying)
        self.away()
        self.assertGreater(self.sweep(self.mail), 6)
        self.back()
        self.retryer()
        self.wait_empty()
        self.assertEqual({number for number in range(1, self.sent + 1) if not self.copies(number)}, set())

    def test_retryer_that_dies_loses_nothing_and_counts_each_second_copy(self):
        self.begin()
        self.dying_retryer()

        def deliver():
            before = self.resent()
            self.sink.replies = {"MAIL": "451 4.3.2 later"}
            number = self.mail()
            self.sink.replies = {}
            self.wait_empty()
            self.assertGreaterEqual(self.copies(number), 1)
            harness.wait_until(lambda: self.copies(number) - 1 <= self.resent() - before, "a count of each second copy")
        self.assertGreater(self.sweep(deliver), 5)

    def test_retryer_that_dies_while_it_gives_up_tells_the_sender_once(self):
        self.begin()
        self.dying_retryer()

        def give_up():
            before = len(self.sink.messages)
            self.sink.replies = {"MAIL": "451 4.3.2 later"}
            number = self.mail()
            self.sink.replies = {f"RCPT {STAFF}": "550 5.1.1 who?"}
            self.wait_empty()
            reports = [one for one in self.sink.messages[before:] if one.recipients == [SENDER]]
            self.assertGreaterEqual(len(reports), 1)
            self.assertLessEqual(len({message_id(one.content) for one in reports}), 1)
            self.assertIn(f"<{number}@outside.example>".encode(), reports[0].content)
        self.assertGreater(self.sweep(give_up), 8)

    def test_mail_whose_try_ends_the_worker_rests_before_the_next(self):
        self.begin(smtpretryer={"RetryInterval": 5})
        self.dying_retryer()
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        number = self.mail()
        self.arm(3)  # the file is locked, the mail is let rest; then it is noted that its content goes out
        self.sink.replies = {}
        harness.wait_until(lambda: self.plan.read_bytes()[0] == 0, "the end of a worker")
        (name,) = self.waiting()
        died = (self.directory / name).stat().st_ctime
        harness.wait_until(lambda: self.copies(number), "the mail")
        self.assertGreater(time.time() - died, 5)
        self.assertEqual(self.copies(number), 1)


if __name__ == "__main__":
    unittest.main()
