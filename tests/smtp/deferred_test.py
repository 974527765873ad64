"""Mail that the next server cannot take: the gateway keeps it, and a retryer delivers it or gives it up."""
import os
import re
import signal
import stat
import threading
import time
import unittest
import zlib

import harness
import mail_sink
from deferred_case import (DAMAGED, GIVEN_UP, KEPT, NO_FILE, RESENT, RETRY_ENDED, RETRY_FAILED, STORE_FAILED, WALK,
                           DeferredCase, message_id, numbered)
from rmd_files import rmd, unsure
from scan_servers import PLANTED, ScriptedClamd
from smtp_case import (BOARD, DEFERRED, ENGINE_FAILED, NOTIFIED, NOT_NOTIFIED, PHRASE, POLICY_REFUSED, REFUSED, RULE_HIT,
                       SCAN_FAILED, SENDER, STAFF, VIRUS, body)

WORKER = (10000, 54)
STOP = 3.0  # seconds, below the patience of a mail with others of its destination


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

    def test_directory_that_it_makes_is_nobody_elses(self):
        self.begin()
        self.assertEqual(stat.S_IMODE(self.directory.stat().st_mode), 0o700)
        self.assertEqual(stat.S_IMODE(self.directory.parent.stat().st_mode), 0o755)

    @unittest.skipUnless(os.geteuid() == 0, "only the superuser becomes another")
    def test_directory_is_made_for_whom_the_workers_become_and_they_keep_and_deliver_mail(self):
        self.root.path.chmod(0o755)
        self.begin(process={"UserId": "12345", "GroupId": "12346"})
        made, above = self.directory.stat(), self.directory.parent.stat()
        self.assertEqual((made.st_uid, made.st_gid, stat.S_IMODE(made.st_mode)), (12345, 12346, 0o700))
        self.assertEqual((above.st_uid, above.st_gid), (0, 0))
        self.away()
        self.assertRegex(self.client().mail(), r"^250 ")
        (path,) = self.directory.iterdir()
        self.assertEqual((path.stat().st_uid, path.stat().st_gid), (12345, 12346))
        self.back()
        self.retryer()
        self.sink.wait_messages(1)
        self.wait_empty()

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

    def test_second_copy_of_a_notification_whose_answer_was_lost_is_counted(self):
        self.begin()
        self.provokes(RESENT)

        def answer(_):
            self.sink.fault = "die-stored"  # what comes next
            return "250 2.0.0 stored"
        self.sink.replies = {"RCPT dora@inside.example": "550 5.1.1 who?", "END": answer}
        self.assertRegex(self.client().mail(body(), [STAFF, "dora@inside.example"]), r"^250 ")
        self.sink.fault, self.sink.replies = None, {}
        self.assertEqual(len(self.sink.messages), 2)
        self.retryer()
        self.wait_empty()
        self.noted(RESENT)
        self.assertEqual(len({message_id(one.content) for one in self.sink.messages[1:]}), 1)
        self.assertEqual(len(self.sink.messages), 3)

    def test_second_copy_of_a_notification_that_goes_out_at_once_is_counted_too(self):
        self.begin(smtp={"StoreAndForward": False})
        self.provokes(RESENT, NOTIFIED)
        self.sink.replies = {"RCPT dora@inside.example": "550 5.1.1 who?"}
        self.sink.on_message = lambda number, _: setattr(self.sink, "fault", {1: "die-stored"}.get(number))
        self.assertRegex(self.client().mail(body(), [STAFF, "dora@inside.example"]), r"^250 ")
        _, *reports = self.sink.messages
        self.assertEqual([one.recipients for one in reports], [[SENDER]] * 2)
        self.assertEqual(len({message_id(one.content) for one in reports}), 1)
        ([resent], [sent]) = self.noted(RESENT), self.noted(NOTIFIED)
        self.assertEqual(resent["values"]["audit_id"], sent["values"]["audit_id"])
        self.assertEqual((resent["values"]["smtp_recipients"], resent["values"]["smtp_count"]), (f"<{SENDER}>", 1))
        self.assertEqual(self.counters("smtp")["smtp.messages.resent"], 1)

    def test_client_that_has_left_sends_again_and_nothing_is_kept(self):
        self.begin()
        self.provokes((60000, 14), DEFERRED)
        self.sink.replies = {"DATA": self._leave}
        self.send_to_leave(body())
        self.noted(DEFERRED)
        self.assertEqual(self.waiting(), [])

    def test_server_that_has_the_message_is_waited_for_beyond_that(self):
        self.begin(smtp={"KeepAfter": 3})
        self.sink.replies = {"END": self._think}
        self.assertRegex(self.client().mail(), r"^250 ")
        self.assertEqual(self.waiting(), [])
        self.assertEqual(len(self.sink.messages), 1)

    @staticmethod
    def _think(session):
        time.sleep(4)  # the server's own time, above the limit
        return "250 2.0.0 stored"

    def test_client_that_left_during_the_delivery_sends_again_and_nothing_is_kept(self):
        self.begin(smtp={"KeepAfter": 2})
        self.provokes((60000, 14), DEFERRED)
        self.sink.fault = "stall-at-greeting"
        self.send_to_leave(body())
        harness.wait_until(self.sink.stalled.is_set, "a delivery under way")
        self.leave()
        self.noted(DEFERRED)
        self.assertEqual(self.waiting(), [])

    def _leave(self, session):
        self.leave()
        return "354 go on"


