"""Every call that changes what is on disk may be the last while a mail goes into quarantine, or the power goes after it:
the mail is with its client, or waits, or is in quarantine; and nobody else has it."""
import contextlib
import itertools
import random
import unittest

import smtp_case
from crash_case import IN_PART, INSTEAD, LARGE, CrashCase
from deferred_case import QUARANTINED
from lost_writes import Disk, losses
from rmd_files import is_whole
from smtp_case import BOARD, PHRASE, RULE_HIT

LEAST = 6
FOUND = LARGE + f"about {PHRASE}\r\n".encode()
TAKEN = b"250 2.0.0 accepted"


class Quarantine(CrashCase):
    phrase = "QUARANTINE"

    def setUp(self):
        super().setUp()
        for event in (RULE_HIT, QUARANTINED):
            self.expect(*event, at_least=0)

    def in_quarantine(self):
        """What is there is whole, but for what is not finished."""
        held = {name: content for name, content in self.files(self.quarantine).items() if name.endswith(".rmd")}
        self.assertTrue(all(map(is_whole, held.values())))
        return held

    def mail(self):
        """Sends one until it is taken: whoever heard nothing sends again. How often it was sent."""
        for tries in itertools.count(1):
            with contextlib.suppress(OSError), contextlib.closing(smtp_case.Client(self.port)) as client:
                if client.mail(FOUND).startswith("250"):
                    return tries

    def found_later(self):
        """A mail that waits, and that signatures find by now which did not when it came."""
        waiting = self.kept([BOARD], FOUND)
        (name,) = waiting
        self.rewrite(self.directory / name, rb"^engines .*$", lambda old: b"engines " + b"x" * (len(old[0]) - 8))
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace('<set name="Enabled">false</set>', ""))
        return self.files()

    def test_gateway_that_dies_while_it_holds_a_mail_has_told_nobody_that_it_has_it(self):
        self.begin(environment=self.dying)

        def hold():
            before = self.in_quarantine()
            tries = self.mail()
            self.assertIn(len(self.in_quarantine()) - len(before), range(1, tries + 1))
        self.assertGreater(self.each_call(hold), LEAST)
        self.stop(self.gateway)
        self.gateway = self.launch(environment=self.later())
        self.wait_worker()
        self.assertEqual(set(self.files(self.quarantine)), set(self.in_quarantine()))
        self.assertEqual((self.files(), self.left_in_spool(), self.sink.messages), ({}, [], []))

    def test_retryer_that_dies_while_it_moves_a_mail_into_quarantine_leaves_it_there_once(self):
        self.begin()
        waiting = self.found_later()

        def act():
            self.lay(waiting)
            self.lay({}, self.quarantine)
            self.one_pass(self.dying)
            self.recover()
            self.assertEqual(len(self.in_quarantine()), 1)
            self.assertEqual(set(self.files(self.quarantine)), set(self.in_quarantine()))
            self.assertEqual((self.files(), self.left_in_spool(), self.sink.messages), ({}, [], []))
        self.assertGreater(self.each_call(act, [INSTEAD, IN_PART]), LEAST)

    def states_after_each(self, calls, waiting=()):
        """(whether the client was told that it is taken, what is left of those that wait, and of the quarantine)"""
        chance, both = random.Random(1), (Disk(self.directory, waiting), Disk(self.quarantine))
        for count in range(len(calls) + 1):
            for disk in both if count else ():
                disk.follow(calls[count - 1])
            told = any(call.data.startswith(TAKEN) for call in calls[:count])
            for waits, held in itertools.product(*(losses(disk, chance, 3) for disk in both)):
                yield told, waits, held

    def test_power_may_go_while_the_gateway_holds_a_mail(self):
        self.begin(environment=self.recorded)
        self.mail()
        self.stop(self.gateway)  # what went out is recorded behind that
        states = list(self.states_after_each(self.calls()))
        self.assertTrue(any(told for told, _, _ in states))
        for told, _, held in states:
            self.assertTrue(all(is_whole(content) for name, content in held.items() if name.endswith(".rmd")))
            self.assertGreaterEqual(sum(name.endswith(".rmd") for name in held), int(told))

    def test_power_may_go_while_a_retryer_moves_a_mail_into_quarantine(self):
        self.begin()
        waiting = self.found_later()
        self.one_pass(self.recorded)
        states = list(self.states_after_each(self.calls(), waiting))
        self.assertTrue(any(not waits for _, waits, _ in states))
        for _, waits, held in states:
            self.assertTrue(all(is_whole(content) for name, content in held.items() if name.endswith(".rmd")))
            self.assertTrue(waits or any(name.endswith(".rmd") for name in held), "neither waits nor is held")


if __name__ == "__main__":
    unittest.main()
