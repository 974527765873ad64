"""A release into another file system may end with its process or with the machine, in any call, and what finishes it may,
too: the mail is in quarantine to be released, or is delivered, once."""
import itertools
import random
import unittest

import harness
import small_disk
from crash_case import BEHIND, IN_PART, INSTEAD, LARGE
from deferred_case import HELD, QUARANTINED, RELEASED
from lost_writes import Disk, all_of, losses
from queue_case import QueueCase
from rmd_files import states
from smtp_case import PHRASE, RULE_HIT

MAY_MOUNT = small_disk.permitted()
LEAST = 12  # calls
STATES = None if harness.FULL else 120  # of those that a loss of power may leave
FOUND = LARGE + f"about {PHRASE}\r\n".encode()


@unittest.skipUnless(MAY_MOUNT, "mounting is not permitted here")
class AnotherFileSystem(QueueCase):
    def setUp(self):
        super().setUp()
        self.addCleanup(small_disk.SmallDisk(self.directory, size="4m", inodes=256).close)
        for event in (RULE_HIT, QUARANTINED, RELEASED, HELD):
            self.expect(*event, at_least=0)

    def left(self):
        """What is swept when it is old does not count."""
        return [name for place in (self.directory, self.quarantine) for name in self.files(place)
                if not name.endswith(".tmp")]

    def die_and_finish(self, call, manner):
        """Whether a release dies in this call. The next one to look after it dies, too."""
        name, before = self.hold(FOUND), len(self.sink.messages)
        self.arm(call, manner)
        self.queue_that(self.dying, "release", name)
        hit = self.was_hit()
        self.arm(1 + call % 9, manner)
        self.queue_that(self.dying, "list")
        self.was_hit()
        if call % 2:
            self.one_pass()  # which finishes, too
        if self.held():
            self.queue("release", name)
        self.queue("list")
        self.one_pass()
        self.assertEqual(len(self.sink.messages), before + 1)
        self.assertEqual(self.left(), [])
        return hit

    def test_mail_is_delivered_once_whichever_call_is_the_last(self):
        self.begin()
        for manner in (INSTEAD, IN_PART, BEHIND) if harness.FULL else (INSTEAD,):
            for call in itertools.count(1):
                with self.subTest(call=call, manner=manner):
                    if not self.die_and_finish(call, manner):
                        break
            print(f"\n  {call - 1} calls", end="", flush=True)
            self.assertGreater(call, LEAST)

    def test_copy_that_came_to_no_end_is_swept_also_where_no_mail_is_kept_for_later(self):
        self.begin(smtp={"StoreAndForward": False})
        name = self.hold(FOUND)
        for call in itertools.count(1):
            self.arm(call)
            self.queue_that(self.dying, "release", name)
            if self.files():
                break
        self.assertEqual((list(self.files()), self.held()), ([name + ".rmd.tmp"], [name + ".rmd"]))
        self.arm(0)
        self.stop(self.gateway)
        self.gateway = self.launch(environment=self.later())
        self.wait_worker()
        self.assertEqual((self.files(), self.held()), ({}, [name + ".rmd"]))

    def recorded_release(self):
        """The quarantine before, and the calls."""
        name = self.hold(FOUND)
        held = self.files(self.quarantine)
        self.queue_that(self.recorded, "release", name)
        self.assertEqual((self.held(), len(self.waiting())), ([], 1))
        return held, self.calls()

    def test_power_may_go_and_the_mail_is_there_once(self):
        self.begin()
        chance, both, laid = random.Random(1), [], []
        held, calls = self.recorded_release()
        both = Disk(self.directory), Disk(self.quarantine, held)
        for count in range(len(calls) + 1):
            for disk in both if count else ():
                disk.follow(calls[count - 1])
            laid += ((count, *state) for state in itertools.product(*(losses(disk, chance, 2) for disk in both)))
        self.assertGreater(len(laid), len(calls))
        for count, waits, held in chance.sample(laid, min(STATES or len(laid), len(laid))):
            with self.subTest(after=count):
                self.lay(waits)
                self.lay(held, self.quarantine)
                there = self.queue("list")
                self.assertEqual([(one["problem"], one["recipients"][0]["state"] != "held" or one["queue"] == "quarantine")
                                  for one in there], [(None, True)])

    def test_power_may_go_when_the_mail_was_delivered_and_it_is_nowhere_any_more(self):
        self.begin()
        held, calls = self.recorded_release()
        chance, there, before = random.Random(1), Disk(self.directory), Disk(self.quarantine, held)
        delivered = 0
        for call in calls:
            there.follow(call)
            before.follow(call)
            files = [content for name, content in there.left(all_of, all_of).items() if name.endswith(".rmd")]
            if not files or states(files[0]) != b"w":
                continue
            delivered += 1
            for left in losses(before, chance, 2):
                self.lay({})
                self.lay(left, self.quarantine)
                self.assertEqual((self.queue("list"), self.left()), ([], []))
        self.assertGreater(delivered, 1)

    def test_two_of_them_and_two_retryers_deliver_each_mail_once(self):
        self.assert_delivered_once_by_two_tools_and_two_retryers()


if __name__ == "__main__":
    unittest.main()