class Retried(DeferredCase):
    def write(self, name, **facts):
        """A file that no walk comes by before it is whole."""
        unfinished = self.directory / f".{name}"
        unfinished.write_bytes(rmd(name, **facts))
        unfinished.rename(self.directory / f"{name}.rmd")

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

    def test_sender_of_a_large_mail_is_told_which_one_it_was(self):
        self.begin()
        self.provokes(GIVEN_UP)
        self.sink.replies = {f"RCPT {STAFF}": "550 5.1.1 who?", "MAIL": "451 4.3.2 later"}
        large = numbered(7) + 4000 * (b"x" * 62 + b"\r\n")
        self.assertRegex(self.client().mail(large), r"^250 ")
        del self.sink.replies["MAIL"]
        self.retryer()
        (report,) = self.sink.wait_messages(1)
        self.assertIn(b"Message-ID: <7@outside.example>\r\nSubject: 7\r\n", report.content)
        self.assertLess(len(report.content), 20000)
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

    def test_too_old_mail_waits_for_what_becomes_of_the_one_that_is_tried(self):
        self.begin()
        self.away()
        for sender in ("anna@outside.example", "zoe@outside.example"):
            self.assertRegex(self.client().mail(sender=sender), r"^250 ")
        self.retryer()
        self.wait_tries()
        self.held = []
        self.back()
        self.sink.replies = {"MAIL": self._hold}
        self.sink.wait_messages(2)
        self.wait_empty()
        self.assertEqual(self.events(*GIVEN_UP), [])
        self.assertEqual(len(self.held), 1)

    def _hold(self, session):
        """The first one's sender is heard once walks have come by the other one, which has become too old."""
        if not self.held:
            self.held.append(session)
            others = [path for path in self.directory.glob("*.rmd")
                      if re.search(rb"^sender (.*)$", path.read_bytes(), re.MULTILINE)[1] not in session.talk[-1].encode()]
            self.rewrite(others[0], rb"^taken .*$", lambda old: b"taken %d" % (int(old[0][6:]) - 864000))
            walks = len(self.events(*WALK))
            harness.wait_until(lambda: len(self.events(*WALK)) > walks + 12 or self.events(*GIVEN_UP), "walks")
        return "250 2.1.0 ok"

    def test_mail_that_was_never_tried_is_given_up_too_while_its_destination_rests(self):
        self.begin(smtp={"RetryPause": 3600, "RetryPauseLimit": 3600})
        self.provokes(GIVEN_UP, NOT_NOTIFIED)
        self.keep()
        self.retryer()
        self.wait_tries()
        self.write("old", age=864000, sender="")
        (event,) = self.noted(GIVEN_UP)
        self.assertEqual(event["values"]["smtp_reply"], "451 4.4.7 next server cannot be reached")
        harness.wait_until(lambda: len(self.waiting()) == 1, "the end of its file")
        self.assertEqual(len(self.events(*RETRY_FAILED)), 1, "the other one rests")

    def test_first_notification_that_can_be_kept_is_no_second_copy_of_those_that_could_not(self):
        self.begin(smtp={"RetryPause": 3600, "RetryPauseLimit": 3600})
        self.provokes(GIVEN_UP, STORE_FAILED)
        self.keep()
        self.retryer()
        self.wait_tries()
        told_of = zlib.crc32(b"bob@inside.example\n")
        name = f"old.report0.{told_of:08x}.rmd"
        in_the_way = self.directory / f"{name}.tmp"
        in_the_way.mkdir()
        self.write("old", age=864000)
        self.noted(STORE_FAILED)
        in_the_way.rmdir()
        self.noted(GIVEN_UP)
        harness.wait_until(lambda: name in self.waiting(), "the notification")
        self.assertEqual(unsure((self.directory / name).read_bytes()), b".")

    def test_mail_that_waits_for_a_thread_when_the_process_stops_is_left_to_the_next_one(self):
        self.begin(smtpretryer={"MaxConncurrent": 1, "RetryInterval": 600})
        self.expect(*WORKER, at_least=0)
        stopped = []

        def stop(_):
            self.sink.replies = {}
            stopped.extend(retryer.workers())
            os.kill(stopped[0], signal.SIGHUP)
            harness.wait_until(lambda: len(retryer.workers()) == 2, "the next worker")
            return "250 2.1.0 ok"
        self.sink.replies = {"MAIL": stop}
        for name in ("one", "other"):
            (self.directory / f"{name}.rmd").write_bytes(rmd(name))
        retryer = self.retryer()
        self.sink.wait_messages(2, 2 * harness.LIMIT)
        self.wait_empty()
        processes = [event["pid"] for event in self.noted(RETRY_ENDED, 2)]
        self.assertIn(stopped[0], processes)
        self.assertEqual(len(set(processes)), 2)
        self.assertEqual(self.counters()["smtp.retries"], 2)

    @staticmethod
    def hears_its_monitor(worker):
        return any(target.startswith("pipe:") for target in harness.descriptors(worker).values())

    def test_stop_waits_for_the_try_that_is_under_way_and_not_for_mail_behind_it(self):
        self.begin(smtpretryer={"MaxConncurrent": 1, "RetryInterval": 600})
        written = {f"{name}.rmd": rmd(name) for name in ("one", "other")}
        stopped = []

        def stop(_):
            harness.wait_until(lambda: all(self.is_locked(self.directory / name) for name in written), "both taken")
            [worker] = retryer.workers()
            for process in (retryer.pid, worker):
                os.kill(process, signal.SIGHUP)
            harness.wait_until(lambda: not self.hears_its_monitor(worker), "a worker that stops")
            stopped.append((worker, time.monotonic()))
            return "250 2.1.0 ok"
        self.sink.replies = {"MAIL": stop}
        for name, content in written.items():
            (self.directory / name).write_bytes(content)
        retryer = self.retryer()
        self.assertEqual(retryer.wait(), 0)
        harness.wait_until(lambda: stopped, "the try that is under way")
        [(worker, since)] = stopped
        self.wait_gone(worker)
        took = time.monotonic() - since
        print(f"\nwith a mail behind another one: stopped after {took:.1f} s", flush=True)
        self.assertLess(took, harness.bound(STOP))
        (left,) = self.waiting()
        self.assertEqual((self.directory / left).read_bytes(), written[left])
        self.assertFalse(self.is_locked(self.directory / left))
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
        self.assert_counted_once(stored)

    def assert_counted_once(self, *copies):
        """All copies are of the mail with the number 7, and of one way through the gateway; one resending was told."""
        (resent,), (kept,) = self.noted(RESENT), self.noted(KEPT)
        audit = kept["values"]["audit_id"]
        self.assertEqual(resent["values"]["audit_id"], audit)
        for copy in copies:
            self.assertEqual(message_id(copy.content), b"<7@outside.example>")
            self.assertIn(f" id {audit}".encode(), copy.content)
        self.wait_empty()
        self.assertEqual(self.counters()["smtp.messages.resent"], 1)

    def test_server_that_took_a_mail_and_gave_no_answer_gets_it_twice_with_the_same_ids(self):
        """The gateway's try, and then the retryer's."""
        self.begin()
        self.provokes(RESENT)
        self.sink.fault = "die-stored"
        self.assertRegex(self.client().mail(numbered(7)), r"^250 ")
        self.sink.fault = None
        self.retryer()
        self.assert_counted_once(*self.sink.wait_messages(2))

    def test_answer_that_a_retryer_did_not_hear_is_counted_too(self):
        self.begin()
        self.provokes(RESENT)
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        self.assertRegex(self.client().mail(numbered(7)), r"^250 ")
        self.sink.replies, self.sink.fault = {}, "die-stored"
        self.retryer()
        self.sink.wait_messages(1)
        self.sink.fault = None
        copies = self.sink.wait_messages(2)
        self.wait_empty()
        harness.wait_until(lambda: len(self.events(*RESENT)) == len(self.sink.messages) - 1, "a count of each copy")
        self.assertEqual(len({re.search(rb" id (\S+?);?\r?\n", one.content)[1] for one in copies}), 1)
        self.assertEqual({message_id(one.content) for one in copies}, {b"<7@outside.example>"})

    def test_end_that_is_answered_by_nothing_that_decides_is_counted_too(self):
        self.begin()
        self.provokes(RESENT)
        self.sink.replies = {"END": "354 go on"}
        self.assertRegex(self.client().mail(numbered(7)), r"^250 ")
        self.sink.replies = {}
        self.retryer()
        self.assert_counted_once(*self.sink.wait_messages(1))

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

    def test_link_to_a_file_is_reported_and_brings_its_mail_no_second_time(self):
        self.begin()
        self.provokes(DAMAGED)
        self.expect(*NO_FILE, at_least=0)  # where the link leads to, after the delivery
        self.keep(1)
        file, = (self.directory / name for name in self.waiting())
        link = self.directory / "0.rmd"
        link.symlink_to(file.name)
        self.back()
        self.retryer()
        self.wait_event(*DAMAGED)
        harness.wait_until(lambda: not file.exists(), "the end of the file itself")
        self.assertEqual(len(self.sink.messages), 1)
        self.assertEqual({event["values"]["smtp_file"] for event in self.events(*DAMAGED)}, {str(link)})

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

    def test_try_makes_no_second_file_of_a_mail_that_is_on_disk(self):
        self.begin(scanning={"MaxScanMem": 1})
        self.away()
        content = body("x" * 70 + "\r\n." * 1000)
        self.assertRegex(self.client().mail(content), r"^250 ")
        self.back()
        made, folders = [], []

        def look(_):
            spool = self.root.path / "scandir/smtp-retryer"
            made.extend(path.name for path in spool.rglob("*") if path.is_file())
            folders.append(spool.is_dir())
            return "354 go on"
        self.sink.replies = {"DATA": look}
        self.retryer()
        (stored,) = self.sink.wait_messages(1)
        self.assertEqual(self.content_of(stored), content)
        self.assertEqual((made, folders), ([], [True]))

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
        self.rewrite(self.directory / name, rb"^engines .*$", lambda old: b"engines " + b"x" * (len(old[0]) - 8))
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


