"""A real mail server behind the gateway, which is stopped, killed and started: all that was taken is in its queue."""
import collections
import contextlib
import signal
import threading
import unittest

import harness
import smtp_case
from deferred_case import GIVEN_UP, RESENT, DeferredCase, numbered
from postfix import Postfix, is_available
from smtp_case import DEFERRED

STEPS = 20 if harness.FULL else 2  # times that it goes
MAILS = 20  # for each time that it goes, and as many for each that it comes


@unittest.skipUnless(is_available(), "Postfix is not installed, or not for this user")
class NextPostfix(DeferredCase):
    def begin_behind(self):
        self.postfix = Postfix(self.root.path / "postfix")
        self.addCleanup(self.postfix.stop)
        self.postfix.start()
        self.begin(smtp={"RelayPort": self.postfix.port})
        self.retryer()
        for event in (RESENT, DEFERRED, (12000, None)):
            self.expect(*event, at_least=0)

    def send(self, numbers):
        for number in numbers:
            with contextlib.closing(smtp_case.Client(self.port)) as client:
                self.assertRegex(client.mail(numbered(number)), r"^250 ")

    def while_sending(self, first, act):
        """What becomes of Postfix while mails come in, and then some more."""
        sender = threading.Thread(target=self.send, args=(range(first, first + MAILS),))
        sender.start()
        act()
        sender.join()

    def test_has_all_mail_that_was_taken_however_it_stops(self):
        self.begin_behind()
        for step in range(STEPS):
            how = signal.SIGKILL if step % 2 else signal.SIGTERM
            self.while_sending(2 * step * MAILS, lambda: self.postfix.stop(how))
            self.while_sending((2 * step + 1) * MAILS, self.postfix.start)
        self.wait_empty()
        sent = {f"<{number}@outside.example>" for number in range(2 * STEPS * MAILS)}
        queued = self.postfix.queued()
        arrived = collections.Counter(self.postfix.message_ids(one["queue_id"] for one in queued))
        again, resent = len(queued) - len(arrived), self.counters().get("smtp.messages.resent", 0)
        print(f"\ntaken {len(sent)}; in Postfix's queue {len(queued)}; a second time {again}, counted {resent}", flush=True)
        self.assertEqual(self.postfix.requests(), len(queued))
        self.assertEqual(set(arrived), sent)
        self.assertLessEqual(again, resent)
        self.assertEqual(self.events(*GIVEN_UP), [])
        self.assert_nothing_left()


if __name__ == "__main__":
    unittest.main()
