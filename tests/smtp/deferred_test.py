"""Mail that the next server cannot take: the gateway keeps it, and a retryer delivers it, whatever dies meanwhile."""
import collections
import contextlib
import os
import pathlib
import random
import re
import signal
import subprocess
import threading
import time
import unittest
import zlib
from xml.sax.saxutils import quoteattr

import harness
import mail_sink
import smtp_case
from smtp_case import (BOARD, DEFERRED, FAILED, NOTIFIED, NOT_NOTIFIED, PHRASE, POLICY_REFUSED, REFUSED, RULE_HIT, SENDER,
                       STAFF, UNREACHED, SmtpCase, body)

COUNTERS = os.environ["VELT_COUNTERS"]
RETRYER = ("-d", "-s", "retryer", "-t", "smtp")
WALK, NO_FILE = (70000, 117), (70002, 120)
KEPT, STORE_FAILED, RETRY_FAILED, RETRY_ENDED, GIVEN_UP = (60000, 19), (60000, 20), (60000, 21), (60000, 22), (60000, 23)
RESENT, DAMAGED = (60000, 24), (60000, 25)
WORKER, CLIENT_GONE = (10000, 54), (60000, 14)
COUNT = int(os.environ.get("VELT_DEFERRED_MAILS", 60))
EVERY_SECOND = {"ScanInterval": 1, "RetryInterval": 1, "NewFileDelta": 1}
PATIENT = {"RetryPause": 1, "RetryPauseLimit": 1}


def message_id(content):
    return re.search(rb"^Message-ID: *(.*?)\r$", content, re.MULTILINE | re.IGNORECASE)[1]


def numbered(number):
    return f"Message-ID: <{number}@outside.example>\r\nSubject: {number}\r\n\r\nhello\r\n".encode()


class DeferredCase(SmtpCase):
    routine = {**SmtpCase.routine, WALK: "each walk names the files that it comes by",
               KEPT: "the next server was away", RETRY_ENDED: "a mail has left", FAILED: "the next server was away",
               UNREACHED: "so that it could not be connected", RETRY_FAILED: "also at a later try"}

    def begin(self, smtp=None, **sections):
        given = {"StoreAndForward": True, **PATIENT, "UpstreamFinalTimeout": 5, **(smtp or {})}
        made = super().begin(smtp=given, smtpretryer={**EVERY_SECOND, **sections.pop("smtpretryer", {})}, **sections)
        self.gateway = made
        for name in ("smtp-retryer", "smtp-retryer2"):
            self.root.write(f"{name}-logging.xml", f'<logging><sink type="json" file={quoteattr(str(self.root.log.path))}/>'
                                                   "</logging>\n")
        return made

    @property
    def directory(self):
        return self.root.path / "deferred/smtp"

    def waiting(self):
        """The files that a walk takes."""
        names = (entry.name for entry in self.directory.iterdir()) if self.directory.exists() else ()
        return sorted(name for name in names if name.endswith(".rmd"))

    def wait_empty(self, limit=60):
        harness.wait_until(lambda: not self.waiting(), "an empty deferred directory", limit)

    def retryer(self, options=RETRYER, arguments=(), name="smtp-retryer"):
        made = harness.Daemon(self.root, self.program, name, self.product, options, arguments)
        self.daemons.append(made)
        self._expected.started()
        return made

    def away(self):
        self.sink.refuse_connections()

    def back(self):
        """A server on the same port again, with what it had."""
        before = self.sink
        self.sink = mail_sink.MailSink(before.port)
        self.addCleanup(self.sink.close)

    def wait_tries(self, count=1):
        return harness.wait_until(lambda: len(self.events(*RETRY_FAILED)) >= count or None, f"{count} failed tries")

    def counters(self, name="smtp-retryer"):
        told = subprocess.run([COUNTERS, name], capture_output=True, text=True, env={**os.environ, "VELT_ROOT": str(self.root.path)})
        return dict((line.split()[0], int(line.split()[-1])) for line in told.stdout.splitlines() if line.split())