class NotToBeToldOf(DeferredCase):
    def test_second_copy_of_a_mail_that_could_not_be_given_up_is_counted(self):
        self.begin(smtp={"GiveUpAfter": 3600})
        self.provokes(RESENT, STORE_FAILED)
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        self.assertRegex(self.client().mail(), r"^250 ")
        (name,) = self.waiting()
        self.rewrite(self.directory / name, rb"^taken .*$", b"taken 1700000000")
        told_of = zlib.crc32(STAFF.encode() + b"\n")
        in_the_way = self.directory / f"{name.removesuffix('.rmd')}.report1.{told_of:08x}.rmd.tmp"
        in_the_way.mkdir()
        self.sink.replies, self.sink.fault = {}, "die-stored"
        self.sink.on_message = lambda *_: setattr(self.sink, "fault", None)
        self.retryer()
        first, second = self.sink.wait_messages(2)
        self.wait_empty()
        self.assertEqual(first.content, second.content)
        self.assertEqual(len(self.noted(RESENT)), 1)
        in_the_way.rmdir()


class LearningClamd(ScriptedClamd):
    """What it knows changes without a word to anybody."""
    knows = False

    def content(self, file):
        content = super().content(file)
        return content if self.knows or content is None else b""


class JudgedByAServer(DeferredCase):
    def keep(self):
        """A mail in which the server finds nothing yet, and a next server that is back again."""
        self.server = LearningClamd(self.root.path / "clamd")
        self.addCleanup(self.server.stop)
        self.server.start()
        self.begin(KORAVScanner={"ClamdSockets": [self.server.path]})
        self.away()
        self.assertRegex(self.client().mail(body(PLANTED)), r"^250 ")
        self.back()

    def test_mail_is_judged_anew_at_each_try(self):
        self.keep()
        self.provokes(VIRUS, POLICY_REFUSED, GIVEN_UP)
        self.server.knows = True
        self.retryer()
        (report,) = self.sink.wait_messages(1)
        self.assertEqual(report.recipients, [SENDER])
        self.assertIn(b"Status: 5.7.1", report.content)
        self.wait_empty()
        self.assertEqual(self.counters()["smtp.retries.scanned"], 1)

    def test_mail_waits_while_nobody_can_judge_it(self):
        self.keep()
        self.provokes(ENGINE_FAILED, SCAN_FAILED)
        self.server.stop()
        self.retryer()
        self.wait_tries()
        self.assertEqual(self.sink.messages, [])
        self.server.start()
        self.assertEqual(self.sink.wait_messages(1)[0].recipients, [STAFF])
        self.wait_empty()


