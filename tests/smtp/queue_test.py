"""velt-queue beside gateways and retryers that run: what is released arrives once, and no mail is lost whenever it ends."""
import concurrent.futures
import os
import pathlib
import re
import shlex
import subprocess
import threading
import time
import unittest

import harness
from crash_case import BEHIND, IN_PART, INSTEAD
from deferred_case import GIVEN_UP, QUARANTINED, RELEASED, numbered
from queue_case import TOOL, QueueCase
from smtp_case import BOARD, DEFERRED, PHRASE, RULE_HIT, SENDER, STAFF, body

SOURCE = pathlib.Path(__file__).resolve().parents[2]
PAGE = SOURCE / "docs/velt-queue.md"
MANNERS = (INSTEAD, IN_PART, BEHIND) if harness.FULL else (INSTEAD,)


class Release(QueueCase):
    def test_released_mail_is_delivered_once_and_not_judged_again(self):
        self.begin()
        self.provokes(RULE_HIT, QUARANTINED, RELEASED)
        content = body("about " + PHRASE)
        name = self.hold(content)
        self.rewrite(self.quarantine / (name + ".rmd"), rb"^engines .*$", lambda old: b"engines " + b"x" * (len(old[0]) - 8))
        self.retryer()
        self.assertEqual(self.queue("release", name)[0]["done"], "released")
        (stored,) = self.sink.wait_messages(1)
        self.assertEqual((stored.sender, stored.recipients), (SENDER, [STAFF]))
        self.assertEqual(self.content_of(stored), content)
        self.wait_empty()
        self.assertEqual(self.held(), [])
        (event,) = self.wait_event(*RELEASED)
        held = self.events(*QUARANTINED)[0]["values"]
        self.assertEqual(event["values"]["audit_id"], held["audit_id"])
        self.assertRegex(event["values"]["smtp_reply"], "^released by ")
        self.assertEqual(self.counters()["smtp.messages.released"], 1)
        self.assertEqual(self.counters().get("smtp.retries.scanned", 0), 0)
        self.assertEqual(len(self.sink.messages), 1)

    def test_age_of_a_released_mail_counts_from_its_release(self):
        self.begin(smtp={"GiveUpAfter": 3600})
        self.provokes(RULE_HIT, QUARANTINED, RELEASED)
        name = self.hold()
        self.rewrite(self.quarantine / (name + ".rmd"), rb"^taken .*$", b"taken 1700000000")
        self.away()
        self.retryer()
        self.queue("release", name)
        self.wait_tries(2)
        self.assertEqual(self.waiting(), [name + ".rmd"])
        self.back()
        self.assertEqual(self.sink.wait_messages(1)[0].recipients, [STAFF])
        self.wait_empty()

    def test_release_that_ends_in_any_call_leaves_the_mail_whole_and_a_second_one_has_it_delivered_once(self):
        self.begin()
        self.provokes(RULE_HIT, QUARANTINED, RELEASED)

        def act():
            name = self.hold()
            before = len(self.sink.messages)
            self.queue_that(self.dying, "release", name)
            there = self.queue("list", name)
            self.assertEqual([one["problem"] for one in there], [None])
            if there[0]["queue"] == "quarantine":
                self.queue("release", name)
            self.one_pass()
            self.assertEqual(len(self.sink.messages), before + 1)
            self.assertEqual((self.held(), self.waiting()), ([], []))
        self.assertGreater(self.each_call(act, MANNERS), 3)


class Undecided(QueueCase):
    """A mail that is held and may still go back to its client, for another recipient's sake."""

    def test_mail_that_may_still_go_back_to_its_client_is_neither_released_nor_deleted(self):
        self.begin(smtp={"StoreAndForward": False})
        self.provokes(RULE_HIT, QUARANTINED, DEFERRED)
        asked, decided = threading.Event(), threading.Event()

        def answer(_):
            asked.set()
            decided.wait(harness.LIMIT)
            return "451 4.3.2 later"
        self.sink.replies = {"MAIL": answer}
        with concurrent.futures.ThreadPoolExecutor(1) as client:
            reply = client.submit(self.client().mail, body(PHRASE), [STAFF, BOARD])
            self.assertTrue(asked.wait(harness.LIMIT))
            [there] = self.queue("list")
            self.assertTrue(there["locked"])
            told = [self.queue(what, there["id"], status=1)[0]["problem"] for what in ("release", "delete")]
            decided.set()
            self.assertRegex(reply.result(), r"^451 ")
        self.assertEqual(told, ["somebody works on it; try again"] * 2)
        self.assertEqual((self.held(), self.waiting(), self.sink.messages), ([], [], []))


