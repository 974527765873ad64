"""No scan is lost: each one that was asked for has one outcome, in the counters and in the events alike, whatever the
engines do; and nothing that they did not look at goes on."""
import contextlib
import os
import signal
import unittest

import harness
from scan_case import OnAFullDisk, ScanCase
from smtp_case import (ACCEPTED, BOARD, CLEANED, DEFERRED, EICAR, ENGINE_FAILED, FILE_HIT, NOT_SCANNED, PHRASE,
                       POLICY_REFUSED, REFUSED, RULE_HIT, SALES, SCAN_FAILED, SPOOL_FAILED, STAFF, VIRUS, body,
                       nested, with_attachment)

FAULTY, ENGINES = (os.environ.get(name) for name in ("VELT_FAULTY_ENGINES", "VELT_ENGINES"))
LARGEST = 256 * 1024  # bytes of a file where the disk is full


def faulty(fault):
    """A message that the engines fail on."""
    return b"X-Fault: " + fault.encode() + b"\r\n" + body(fault)


def padded(content, size):
    """The message with so many bytes, through a preamble before its first part."""
    head, rest = content.split(b"\r\n\r\n", 1)
    lines, tail = divmod(size - len(content), 78)
    if tail < 2:
        lines, tail = lines - 1, tail + 78
    return head + b"\r\n\r\n" + (b"z" * 76 + b"\r\n") * lines + b"z" * (tail - 2) + b"\r\n" + rest


class FaultyCase(ScanCase):
    av, phrase = "REPLACE", "LOG"

    def setUp(self):
        super().setUp()
        self.wait_file = self.root.path / "engines-wait"
        self.away_file = self.root.path / "engines-away"

    def launch(self, options=("-d",), arguments=(), environment=None):
        return super().launch(options, arguments, {
            "LD_PRELOAD": FAULTY, "VELT_ENGINES": ENGINES, "VELT_ENGINES_WAIT": str(self.wait_file),
            "VELT_ENGINES_AWAY": str(self.away_file), **(environment or {})})

    def send_alone(self, content):
        """A client that has sent this message, and not read what becomes of it."""
        client = self.client()
        client.hello()
        client.envelope()
        client.ask("DATA")
        client.send(content + b".\r\n")
        return client

    def send_slow(self):
        """A client whose message is in the engines until there is no wait_file."""
        return self.send_alone(faulty("slow"))

    def assert_unanswered(self, client):
        """The client keeps its message."""
        with contextlib.suppress(ConnectionResetError):
            self.assertEqual(client.file.read(), b"")


class Faults(FaultyCase):
    FAILING = ("no-object", "no-verdict", "exception", "foreign-exception", "memory", "error", "no-action",
               "unknown-action", "modified", "limit-no-object", "limit-no-verdict", "limit-exception", "limit-error")

    def test_each_way_to_fail_defers_with_one_event_and_one_counter(self):
        self.begin()
        self.provokes(DEFERRED, SCAN_FAILED, FILE_HIT)
        client = self.client()
        for number, fault in enumerate(self.FAILING, 1):
            self.assertRegex(client.mail(faulty(fault)), r"^451 4\.7\.1 message could not be checked", fault)
            self.assertEqual(self.counted()["failed"], number, fault)
            self.assertEqual(len(self.noted(SCAN_FAILED, number)), number, fault)
            self.assertTrue(self.noted(SCAN_FAILED, number)[-1]["values"]["smtp_finding"], fault)
        self.assertRegex(client.mail(), r"^250 ")
        self.assert_conserved(clean=1, failed=len(self.FAILING))
        self.assert_nothing_left()

    def test_what_was_found_and_what_was_not_have_their_outcome(self):
        self.begin()
        self.provokes(CLEANED, RULE_HIT, FILE_HIT, POLICY_REFUSED, REFUSED)
        client = self.client()
        for content, answer in ((body(), "250"), (with_attachment(EICAR), "250"), (body(PHRASE), "250"),
                                (nested(12), "554"), (faulty("limit-sound"), "250")):
            self.assertRegex(client.mail(content), "^" + answer)
        self.assert_conserved(clean=1, acted=4)

    def test_each_identity_of_a_message_has_an_outcome_of_its_own(self):
        self.begin()
        self.provokes(RULE_HIT, DEFERRED, SCAN_FAILED)
        client = self.client()
        self.assertRegex(client.mail(body(PHRASE), [STAFF, BOARD]), r"^250 ")
        self.assert_conserved(acted=1, clean=1)
        self.assertRegex(client.mail(faulty("exception"), [STAFF, BOARD]), r"^451 ")
        self.assert_conserved(acted=1, clean=1, failed=2)

    def test_a_slow_scan_is_asked_for_and_has_its_outcome_when_it_is_done(self):
        self.begin()
        self.wait_file.touch()
        client = self.send_slow()
        harness.wait_until(lambda: self.counted()["asked"] == 1, "a scan that is asked for")
        self.assertRegex(self.client().mail(), r"^250 ", "another session is not kept")
        self.assertEqual(self.counted(), {"asked": 2, "clean": 1, "acted": 0, "failed": 0, "null": 0})
        self.wait_file.unlink()
        self.assertRegex(client.read(), r"^250 ")
        self.assert_conserved(clean=2)

    def test_a_scan_that_ends_with_its_process_is_the_only_one_without_an_outcome(self):
        self.begin()
        victim = self.workers()[0]
        self.expect_end(victim)
        self.assert_unanswered(self.send_alone(faulty("death")))
        self.wait_gone(victim)
        self.wait_event(10000, 54, count=2)
        self.assertRegex(self.client().mail(), r"^250 ")
        self.assert_conserved(clean=1, lost=1)