class TwoContents(DeferredCase):
    """Policy changed the mail for some of its recipients: it waits in two files."""
    phrase = "REPLACE"

    def test_client_is_answered_before_every_content_was_waited_for(self):
        self.begin(smtp={"KeepAfter": 2})
        self.provokes(RULE_HIT)
        self.sink.fault = "stall-at-greeting"
        client, began = self.client(), time.monotonic()
        self.assertRegex(client.mail(body(PHRASE), [STAFF, BOARD]), r"^250 ")
        self.assertLess(time.monotonic() - began, harness.bound(10))
        self.assertEqual({event["values"]["smtp_reply"] for event in self.noted(KEPT, 2)},
                         {"451 4.4.2 next server went silent", "451 4.4.7 no time was left to try the next server"})
        self.assertEqual(len(self.waiting()), 2)

    def test_client_that_left_when_some_had_it_sends_again_and_nobody_is_told(self):
        self.begin()
        self.provokes(RULE_HIT, (60000, 14), DEFERRED)
        answers = ["250 2.1.0 ok", "451 4.3.2 later"]

        def answer(_):
            if len(answers) == 1:
                self.leave()
            return answers.pop(0)
        self.sink.replies = {"MAIL": answer}
        self.send_to_leave(body(PHRASE), [STAFF, BOARD])
        self.noted(DEFERRED)
        self.assertEqual(self.waiting(), [])
        self.assertEqual([one.recipients for one in self.sink.messages], [[STAFF]])

    def test_each_file_of_a_mail_has_its_recipients_told_of(self):
        self.begin()
        self.provokes(RULE_HIT, GIVEN_UP)
        self.away()
        self.assertRegex(self.client().mail(body(PHRASE), [STAFF, BOARD]), r"^250 ")
        self.assertEqual(len(self.waiting()), 2)
        self.back()
        self.sink.replies = {f"RCPT {STAFF}": "550 5.1.1 who?", f"RCPT {BOARD}": "550 5.1.1 who?"}
        self.retryer()
        reports = self.sink.wait_messages(2)
        self.assertEqual(sorted(re.findall(rb"Final-Recipient: rfc822; (.*)\r", reports[0].content + reports[1].content)),
                         [STAFF.encode(), BOARD.encode()])
        self.assertEqual(len({message_id(one.content) for one in reports}), 2)
        self.wait_empty()

    def test_each_content_arrives_as_it_was_kept_when_both_are_tried_at_once(self):
        self.begin(scanning={"MaxScanMem": 1})
        self.provokes(RULE_HIT)
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        filler = b"".join(b"X-Filler: %04d " % line + b"x" * 60 + b"\r\n" for line in range(2000))  # on disk at a try
        self.assertRegex(self.client().mail(filler + body(PHRASE), [STAFF, BOARD]), r"^250 ")
        kept = {name: (self.directory / name).read_bytes() for name in self.waiting()}
        messages = sorted(one[-int(one[32:52]):] for one in kept.values())
        self.assertEqual(len(messages), 2)
        self.retryer()
        self.wait_tries(2)  # the server is known to answer: it is not tried by one at a time
        both, tries = threading.Barrier(2), []

        def answer(_):
            tries.append(both.wait(harness.LIMIT))
            return "354 go on"
        self.sink.replies = {"DATA": answer}
        self.assertEqual(sorted(one.content for one in self.sink.wait_messages(2)), messages)
        self.wait_empty()
        self.assertEqual(len(tries), 2)


if __name__ == "__main__":
    unittest.main()