class Kept(DeferredCase):
    def test_mail_is_kept_while_the_next_server_is_away_and_delivered_when_it_is_back(self):
        self.begin()
        self.away()
        content = body("while you were out\r\n.dot")
        reply = self.client().mail(content, [STAFF, "dora@inside.example"])
        self.assertRegex(reply, r"^250 2\.0\.0 ")
        (name,) = self.waiting()
        audit = self.noted(KEPT)[0]["values"]["audit_id"]
        self.assertEqual(name, audit + ".rmd")
        self.assertIn(audit, reply)
        self.retryer()
        self.wait_tries(2)
        self.assertEqual(self.waiting(), [name])
        self.back()
        (stored,) = self.sink.wait_messages(1)
        self.assertEqual(self.content_of(stored), content)
        self.assertEqual((stored.sender, stored.recipients), (SENDER, [STAFF, "dora@inside.example"]))
        self.assertIn(audit.encode(), stored.content)
        self.wait_empty()
        self.assert_nothing_left()
        self.assertEqual(len(self.sink.messages), 1)

    def test_setting_is_off_by_itself_and_the_client_keeps_the_mail(self):
        self.begin(smtp={"StoreAndForward": False})
        self.provokes(DEFERRED)
        self.away()
        self.assertRegex(self.client().mail(), r"^451 ")
        self.assertEqual(self.waiting(), [])

    def test_mail_that_cannot_be_kept_stays_with_the_client(self):
        self.begin()
        self.provokes(DEFERRED, STORE_FAILED)
        self.directory.rmdir()
        self.directory.write_text("a file in the way")
        self.away()
        self.assertRegex(self.client().mail(), r"^451 ")
        self.directory.unlink()

    def test_some_recipients_wait_and_others_have_it(self):
        self.begin()
        self.sink.replies = {f"RCPT {STAFF}": "451 4.2.1 later"}
        self.assertRegex(self.client().mail(body(), [STAFF, "dora@inside.example"]), r"^250 ")
        self.assertEqual([one.recipients for one in self.sink.wait_messages(1)], [["dora@inside.example"]])
        self.assertEqual(len(self.waiting()), 1)
        self.retryer()
        self.wait_tries()
        self.sink.replies = {}
        self.assertEqual(self.sink.wait_messages(2)[1].recipients, [STAFF])
        self.wait_empty()

    def test_refusal_for_good_of_one_is_told_while_another_waits(self):
        self.begin()
        self.provokes(NOTIFIED)
        self.sink.replies = {f"RCPT {STAFF}": "451 4.2.1 later", "RCPT dora@inside.example": "550 5.1.1 who?"}
        self.assertRegex(self.client().mail(body(), [STAFF, "dora@inside.example"]), r"^250 ")
        (report,) = self.sink.wait_messages(1)
        self.assertEqual((report.sender, report.recipients), ("", [SENDER]))
        self.assertIn(b"dora@inside.example", report.content)
        self.assertNotIn(STAFF.encode(), report.content)
        self.sink.replies = {}
        self.retryer()
        self.assertEqual(self.sink.wait_messages(2)[1].recipients, [STAFF])
        self.wait_empty()

    def test_refusal_for_good_of_all_is_told_to_the_client(self):
        self.begin()
        self.provokes(REFUSED)
        self.sink.replies = {"MAIL": "550 5.7.1 no"}
        self.assertRegex(self.client().mail(), r"^554 5\.7\.1 ")
        self.assertEqual(self.waiting(), [])

    def test_notification_waits_too_while_the_next_server_is_away(self):
        self.begin()
        self.provokes(RULE_HIT, POLICY_REFUSED)
        self.away()
        self.assertRegex(self.client().mail(body(PHRASE), [STAFF, BOARD]), r"^250 ")
        self.assertEqual(len(self.waiting()), 2)
        self.back()
        self.retryer()
        messages = sorted(self.sink.wait_messages(2), key=lambda one: one.recipients)
        self.assertEqual([one.recipients for one in messages], [[SENDER], [BOARD]])
        self.wait_empty()

    def test_client_that_has_left_sends_again_and_nothing_is_kept(self):
        self.begin()
        self.provokes((60000, 14), DEFERRED)
        self.sink.replies = {"DATA": self._leave}
        self.leaving = self.client()
        self.leaving.hello()
        self.leaving.envelope()
        self.leaving.ask("DATA")
        self.leaving.send(body() + b".\r\n")
        self.noted(DEFERRED)
        self.assertEqual(self.waiting(), [])

    def _leave(self, session):
        self.leaving.socket.setsockopt(mail_sink.socket.SOL_SOCKET, mail_sink.socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        self.leaving.close()
        time.sleep(0.2)  # the reset is on its way over loopback
        return "354 go on"


class Retried(DeferredCase):
    def keep(self, count=1, **mail):
        """So many mails that wait, of which the first was sent first."""
        self.away()
        client = self.client()
        for number in range(count):
            self.assertRegex(client.mail(numbered(number), **mail), r"^250 ")
        client.close()
        self.assertEqual(len(self.waiting()), count)

    def test_refusal_for_good_at_a_later_try_is_told_to_the_sender(self):
        self.begin()
        self.provokes(GIVEN_UP)
        self.keep()
        self.back()
        self.sink.replies = {f"RCPT {STAFF}": "550 5.1.1 who?"}
        self.retryer()
        (report,) = self.sink.wait_messages(1)
        self.assertEqual((report.sender, report.recipients), ("", [SENDER]))
        for part in (b"multipart/report; report-type=delivery-status", b"Action: failed\r\nStatus: 5.1.1\r\n",
                     b"Message-ID: <0@outside.example>"):
            self.assertIn(part, report.content)
        self.wait_empty()

    def test_mail_that_waited_too_long_is_given_up_and_its_sender_told(self):
        self.begin(smtp={"GiveUpAfter": 3})
        self.provokes(GIVEN_UP)
        self.keep()
        self.retryer()
        self.noted(GIVEN_UP)
        self.back()
        (report,) = self.sink.wait_messages(1)
        self.assertEqual(report.recipients, [SENDER])
        self.assertRegex(report.content, rb"Status: 4\.4\.")
        self.wait_empty()
        self.assertEqual(len(self.sink.messages), 1)

    def test_nobody_is_told_of_a_notification_that_is_given_up(self):
        self.begin(smtp={"GiveUpAfter": 2})
        self.provokes(GIVEN_UP, NOT_NOTIFIED)
        self.keep(sender="")
        self.retryer()
        self.wait_empty()
        self.noted(NOT_NOTIFIED)

    def test_lost_answer_is_the_only_way_to_a_second_copy_which_is_counted(self):
        self.begin()
        self.provokes(RESENT)
        self.sink.fault = "die-at-end"
        self.assertRegex(self.client().mail(numbered(7)), r"^250 ")
        self.sink.fault = None
        self.retryer()
        (stored,) = self.sink.wait_messages(1)
        self.assertEqual(message_id(stored.content), b"<7@outside.example>")
        resent, kept = self.noted(RESENT)[0], self.noted(KEPT)[0]
        self.assertEqual(resent["values"]["audit_id"], kept["values"]["audit_id"])
        self.wait_empty()
        self.assertEqual(self.counters()["smtp.messages.resent"], 1)

    def test_damaged_file_is_reported_and_stays(self):
        self.begin()
        self.provokes(DAMAGED)
        self.keep(2)
        whole, cut = (self.directory / name for name in self.waiting())
        content = cut.read_bytes()
        cut.write_bytes(content[:-1])
        (self.directory / "foreign.rmd").write_text("not a mail\n")
        self.back()
        self.retryer()
        self.sink.wait_messages(1)
        self.wait_event(*DAMAGED, count=4)
        harness.wait_until(lambda: not whole.exists(), "the end of the whole one")
        self.assertEqual(cut.read_bytes(), content[:-1])
        self.assertEqual({event["values"]["smtp_finding"] for event in self.events(*DAMAGED)},
                         {"file has not the length that it names", "not a file of this kind"})
        cut.write_bytes(content)
        self.sink.wait_messages(2)

    def test_two_retryers_of_one_directory_deliver_each_mail_once(self):
        self.begin()
        self.expect(*NO_FILE, at_least=0)  # the other one may have removed it since the walk saw it
        self.keep(40)
        self.back()
        self.retryer()
        self.retryer(name="smtp-retryer2")
        messages = self.sink.wait_messages(40)
        self.wait_empty()
        self.assertEqual(sorted(int(mail_sink.subject_of(one.content)) for one in self.sink.messages), list(range(40)))
        self.assertEqual(len(messages), 40)

    def test_one_pass_takes_mail_that_rests(self):
        self.begin(smtp={"RetryPause": 3600, "RetryPauseLimit": 3600}, smtpretryer={"RetryInterval": 600})
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        self.assertRegex(self.client().mail(), r"^250 ")
        self.sink.replies = {}
        passing = self.retryer(options=("-p", "-s", "retryer", "-t", "smtp"))
        self.sink.wait_messages(1)
        passing.wait()
        self.assertEqual(self.waiting(), [])

    def test_destination_that_is_away_is_tried_by_one_mail_at_a_time(self):
        self.begin(smtp={"RetryPause": 3600, "RetryPauseLimit": 3600})
        self.keep(30)
        self.retryer()
        self.wait_tries()
        walks = len(self.events(*WALK))
        harness.wait_until(lambda: len(self.events(*WALK)) > walks + 90, "three walks more")
        self.assertLessEqual(len(self.events(*RETRY_FAILED)), 6, "no more than there are threads at the first walk")
        self.assertEqual(len(self.waiting()), 30)

    def test_signatures_that_changed_have_the_mail_judged_anew(self):
        self.begin()
        self.provokes(RULE_HIT, POLICY_REFUSED, GIVEN_UP)
        self.away()
        self.assertRegex(self.client().mail(body(PHRASE), [BOARD]), r"^250 ")
        (name,) = self.waiting()
        self._judged_by_others(self.directory / name)
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace('<set name="Enabled">false</set>', ""))
        self.back()
        self.retryer()
        (report,) = self.sink.wait_messages(1)
        self.assertEqual(report.recipients, [SENDER])
        self.wait_empty()
        self.assertEqual(self.counters()["smtp.retries.scanned"], 1)

    def test_signatures_that_are_the_same_leave_the_verdict_as_it_was(self):
        self.begin()
        self.away()
        self.assertRegex(self.client().mail(body(PHRASE), [BOARD]), r"^250 ")
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace('<set name="Enabled">false</set>', ""))
        self.back()
        self.retryer()
        self.assertEqual(self.sink.wait_messages(1)[0].recipients, [BOARD])
        self.assertEqual(self.counters().get("smtp.retries.scanned", 0), 0)

    def _judged_by_others(self, path):
        """The file, as it was when the signatures were others."""
        content = path.read_bytes()
        length = int(content[10:20])
        envelope = content[80:80 + length]
        changed = re.sub(rb"^engines .*$", lambda old: b"engines " + b"x" * (len(old[0]) - 8), envelope, flags=re.MULTILINE)
        first = content[:10] + content[10:20] + content[20:53] + b"%08x" % zlib.crc32(changed) + content[61:71]
        path.write_bytes(first + b"%08x\n" % zlib.crc32(first) + changed + content[80 + length:])


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
        try:
            client = smtp_case.Client(self.port)
            reply = client.mail(numbered(number))
            client.close()
        except OSError:
            reply = ""
        return reply.startswith("250")

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
