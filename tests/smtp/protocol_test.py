"""What a client may say, and what it is told: syntax, order, limits, line ends."""
import unittest

from smtp_case import (ABUSE, DENIED, FAILED, GONE, LED_BACK, LOOP, REFUSED, SENDER, STAFF, SmtpCase, body)


class Protocol(SmtpCase):
    def test_the_greeting_and_the_extensions(self):
        self.begin(smtp={"MaxMessageSize": 100})
        client = self.client()
        self.assertRegex(client.greeting, r"^220 gw\.example ESMTP")
        self.assertEqual(client.hello().splitlines()[1:],
                         ["250-PIPELINING", "250-SIZE 102400", "250-8BITMIME", "250 ENHANCEDSTATUSCODES"])
        self.assertEqual(client.ask("HELO client.example"), "250 gw.example")

    def test_commands_out_of_order(self):
        self.begin()
        self.provokes(GONE)
        client = self.client()
        self.assertRegex(client.ask(f"MAIL FROM:<{SENDER}>"), r"^503 5\.5\.1 ")
        client.hello()
        self.assertRegex(client.ask(f"RCPT TO:<{STAFF}>"), r"^503 5\.5\.1 ")
        self.assertRegex(client.ask("DATA"), r"^503 5\.5\.1 ")
        client.envelope([])
        self.assertRegex(client.ask("DATA"), r"^554 5\.5\.1 ")
        self.assertRegex(client.ask(f"MAIL FROM:<{SENDER}>"), r"^503 5\.5\.1 ")
        self.assertRegex(client.ask("RSET"), r"^250 2\.0\.0 ")
        self.assertRegex(client.ask(f"MAIL FROM:<{SENDER}>"), r"^250 2\.1\.0 ")

    def test_each_mistake_has_its_answer(self):
        self.begin()
        client = self.client()
        client.hello()
        for command, answer in (("NONSENSE", r"500 5\.5\.2 "), ("EXPN x", r"502 5\.5\.1 "), ("MAIL FROM:x", r"501 5\.1\.7 "),
                                ("MAIL FROM:<a@b> SIZE=x", r"501 5\.5\.4 "), ("MAIL FROM:<a@b> RET=HDRS", r"555 5\.5\.4 "),
                                ("MAIL FROM:<a@b> BODY=BINARYMIME", r"501 5\.5\.4 "), ("RSET now", r"501 5\.5\.4 "),
                                ("MAIL FROM:<\xe4@b>", r"553 5\.6\.7 "), ("NO\x00OP", r"500 5\.5\.2 ")):
            client.send(command.encode("latin-1") + b"\r\n")
            self.assertRegex(client.read(), "^" + answer, command)
        for command, answer in (("VRFY bob", r"252 2\.5\.2 "), ("HELP", r"214-2\.0\.0 "), ("NOOP x", r"250 2\.0\.0 ")):
            self.assertRegex(client.ask(command), "^" + answer, command)

    def test_a_size_that_is_announced_too_large_is_refused_at_once(self):
        self.begin(smtp={"MaxMessageSize": 1})
        self.provokes(GONE)
        client = self.client()
        client.hello()
        for size in ("1025", "99999999999999999999999999"):
            self.assertRegex(client.ask(f"MAIL FROM:<{SENDER}> SIZE={size}"), r"^552 5\.3\.4 ")
        self.assertRegex(client.ask(f"MAIL FROM:<{SENDER}> SIZE=1024"), r"^250 ")

    def test_limits_on_a_message(self):
        self.begin(smtp={"MaxMessageSize": 8, "MaxHeaderSize": 2, "MaxHops": 3})
        self.provokes(REFUSED)
        client = self.client()
        cases = ((body("x" * 76 + "\r\n" + ("y" * 76 + "\r\n") * 110), r"552 5\.3\.4 "),
                 (b"A: b\r\n" * 400 + b"\r\n", r"552 5\.3\.4 header"),
                 (body("x" * 999), r"554 5\.6\.0 "),
                 (b"Received: x\r\n" * 3 + body(), r"554 5\.4\.6 "),
                 (b"Received: x\r\n" * 2 + body("Received: y\r\nReceived: z"), r"250 "))
        for content, answer in cases:
            self.assertRegex(client.mail(content), "^" + answer)
        self.noted(LOOP)
        self.assertEqual(len(self.sink.messages), 1)
        self.assert_nothing_left()

    def test_limits_on_a_session(self):
        self.begin(smtp={"MaxRecipients": 2, "MaxErrors": 3, "MaxIdleCommands": 5})
        client = self.client()
        client.hello()
        replies = client.envelope([STAFF, STAFF, STAFF])
        self.assertRegex(replies[-1], r"^452 4\.5\.3 ")
        client.ask("RSET")
        client.ask("NOOP")
        self.assertRegex(client.ask("NOOP"), r"^250 ")
        self.assertRegex(client.ask("NOOP"), r"^421 4\.7\.0 ")
        self.assertEqual(client.read(), "")
        client = self.client()
        self.assertRegex(client.ask("X"), r"^500 ")
        self.assertRegex(client.ask("X"), r"^500 ")
        self.assertRegex(client.ask("X" * 20000), r"^500 5\.5\.2 line too long")
        self.assertRegex(client.read(), r"^421 4\.7\.0 ")
        self.assertEqual(client.read(), "")
        self.noted(ABUSE)

    def test_a_client_that_stays_silent_is_sent_away(self):
        self.begin(smtp={"CommandTimeout": 1})
        self.provokes(GONE)
        client = self.client()
        self.assertRegex(client.read(), r"^421 4\.4\.2 ")
        self.assertEqual(client.read(), "")