class OnThreads(FaultyCase):
    def test_a_pool_of_two_scans_and_what_finds_it_busy_is_scanned_by_its_session(self):
        self.begin(scanning={"MaxScannerThreads": 1, "InitialScannerThreads": 1})
        self.provokes(RULE_HIT, DEFERRED, SCAN_FAILED)
        self.wait_file.touch()
        slow = [self.send_slow(), self.send_slow()]
        harness.wait_until(lambda: self.counters("scanner.")["threads.scans"] == 2, "two scans on threads")
        client = self.client()
        self.mail_of_both_fates(client)
        # One for the mail that is scanned, and one for each identity of the one whose scans fail.
        self.assertEqual(self.counters("scanner.")["inline.scans"], 3)
        self.wait_file.unlink()
        for one in slow:
            self.assertRegex(one.read(), r"^250 ")
        self.mail_of_both_fates(client)
        seen = self.counters("scanner.")
        self.assertEqual((seen["threads.started"], seen["threads.scans"], seen["inline.scans"]), (2, 6, 3))
        self.assert_conserved(acted=2, clean=4, failed=4)

    def mail_of_both_fates(self, client):
        """To two identities each, which take a thread each."""
        self.assertRegex(client.mail(body(PHRASE), [STAFF, BOARD]), r"^250 ")
        self.assertRegex(client.mail(faulty("exception"), [STAFF, BOARD]), r"^451 ")


class NoEngines(FaultyCase):
    def test_what_nobody_scans_is_deferred_until_somebody_does(self):
        self.away_file.touch()
        self.begin()
        self.provokes(DEFERRED, NOT_SCANNED)
        client = self.client()
        self.assertRegex(client.mail(), r"^451 4\.7\.1 message could not be checked")
        self.assertRegex(client.mail(recipients=[STAFF, BOARD]), r"^451 4\.7\.1 ")
        self.assert_conserved(null=3)
        self.away_file.unlink()
        self.assertRegex(client.mail(), r"^250 ")
        self.assert_conserved(null=3, clean=1)