class Retry(QueueCase):
    def test_mail_that_rests_long_is_tried_now_beside_a_running_retryer(self):
        self.begin(smtp={"RetryPause": 3600, "RetryPauseLimit": 3600}, smtpretryer={"RetryInterval": 3600})
        self.away()
        for number in range(3):
            client = self.client()
            self.assertRegex(client.mail(numbered(number)), r"^250 ")
            client.close()
        self.retryer()
        self.queue("retry", "--all")
        self.wait_tries()
        self.back()
        self.assertEqual(len(self.queue("list")), 3)

        def ask_again():  # one that is being tried just then is left alone
            subprocess.run(self.command("retry", "--all"), check=False, capture_output=True)
            return not self.waiting()
        harness.wait_until(ask_again, "an empty deferred directory")
        self.assertEqual(len(self.sink.wait_messages(3)), 3)

    def test_mail_that_nobody_looked_after_for_long_is_not_given_up_for_that(self):
        self.begin(smtp={"GiveUpAfter": 3600})
        (name,) = self.kept()
        environment, began = self.later(), time.time()
        harness.wait_until(lambda: time.time() > began + 1, "the time from which on the clock was set")
        self.queue("retry", name.removesuffix(".rmd"), environment=environment)
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        self.one_pass(environment)
        self.wait_tries()
        self.assertEqual(self.events(*GIVEN_UP), [])
        self.assertEqual(self.waiting(), [name])

    def test_mail_stays_whole_whatever_call_the_order_to_try_it_ends_in(self):
        self.begin()
        self.away()
        self.assertRegex(self.client().mail(), r"^250 ")
        name = self.waiting()[0].removesuffix(".rmd")

        def act():
            self.queue_that(self.dying, "retry", name)
            self.assertEqual(self.queue("list", name)[0]["problem"], None)
        self.assertGreater(self.each_call(act, MANNERS), 2)
        self.back()
        self.one_pass()
        self.assertEqual(len(self.sink.messages), 1)


class Together(QueueCase):
    def test_two_of_them_and_two_retryers_deliver_each_mail_once(self):
        self.assert_delivered_once_by_two_tools_and_two_retryers()

    def test_what_is_deleted_is_not_delivered(self):
        self.begin()
        self.provokes(RULE_HIT, QUARANTINED)
        self.away()
        self.assertRegex(self.client().mail(body(PHRASE), [STAFF, BOARD]), r"^250 ")
        self.assertEqual((len(self.held()), len(self.waiting())), (1, 1))
        audit = self.queue("list")[0]["audit_id"]
        self.assertEqual(len(self.queue("delete", audit)), 1, "the file of that name")
        self.assertEqual((len(self.held()), len(self.waiting())), (1, 0))
        self.assertEqual(len(self.queue("delete", "--verdict", "*project-name")), 1)
        self.assertEqual(self.held(), [])


class Page(unittest.TestCase):
    """docs/velt-queue.md. With UPDATE=1 its manual is brought up to date."""
    MANUAL = re.compile(r"(?<=^```text\n)(NAME\n.*?)(?=^```$)", re.M | re.S)

    def test_the_manual_is_the_tools_own(self):
        said = subprocess.run([TOOL, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout
        if os.environ.get("UPDATE"):
            PAGE.write_text(self.MANUAL.sub(lambda _: said, PAGE.read_text()))
        self.assertEqual(self.MANUAL.findall(PAGE.read_text()), [said])

    def test_each_command_is_one(self):
        commands = re.findall(r"^\$ (velt-queue .*)$", PAGE.read_text(), re.M)
        self.assertGreater(len(commands), 5)
        for command in commands:
            words = shlex.split(re.split("[|>]", command)[0])[1:]
            done = subprocess.run([TOOL, "--root", "/nowhere", *words], capture_output=True, text=True, check=False)
            self.assertRegex(done.stderr, r"^velt-queue: /nowhere/config/qxxmlconf: ", command)

    def test_links_are_there(self):
        for link in re.findall(r"\]\(([^)#]+)", PAGE.read_text()):
            self.assertTrue((PAGE.parent / link).exists(), link)


if __name__ == "__main__":
    unittest.main()
