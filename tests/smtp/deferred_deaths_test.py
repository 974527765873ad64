"""Processes that die while mail waits: what was told 250 arrives, and what arrives twice was counted."""
import collections
import contextlib
import os
import pathlib
import random
import signal
import threading
import unittest

import harness
import mail_sink
import smtp_case
from deferred_case import NO_FILE, RESENT, DeferredCase, numbered
from smtp_case import DEFERRED

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


if __name__ == "__main__":
    unittest.main()