class Agents(FaultyCase):
    """Who scans in the place of the engines."""

    CLEAN = "msr.sr.result\nproperty .E_SR_TYPE sL 7\n\n\n"

    def test_what_an_agent_passes_without_a_look_is_deferred(self):
        self.begin(scanning={"ScannerAgent": "null"})
        self.provokes(DEFERRED, NOT_SCANNED)
        client = self.client()
        self.assertRegex(client.mail(), r"^451 4\.7\.1 message could not be checked")
        self.assertRegex(client.mail(with_attachment(EICAR), [STAFF, BOARD]), r"^451 4\.7\.1 ")
        self.assertRegex(client.mail(recipients=[STAFF, BOARD, SALES]), r"^451 4\.7\.1 ")
        self.assert_conserved(null=6)

    def test_what_a_message_says_of_itself_is_done_by_the_agent_of_tests(self):
        self.begin(scanning={"ScannerAgent": "debug"})
        self.provokes(DEFERRED, NOT_SCANNED, SCAN_FAILED, REFUSED, POLICY_REFUSED, ENGINE_FAILED)
        client = self.client()
        logged = "msr.triggered sl 1\nmsr.action ss 3\nLOG\n\n"
        for script, answer in (("end\n" + self.CLEAN, "250"), ("scantime 100000\nend\n" + self.CLEAN, "250"),
                               ("end\n" + logged, "250"), ("end\n" + logged.replace("3\nLOG", "4\nDENY"), "554"),
                               ("end\nmsr.nonsense sl 1\n\n", "451"), ("end\n" + logged.replace("LOG", "LOW"), "451"),
                               ("end\nmsr.master.result\nerrorstatus sl 1\n\n" + logged, "451"),
                               ("end\n", "451"), ("no script\n", "451")):
            self.assertRegex(client.mail(self.script(script)), "^" + answer, script)
        self.assert_conserved(clean=2, acted=2, failed=3, null=2)

    @unittest.skipIf(harness.SANITIZED, "a sanitizer reports the fault")
    def test_the_agent_of_tests_ends_its_process_on_request_and_with_it_one_scan(self):
        self.begin(scanning={"ScannerAgent": "debug"})
        victim = self.workers()[0]
        self.expect_end(victim)
        self.assert_unanswered(self.send_alone(self.script("segv now\nend\n")))
        self.wait_gone(victim)
        self.wait_event(10000, 54, count=2)
        self.assertRegex(self.client().mail(self.script(f"end\n{self.CLEAN}")), r"^250 ")
        self.assert_conserved(clean=1, lost=1)

    def test_the_agent_of_tests_spins_on_request_unseen_by_the_watch_and_keeps_nobody_else(self):
        self.begin(scanning={"ScannerAgent": "debug", "FlatSpinTimeout": 1})
        victim = self.workers()[0]
        spinning = self.send_alone(self.script("byebye now\nend\n"))
        harness.wait_until(lambda: self.counted()["asked"] == 1, "a scan that is asked for")
        slow = self.script(f"scantime 2200000\nend\n{self.CLEAN}")  # microseconds, in set-up as well
        self.assertRegex(self.client().mail(slow), r"^250 ")
        self.wait_event(*ACCEPTED)  # what is killed no longer writes it
        self.assertEqual(self.counters("scanner.").get("flatspins", 0), 0)
        self.expect_end(victim)
        os.kill(victim, signal.SIGKILL)
        self.assert_unanswered(spinning)
        self.wait_gone(victim)
        self.wait_event(10000, 54, count=2)
        self.assert_conserved(clean=1, lost=1)

    def test_a_verdict_for_another_identity_is_none(self):
        """The agent of tests knows of no identities: what it says is for those who have none."""
        self.begin(scanning={"ScannerAgent": "debug"})
        self.provokes(DEFERRED, SCAN_FAILED)
        client = self.client()
        for action in ("LOG", "DENY"):
            denied = self.script(f"end\nmsr.triggered sl 1\nmsr.action ss {len(action)}\n{action}\n\n")
            self.assertRegex(client.mail(denied, [BOARD]), r"^451 4\.7\.1 ", action)
        self.assertRegex(client.mail(self.script(f"end\n{self.CLEAN}"), [STAFF, BOARD]), r"^451 4\.7\.1 ")
        self.assert_conserved(clean=1, failed=3)

    def test_a_fallback_that_nobody_looks_in_is_nobodys_scan(self):
        """The verdict names a limit; behind it there is none for the second scan."""
        self.begin(scanning={"ScannerAgent": "debug"})
        self.provokes(DEFERRED, NOT_SCANNED, FILE_HIT)
        limit = (self.script("end\nmsr.triggered sl 1\nmsr.master.result\nproperty .E_SR_TYPE sL 4\n"
                             "property .E_SR_DOS_TYPE ss 4\n") +
                 "SIZE".encode("utf-32-le") + b"\r\nmsr.action ss 3\r\nLOG\r\n")
        self.assertRegex(self.client().mail(limit), r"^451 4\.7\.1 ")
        self.assert_conserved(null=1)

    def test_a_message_that_replaces_itself_goes_on_as_what_it_says(self):
        self.begin(scanning={"ScannerAgent": "debug"})
        verdict = "msr.triggered sl 1\nmsr.modified sl 1\nmsr.action ss 5\nCLEAN\n"
        replaced = b"Subject: other\r\n\r\nthe new content\r\n"
        content = self.script("modified on\nend\n" + verdict) + replaced
        self.assertRegex(self.client().mail(content), r"^250 ")
        self.assert_conserved(acted=1)
        self.assertEqual(self.sink.messages[0].content, replaced)

    @staticmethod
    def script(text):
        return f"From: <a@outside.example>\r\nSubject: script\r\n\r\n{text}".replace("\n", "\r\n").replace(
            "\r\r", "\r").encode()


class FullDisk(OnAFullDisk, FaultyCase):
    largest = LARGEST

    def test_a_message_that_finds_no_room_asks_for_no_scan(self):
        self.begin(scanning={"MaxScanMem": 16})
        self.provokes(DEFERRED, SPOOL_FAILED)
        client = self.client()
        self.assertRegex(client.mail(body(("z" * 76 + "\r\n") * 10000)), r"^45[12] 4\.3\.1 ")
        self.assertRegex(client.mail(), r"^250 ")
        self.assert_conserved(clean=1)

    def test_a_new_form_that_finds_no_room_is_a_scan_that_failed(self):
        """The text in the place of a virus is longer than that: of messages that just fit, some do not fit then."""
        self.begin(scanning={"MaxScanMem": 16})
        self.provokes(DEFERRED, SCAN_FAILED, SPOOL_FAILED, CLEANED, VIRUS, ENGINE_FAILED)
        client, answers = self.client(), []
        for size in range(LARGEST - 600, LARGEST + 1, 30):
            answers.append(client.mail(padded(with_attachment(EICAR), size)))
        told = [answer[:9] for answer in answers]
        self.assertEqual(sorted(set(told)), ["250 2.0.0", "451 4.7.1", "452 4.3.1"])
        self.assert_conserved(acted=told.count("250 2.0.0"), failed=told.count("451 4.7.1"))
        for stored in self.sink.messages:
            self.assertTrue(stored.content.endswith(b"--b--\r\n"), stored.content[-80:])


if __name__ == "__main__":
    unittest.main()
