"""Mail that waits while calls of the system fail: what the gateway says it keeps is there whole, and a retryer brings it
once calls go through again; twice only where that was counted."""
import contextlib
import os
import pathlib
import random
import re
import sys
import threading
import unittest

import harness
import torture_case

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import crash_case  # noqa: E402
import smtp_case  # noqa: E402
from deferred_case import numbered  # noqa: E402
from rmd_files import is_whole  # noqa: E402
from smtp_case import STAFF  # noqa: E402

DEADLY = {"memory", "thread"}  # a worker does not survive to be without
PLACES = 3 if harness.SANITIZED else 8  # calls of one kind that fail, each with each error, where not all do
PASSES = 4000 if harness.FULL else 12 if harness.SANITIZED else 36  # of those, where each takes two passes of a retryer
WHILE_FAILING = 1.0  # seconds after which calls go through again


class Deferred(crash_case.CrashCase):
    def setUp(self):
        super().setUp()
        self.faults = torture_case.Plan()
        self.addCleanup(self.faults.close)
        for number in (10000, 10002, 12000, 60000, 70002, 180007):  # failures, as they come
            self.expect(number, at_least=0)

    def failures(self, calls, most=torture_case.FOR_EVER, without=()):
        """Of these calls; no more than `most`, which are drawn."""
        calls = {kind: count for kind, count in calls.items() if count and kind not in without}
        every = list(torture_case.injections(calls, PLACES))
        chosen = every if len(every) <= most else random.Random(1).sample(every, most)
        print(f"\n  calls: {calls}; {len(chosen)} failures of {len(every)}", end="", flush=True)
        return chosen


class Keeping(Deferred):
    def setUp(self):
        super().setUp()
        self.begin(environment=self.faults.environment)
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        self.sent, self.taken, self.unheard = 0, [], []

    def reply_to(self, content):
        """The reply to the mail; "" where the gateway has closed. Calls go through again after a while."""
        passing = threading.Timer(WHILE_FAILING, self.faults.arm, (False,))
        passing.start()
        try:
            with contextlib.closing(smtp_case.Client(self.port)) as client:
                return client.mail(content) if client.greeting.startswith("220") else client.greeting
        except ConnectionError:
            return ""
        finally:
            passing.cancel()
            passing.join()
            self.faults.arm(False)

    def keep(self):
        """A mail of its own: what is there afterwards is what the gateway says."""
        self.sent, before = self.sent + 1, self.files()
        reply = self.reply_to(numbered(self.sent))
        made = {name: content for name, content in self.files().items() if name not in before and name.endswith(".rmd")}
        self.assertTrue(all(map(is_whole, made.values())))
        self.assertIn((reply[:3], len(made)), [("250", 1), ("", 0), ("", 1), *((f"4{x}1", 0) for x in range(10)), ("452", 0)])
        if made:
            self.taken.append(self.sent)

    def test_mail_that_is_kept_is_there_whole_and_arrives(self):
        [worker] = self.wait_worker()
        self.faults.write(process=worker, armed=True)
        self.keep()
        for injection in self.failures(self.faults.calls(), without=DEADLY):
            [worker] = self.wait_worker()
            self.faults.write(*injection, process=worker, armed=True)
            with self.subTest(injection=str(injection)):
                self.keep()
        self.sink.replies = {}
        self.stop(self.gateway)
        self.mark()
        self.recover()
        numbers = sorted(int(re.search(rb"^Subject: (\d+)\r$", one.content, re.MULTILINE)[1]) for one in self.sink.messages)
        self.assertEqual(numbers, self.taken)
        self.assertEqual(self.files(), {})


class Retrying(Deferred):
    def a_try(self, waiting, injection=()):
        """One pass with this failure, then what the next start makes of it."""
        self.lay(waiting)
        self.mark()
        self.faults.write(*injection, armed=torture_case.FROM_FIRST_LOCK)
        self.one_pass(self.faults.environment)
        self.faults.arm(False)

    def torture(self, owed, told=(), replies=None):
        self.begin()
        waiting = self.kept([*owed, *told])
        self.sink.replies = replies or {}
        self.a_try(waiting)
        calls = self.faults.calls()
        for injection in self.failures(calls, PASSES):
            with self.subTest(injection=str(injection)):
                self.a_try(waiting, injection)
                self.recover()
                self.judge(owed, told)

    def test_mail_arrives_once_calls_go_through_again(self):
        self.torture([STAFF, crash_case.DORA])

    def test_sender_is_told_once_calls_go_through_again(self):
        self.torture([], [STAFF], {f"RCPT {STAFF}": "550 5.1.1 who?"})


if __name__ == "__main__":
    unittest.main()