class Relaying(SmtpCase):
    def test_clients_from_outside_reach_the_domains_that_are_served(self):
        self.begin(smtp={"AcceptDomains": ["inside.example", "*.inside.example"]})
        self.provokes(GONE)
        client = self.client()
        client.hello()
        replies = client.envelope(["bob@INSIDE.example", "c@board.inside.example", "d@elsewhere.example", "Postmaster"])
        self.assertEqual([reply[:9] for reply in replies[1:]], ["250 2.1.5", "250 2.1.5", "550 5.7.1", "250 2.1.5"])
        self.noted(DENIED)


class MailExchangers(SmtpCase):
    """Without a relay each domain's exchangers get its mail."""

    lists = {"inside": "NETWORK 127.0.0.0/8\n", "outside": "NETWORK 10.0.0.0/8\n"}

    def configure(self, sections, **others):
        super().configure(sections, **{**others, **self.lists})

    def test_an_exchanger_on_this_machine_is_refused(self):
        self.begin(smtp={"RelayHost": ""})
        self.provokes(LED_BACK, FAILED, LOOP, REFUSED, GONE)
        self.assertRegex(self.client().mail(recipients=["bob@[127.0.0.1]"]), r"^554 5\.4\.6 ")
        self.assertRegex(self.client().mail(recipients=["bob@[IPv6:::1]"]), r"^554 5\.4\.4 ")
        self.assertRegex(self.client().mail(recipients=["Postmaster"]), r"^550 5\.1\.2 ")
        self.assertEqual(self.sink.talks, [])


class NoOpenRelay(SmtpCase):
    def test_clients_from_outside_reach_nobody_unless_a_domain_is_served(self):
        self.begin(smtp={"RelayHost": ""})
        self.provokes(GONE)
        self.assertRegex(self.client().mail(), r"^550 5\.7\.1 ")
        self.noted(DENIED)


class Smuggling(SmtpCase):
    ENDS = [b"\n.\n", b"\n.\r\n", b"\r\n.\n", b"\r.\r\n", b"\r\n.\r", b"\r.\r", b"\r\n.\r\r\n", b"\r\r\n.\r\r\n"]

    def test_no_sequence_but_one_ends_a_message(self):
        self.begin(smtp={"MaxErrors": 100})
        self.provokes(REFUSED)
        inner = b"MAIL FROM:<evil@x.example>\r\nRCPT TO:<bob@inside.example>\r\nDATA\r\nSubject: evil\r\n\r\nx\r\n"
        for end in self.ENDS:
            client = self.client()
            client.hello()
            client.envelope()
            client.ask("DATA")
            client.send(body() + b"first" + end + inner + b".\r\nQUIT\r\n")
            self.assertRegex(client.read(), r"^554 5\.6\.11 ", end)
            self.assertRegex(client.read(), r"^221 ", end)
            self.assertEqual(client.read(), "", end)
        self.assertEqual(self.sink.messages, [])
        self.noted(ABUSE, len(self.ENDS))

    def test_a_command_ends_in_crlf_only(self):
        self.begin()
        client = self.client()
        client.send("EHLO client.example\nNOOP\r\n")
        self.assertRegex(client.read(), r"^500 5\.5\.2 ")
        self.assertRegex(client.read(), r"^250 ")
        client.send(f"EHLO client.example\r\nMAIL FROM:<a@b\rRCPT TO:<{STAFF}>\r\n")
        client.read()
        self.assertRegex(client.read(), r"^500 5\.5\.2 ")


if __name__ == "__main__":
    unittest.main()
