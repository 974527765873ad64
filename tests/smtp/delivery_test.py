"""Messages that go through, and what the next server gets."""
import random
import unittest

from smtp_case import (BOARD, CLEANED, DEFERRED, DELIVERED, EICAR, FAILED, FILE_HIT, NOTIFIED, NOT_NOTIFIED, PHRASE,
                       POLICY_REFUSED, REFUSED, RULE_HIT, SCAN_FAILED, SENDER, STAFF, VIRUS, SmtpCase, body, nested,
                       with_attachment, zipped)


class Delivery(SmtpCase):
    def test_a_message_arrives_byte_for_byte(self):
        self.begin()
        contents = [body(), b"\r\n", b"No header\r\n\r\n.\r\n..\r\n...x\r\n", b"A: b\r\n\r\nnul \0 and \xff\r\n",
                    body("x" * 998), body("\r\n".join([""] * 50))]
        client = self.client()
        for number, content in enumerate(contents, 1):
            self.assertRegex(client.mail(content), r"^250 2\.0\.0 ")
            stored = self.sink.wait_messages(number)[-1]
            self.assertEqual(self.content_of(stored), content)
            self.assertEqual((stored.sender, stored.recipients), (SENDER, [STAFF]))
        self.assert_nothing_left()

    def test_a_large_message_spools_to_disk_and_leaves_nothing(self):
        self.begin(scanning={"MaxScanMem": 16})
        lines = random.Random(1).randbytes(3 * 1024 * 1024).hex()
        content = body("\r\n".join(lines[at:at + 76] for at in range(0, len(lines), 76)) + "\r\n.dot")
        self.assertRegex(self.client().mail(content), r"^250 ")
        self.assertEqual(self.content_of(self.sink.wait_messages(1)[0]), content)
        self.assert_nothing_left()

    def test_several_messages_use_one_connection_to_the_next_server(self):
        self.begin()
        client = self.client()
        for _ in range(3):
            self.assertRegex(client.mail(), r"^250 ")
        self.assertEqual(len(self.sink.talks), 1)
        self.assertRegex(client.ask("QUIT"), r"^221 2\.0\.0 ")
        self.sink.wait_idle()
        self.assertEqual(self.sink.talks[0][-1], "QUIT")

    def test_a_kept_connection_that_died_is_made_anew(self):
        self.begin()
        client = self.client()
        self.assertRegex(client.mail(), r"^250 ")
        for connection in list(self.sink.open):
            connection.shutdown(2)
        self.sink.wait_idle()
        self.assertRegex(client.mail(), r"^250 ")
        self.assertEqual(len(self.sink.wait_messages(2)), 2)

    def test_a_group_of_commands_is_answered_in_order(self):
        self.begin()
        client = self.client()
        client.hello()
        client.send(f"MAIL FROM:<{SENDER}>\r\nRCPT TO:<{STAFF}>\r\nRCPT TO:<bad\r\nRCPT TO:<{BOARD}>\r\nDATA\r\n")
        self.assertEqual([client.read()[:3] for _ in range(5)], ["250", "250", "501", "250", "354"])
        client.send(body() + b".\r\nMAIL FROM:<>\r\nRSET\r\nNOOP\r\nQUIT\r\n")
        self.assertEqual([client.read()[:3] for _ in range(5)], ["250", "250", "250", "250", "221"])
        self.assertEqual(client.read(), "")
        self.assertEqual(self.sink.wait_messages(1)[0].recipients, [STAFF, BOARD])

    def test_a_server_without_extensions_is_served_too(self):
        self.begin()
        self.sink.extensions = None
        self.assertRegex(self.client().mail(), r"^250 ")
        self.assertEqual(self.sink.talks[0][:3], ["EHLO gw.example", "HELO gw.example", f"MAIL FROM:<{SENDER}>"])

    def test_eight_bit_mail_is_declared_and_not_forced_on_a_server_that_takes_none(self):
        self.begin()
        self.provokes(FAILED, REFUSED)
        content = b"Subject: x\r\n\r\ngr\xc3\xbc\xc3\x9f\r\n"
        self.assertRegex(self.client().mail(content), r"^250 ")
        self.assertIn("BODY=8BITMIME", self.sink.wait_messages(1)[0].parameters)
        self.sink.extensions = ["PIPELINING"]
        self.assertRegex(self.client().mail(content), r"^554 5\.6\.3 ")

    def test_a_finding_refuses_the_message_by_name_and_audit_id(self):
        self.begin()
        self.provokes(VIRUS, POLICY_REFUSED)
        reply = self.client().mail(body(EICAR))
        self.assertRegex(reply, r"^554 5\.7\.1 .*EICAR")
        event = self.noted(REFUSED)[0]
        self.assertIn(event["values"]["audit_id"], reply)
        self.assertEqual(self.sink.messages, [])

    def test_a_finding_in_an_archive_refuses_the_message_and_a_clean_archive_arrives_as_it_was(self):
        self.begin()
        self.provokes(VIRUS, POLICY_REFUSED, REFUSED)
        self.assertRegex(self.client().mail(with_attachment(zipped(zipped(EICAR, "in.zip")))), r"^554 5\.7\.1 .*EICAR")
        content = with_attachment(zipped("hello" * 1000))
        self.assertRegex(self.client().mail(content), r"^250 ")
        self.assertEqual(self.content_of(self.sink.wait_messages(1)[0]), content)

    def test_an_archive_that_cannot_be_read_refuses_the_message(self):
        self.begin()
        self.provokes(FILE_HIT, POLICY_REFUSED, REFUSED)
        archive = zipped("".join(map(str, range(2000))))
        self.assertRegex(self.client().mail(with_attachment(archive[:len(archive) // 2])), r"^554 5\.7\.1 ")

    def test_one_scan_and_one_transaction_serve_all_recipients_of_the_same_content(self):
        self.begin()
        self.assertRegex(self.client().mail(recipients=[STAFF, BOARD]), r"^250 ")
        self.assertEqual([one.recipients for one in self.sink.wait_messages(1)], [[STAFF, BOARD]])


class TwoIdentities(SmtpCase):
    def test_some_get_the_message_and_the_sender_is_told_of_the_others(self):
        self.begin()
        self.provokes(RULE_HIT, POLICY_REFUSED)
        content = body(f"News of {PHRASE}.")
        self.assertRegex(self.client().mail(content, [STAFF, BOARD]), r"^250 ")
        mail, report = self.sink.wait_messages(2)
        self.assertEqual((mail.recipients, self.content_of(mail)), ([BOARD], content))
        self.assertEqual((report.sender, report.recipients), ("", [SENDER]))
        for part in (b"multipart/report; report-type=delivery-status", b"Final-Recipient: rfc822; " + STAFF.encode(),
                     b"Action: failed\r\nStatus: 5.7.1\r\n", b"Subject: test\r\n"):
            self.assertIn(part, report.content)
        self.assertNotIn(b"News of", report.content, "the message itself is not given back")
        self.assertNotIn(BOARD.encode(), report.content)
        self.noted(NOTIFIED)

    def test_the_empty_sender_gets_no_notification(self):
        self.begin()
        self.provokes(RULE_HIT, POLICY_REFUSED)
        self.assertRegex(self.client().mail(body(PHRASE), [STAFF, BOARD], sender=""), r"^250 ")
        self.noted(NOT_NOTIFIED)
        self.assertEqual([one.recipients for one in self.sink.messages], [[BOARD]])

    def test_all_refused_is_a_refusal(self):
        self.begin()
        self.provokes(VIRUS, POLICY_REFUSED, REFUSED)
        self.assertRegex(self.client().mail(body(EICAR), [STAFF, BOARD]), r"^554 5\.7\.1 ")
        self.assertEqual(self.sink.messages, [])

    def test_defer_gives_each_identity_a_transaction_of_its_own(self):
        self.begin(smtp={"DifferentIdentity": "defer"})
        self.provokes(RULE_HIT, POLICY_REFUSED, REFUSED)
        client = self.client()
        client.hello()
        replies = client.envelope([STAFF, BOARD, "dora@inside.example"])
        self.assertEqual([reply[:9] for reply in replies], ["250 2.1.0", "250 2.1.5", "452 4.5.3", "250 2.1.5"])
        self.assertRegex(client.data(body(PHRASE)), r"^554 5\.7\.1 ")
        self.assertRegex(client.mail(body(PHRASE), [BOARD]), r"^250 ")
        self.assertEqual([one.recipients for one in self.sink.wait_messages(1)], [[BOARD]])
        self.noted(DELIVERED)


class Rewritten(SmtpCase):
    av = "REPLACE"

    def test_what_the_engine_rewrote_goes_on_in_the_form_of_smtp(self):
        self.begin()
        self.provokes(CLEANED)
        self.assertRegex(self.client().mail(with_attachment(EICAR), [STAFF, BOARD]), r"^250 ")
        for stored in self.sink.wait_messages(1):
            self.assertNotIn(b"WDVPIVAlQEFQ", stored.content)
            self.assertIn(b"See below.\r\n.dot\r\n", stored.content)
            self.assertNotRegex(stored.content, rb"(?<!\r)\n|\r(?!\n)")
        self.assert_nothing_left()


class TooDeep(SmtpCase):
    def test_the_action_of_the_limit_decides_when_the_signatures_find_nothing(self):
        self.begin()
        self.provokes(FILE_HIT, POLICY_REFUSED, REFUSED)
        self.assertRegex(self.client().mail(nested(2)), r"^250 ")
        self.assertRegex(self.client().mail(nested(12)), r"^554 5\.7\.1 ")
        self.assertEqual(len(self.sink.messages), 1)


class TooDeepButLogged(SmtpCase):
    limit = "LOG"

    def test_what_the_signatures_find_decides(self):
        self.begin()
        self.provokes(FILE_HIT, VIRUS, POLICY_REFUSED, REFUSED)
        self.assertRegex(self.client().mail(nested(12)), r"^250 ")
        self.assertRegex(self.client().mail(nested(12, EICAR)), r"^554 5\.7\.1 .*EICAR")
        self.assertEqual(len(self.sink.messages), 1)


class LoggedOnly(SmtpCase):
    phrase = "LOG"

    def test_an_action_that_only_logs_lets_the_message_pass(self):
        self.begin()
        self.provokes(RULE_HIT)
        content = body(PHRASE)
        self.assertRegex(self.client().mail(content), r"^250 ")
        self.assertEqual(self.content_of(self.sink.wait_messages(1)[0]), content)


class UnknownAction(SmtpCase):
    phrase = "SOMETHING"

    def test_an_action_that_nobody_knows_lets_nothing_pass(self):
        self.begin()
        self.provokes(RULE_HIT, SCAN_FAILED, DEFERRED)
        self.assertRegex(self.client().mail(body(PHRASE)), r"^451 4\.7\.1 ")
        self.assertEqual(self.sink.messages, [])


if __name__ == "__main__":
    unittest.main()
