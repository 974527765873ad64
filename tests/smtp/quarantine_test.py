"""Mail that policy says to keep: it goes into quarantine with its verdict, and what else is in the message goes on."""
import re
import stat
import unittest

import harness
from deferred_case import HELD, KEPT, QUARANTINED, RETRY_FAILED, STORE_FAILED, DeferredCase
from smtp_case import (BOARD, DEFERRED, EICAR, ENGINE_FAILED, FAILED, PHRASE, POLICY_REFUSED, REFUSED, RULE_HIT,
                       SCAN_FAILED, SENDER, STAFF, UNREACHED, VIRUS, body, with_attachment)


class Quarantine(DeferredCase):
    phrase = "QUARANTINE"

    def begin(self, **settings):
        made = super().begin(smtp={"StoreAndForward": False, **settings.pop("smtp", {})}, **settings)
        self.provokes(RULE_HIT)
        return made

    def only_held(self):
        """The envelope of the one file, and its message."""
        (name,) = self.held()
        content = (self.quarantine / name).read_bytes()
        end = 80 + int(content[10:20])
        return content[80:end].decode(), content[end + 2 * int(content[21:31]):]

    def test_message_is_held_with_its_verdict_and_the_client_is_told_that_it_is_taken(self):
        self.begin()
        self.provokes(QUARANTINED)
        content = body("about " + PHRASE + "\r\n.dot")
        reply = self.client().mail(content, [STAFF, "dora@inside.example"])
        self.assertRegex(reply, r"^250 2\.0\.0 accepted as ")
        (event,) = self.noted(QUARANTINED)
        audit = event["values"]["audit_id"]
        self.assertIn(audit, reply)
        self.assertEqual(self.held(), [audit + ".q1.rmd"])
        self.assertEqual(event["values"]["smtp_finding"], "project-name")
        self.assertEqual(event["values"]["smtp_file"], str(self.quarantine / self.held()[0]))
        envelope, message = self.only_held()
        for line in (f"id {audit}", f"sender {SENDER}", f"recipient {STAFF} ", "recipient dora@inside.example ",
                     "action QUARANTINE", "finding KORContentScanner:%20project-name"):
            self.assertIn(f"\n{line}\n", "\n" + envelope)
        self.assertTrue(message.endswith(content), message)
        self.assertIn(audit.encode(), message)
        self.assertRegex(self.client().mail(), r"^250 ")
        self.assertEqual(len(self.sink.wait_messages(1)), 1)
        self.assertEqual(self.counters("smtp")["smtp.messages.quarantined"], 1)
        self.assert_nothing_left()

    def test_directory_is_nobody_elses(self):
        super().begin()
        self.assertEqual(stat.S_IMODE(self.quarantine.stat().st_mode), 0o700)

    def test_identities_that_pass_get_the_message_and_the_sender_is_told_nothing(self):
        self.begin()
        self.provokes(QUARANTINED)
        self.assertRegex(self.client().mail(body(PHRASE), [STAFF, BOARD]), r"^250 ")
        self.assertEqual([one.recipients for one in self.sink.wait_messages(1)], [[BOARD]])
        envelope, _ = self.only_held()
        self.assertIn(f"recipient {STAFF} ", envelope)
        self.assertNotIn(BOARD, envelope)
        self.assertEqual(len(self.sink.messages), 1)

    def test_message_that_cannot_be_held_stays_with_its_client_whole(self):
        self.begin()
        self.provokes(STORE_FAILED, DEFERRED)
        self.quarantine.rmdir()
        self.quarantine.write_text("a file in the way")
        self.assertRegex(self.client().mail(body(PHRASE), [STAFF, BOARD]), r"^451 4\.3\.0 ")
        self.quarantine.unlink()
        self.assertEqual(self.sink.messages, [])

    def test_client_that_keeps_the_message_for_others_keeps_it_for_all(self):
        self.begin()
        self.provokes(QUARANTINED, DEFERRED, FAILED, UNREACHED)
        self.away()
        self.assertRegex(self.client().mail(body(PHRASE), [STAFF, BOARD]), r"^451 ")
        self.assertEqual(self.held(), [])

    def test_others_wait_in_the_deferred_directory(self):
        self.begin(smtp={"StoreAndForward": True})
        self.provokes(QUARANTINED, KEPT, FAILED, UNREACHED)
        self.away()
        self.assertRegex(self.client().mail(body(PHRASE), [STAFF, BOARD]), r"^250 ")
        self.assertEqual((len(self.held()), len(self.waiting())), (1, 1))
        self.back()
        self.retryer()
        self.assertEqual(self.sink.wait_messages(1)[0].recipients, [BOARD])
        self.wait_empty()
        self.assertEqual(len(self.held()), 1)

    def test_everything_that_was_found_is_told_as_another_action_is_not_carried_out(self):
        self.av = "REPLACE"
        self.begin()
        self.provokes(QUARANTINED, VIRUS)
        mail = with_attachment(EICAR).replace(b"See below.", b"See below: " + PHRASE.encode())
        self.assertRegex(self.client().mail(mail), r"^250 ")
        envelope, message = self.only_held()
        self.assertIn("\nfinding KORAVScanner:%20EICAR-Test-File;%20KORContentScanner:%20project-name\n", envelope)
        self.assertTrue(message.endswith(mail))

    def test_message_that_an_engine_has_not_looked_at_is_not_held(self):
        self.begin(KORAVScanner={"ClamdSockets": [str(self.root.path / "nobody")]})
        self.provokes(DEFERRED, SCAN_FAILED, ENGINE_FAILED)
        self.assertRegex(self.client().mail(body(PHRASE)), r"^451 4\.7\.1 ")
        self.assertEqual(self.held(), [])


