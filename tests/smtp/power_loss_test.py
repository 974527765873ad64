"""The power goes after any of the calls that change what is on disk: of what was not flushed anything may be lost. The
retryer finds that, and the promise is the same: what was told 250 arrives, none twice but those that were counted."""
import random
import re
import unittest

import harness
from crash_case import DORA, Arrived, CrashCase
from lost_writes import Disk, all_of, losses
from smtp_case import STAFF

DRAWS = 50 if harness.FULL else 3  # at random, of what is lost after each call
TAKEN = b"250 2.0.0 accepted"


def sent_in(calls, refused=()):
    """The mails whose last dot went out in these calls: the next server has them."""
    talk = b"".join(call.data for call in calls if call.kind == "sent")
    for one in talk.split(b"MAIL FROM:")[1:]:
        head, data, rest = one.partition(b"DATA\r\n")
        content, dot, _ = rest.partition(b"\r\n.\r\n")
        recipients = [name.decode() for name in re.findall(rb"RCPT TO:<(.*?)>", head) if name.decode() not in refused]
        if data and dot:
            yield Arrived(recipients, (content + b"\r\n").replace(b"\n..", b"\n."))


class PowerLoss(CrashCase):
    def states(self, before, calls, refused=()):
        """What a loss of power leaves after each call, with what the next server and the client have heard by then."""
        chance, disk, seen = random.Random(1), Disk(self.directory, before), []
        for count in range(len(calls) + 1):
            if count:
                disk.follow(calls[count - 1])
            heard = (list(sent_in(calls[:count], refused)), any(call.data.startswith(TAKEN) for call in calls[:count]))
            for left in losses(disk, chance, DRAWS):
                if (left, heard) not in seen:
                    seen.append((left, heard))
        self.assertEqual(disk.left(all_of, all_of), self.files(), "the disk as it is")
        print(f"\n  {len(calls)} calls leave {len(seen)} states", end="", flush=True)
        return seen

    def try_each(self, states, owed, told=(), acknowledged=True):
        for left, (before, taken) in states:
            with self.subTest(left={name: len(content) for name, content in left.items()}, sent=len(before), taken=taken):
                self.lay(left)
                self.mark()
                self.recover()
                self.judge(owed, told, before, acknowledged or taken)

    def test_mail_that_was_kept_is_there(self):
        self.begin(environment=self.recorded)
        waiting = self.kept()
        self.assertEqual(len(waiting), 1)
        self.try_each(self.states({}, self.calls()), [STAFF], acknowledged=False)

    def retry(self, owed, told=(), replies=None, later=None):
        self.begin()
        waiting = self.kept([*owed, *told])
        self.lay(waiting)
        self.sink.replies = replies or {}
        self.one_pass(self.recorded)
        refused = [key[5:] for key in replies or {}]
        states = self.states(waiting, self.calls(), refused)
        self.sink.replies = later or {}
        self.try_each(states, owed, told)

    def test_mail_that_was_delivered_is_counted_where_it_is_sent_again(self):
        self.retry([STAFF])

    def test_recipients_who_were_put_off_wait(self):
        self.retry([STAFF, DORA], replies={f"RCPT {STAFF}": "451 4.2.1 later"})

    def test_sender_is_told_of_what_was_given_up(self):
        refused = {f"RCPT {STAFF}": "550 5.1.1 who?"}
        self.retry([], [STAFF], replies=refused, later=refused)


if __name__ == "__main__":
    unittest.main()