class Refused(DeferredCase):
    phrase = "QUARANTINE:DENY"

    def test_message_is_held_and_refused(self):
        self.begin()
        self.provokes(RULE_HIT, QUARANTINED, REFUSED, POLICY_REFUSED)
        self.assertRegex(self.client().mail(body(PHRASE)), r"^554 5\.7\.1 ")
        self.assertEqual(len(self.held()), 1)
        self.assertIn(b"\naction QUARANTINE:DENY\n", (self.quarantine / self.held()[0]).read_bytes())
        self.assertEqual(self.sink.messages, [])

    def test_message_that_cannot_be_held_is_not_refused_either(self):
        self.begin()
        self.provokes(RULE_HIT, STORE_FAILED, DEFERRED, POLICY_REFUSED)
        self.quarantine.rmdir()
        self.quarantine.write_text("a file in the way")
        self.assertRegex(self.client().mail(body(PHRASE)), r"^451 ")
        self.quarantine.unlink()


class Retryer(DeferredCase):
    phrase = "QUARANTINE"

    def hold(self):
        self.provokes(RULE_HIT, QUARANTINED)
        self.assertRegex(self.client().mail(body(PHRASE)), r"^250 ")
        return self.held()[0]

    def test_held_mail_is_not_delivered_whatever_retryer_comes_by(self):
        self.begin(quarantineretryer={"LoggingEnabled": True, "ScanInterval": 1, "RetryInterval": 1})
        self.provokes(HELD)
        name = self.hold()
        self.retryer(("-d", "-s", "retryer", "-t", "quarantine"))
        self.wait_event(*HELD, count=2)
        (self.quarantine / name).rename(self.directory / name)
        self.retryer(name="smtp-retryer2")
        harness.wait_until(lambda: any(str(self.directory) in one["values"]["smtp_file"] for one in self.events(*HELD)),
                           "a retryer at the moved file")
        self.assertEqual(self.waiting(), [name])
        self.assertEqual(self.sink.messages, [])

    def test_mail_that_signatures_find_later_goes_from_the_deferred_directory_into_quarantine(self):
        self.begin()
        self.provokes(RULE_HIT, QUARANTINED)
        self.away()
        self.assertRegex(self.client().mail(body(PHRASE), [BOARD]), r"^250 ")
        (name,) = self.waiting()
        self.rewrite(self.directory / name, rb"^engines .*$", lambda old: b"engines " + b"x" * (len(old[0]) - 8))
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace('<set name="Enabled">false</set>', ""))
        self.back()
        self.retryer()
        self.wait_empty()
        self.assertEqual(self.held(), [name.replace(".rmd", ".later0.q1.rmd")])
        self.assertEqual(self.sink.messages, [])

    def test_mail_that_is_found_for_one_recipient_after_the_other_is_held_for_both(self):
        self.begin()
        self.provokes(RULE_HIT, QUARANTINED)
        self.away()
        client = self.client()
        self.assertRegex(client.mail(body("hello"), [STAFF, BOARD]), r"^250 ")
        client.close()
        (name,) = self.waiting()
        self.stop(self.gateway)
        self.rewrite(self.directory / name, rb"^engines .*$", lambda old: b"engines " + b"x" * (len(old[0]) - 8))
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace(f'match="{PHRASE}"', 'match="hello"'))
        self.back()
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        first = self.retryer()
        self.wait_tries()
        self.stop(first)
        self.assertEqual(len(self.held()), 1)
        rules.write_text(rules.read_text().replace('<set name="Enabled">false</set>', ""))
        self.retryer()
        self.wait_empty()
        files = [(self.quarantine / one).read_bytes() for one in self.held()]
        found = [re.findall(rb"^recipient (\S+)", one, re.MULTILINE) for one in files]
        self.assertEqual(sorted(found), [[STAFF.encode()], [BOARD.encode()]])

    def test_what_a_retryer_holds_is_nobodys_and_is_noted_while_others_are_tried(self):
        self.begin()
        self.provokes(RULE_HIT, QUARANTINED)
        self.away()
        client = self.client()
        self.assertRegex(client.mail(body("hello"), [STAFF, BOARD]), r"^250 ")
        client.close()
        (name,) = self.waiting()
        self.stop(self.gateway)
        self.rewrite(self.directory / name, rb"^engines .*$", lambda old: b"engines " + b"x" * (len(old[0]) - 8))
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace(f'match="{PHRASE}"', 'match="hello"'))
        self.back()
        seen = []

        def answer(_):
            (held,) = self.held()
            seen.append((self.is_locked(self.quarantine / held), b" dw " in (self.directory / name).read_bytes()))
            return "451 4.3.2 later"
        self.sink.replies = {"MAIL": answer}
        self.retryer(("-p", "-s", "retryer", "-t", "smtp")).wait()
        self.assertEqual(seen, [(True, True)])
        (held,) = self.held()
        self.assertFalse(self.is_locked(self.quarantine / held))
        self.assertEqual(self.waiting(), [name])

    def test_mail_that_a_retryer_cannot_put_into_quarantine_waits_on(self):
        self.begin()
        self.provokes(RULE_HIT, STORE_FAILED)
        self.away()
        self.assertRegex(self.client().mail(body(PHRASE), [BOARD]), r"^250 ")
        (name,) = self.waiting()
        self.rewrite(self.directory / name, rb"^engines .*$", lambda old: b"engines " + b"x" * (len(old[0]) - 8))
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace('<set name="Enabled">false</set>', ""))
        self.quarantine.rmdir()
        self.quarantine.write_text("a file in the way")
        self.back()
        self.retryer()
        self.wait_event(*RETRY_FAILED)
        self.assertEqual(self.waiting(), [name])
        self.assertEqual(self.sink.messages, [])
        self.quarantine.unlink()


if __name__ == "__main__":
    unittest.main()
