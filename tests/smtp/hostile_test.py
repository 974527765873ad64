"""Clients and next servers that mean harm, or that nobody thought of."""
import contextlib
import shutil
import socket
import threading
import unittest

import harness
from smtp_case import (BOARD, CLEANED, DEFERRED, EICAR, ENGINE_FAILED, FAILED, GONE, PHRASE, POLICY_REFUSED, REFUSED,
                       RULE_HIT, SCAN_FAILED, SENDER, SPOOL_FAILED, STAFF, VIRUS, SmtpCase, body, with_attachment)


def reset(client):
    """Cuts the connection so that the other side learns of it at once."""
    client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
    client.file.close()
    client.socket.close()


class Flood(SmtpCase):
    def test_recipients_without_end_are_cut_off(self):
        self.begin(smtp={"MaxRecipients": 2})
        client = self.client()
        client.hello()
        client.ask(f"MAIL FROM:<{SENDER}>")
        client.send(f"RCPT TO:<{STAFF}>\r\n" * 3000)
        codes = []
        with contextlib.suppress(ConnectionResetError):  # what it had not read when it closed
            while reply := client.read():
                codes.append(reply[:3])
        self.assertEqual(codes[:3], ["250", "250", "452"])
        self.assertLess(len(codes), 1100)

    def test_a_slow_command_ends_when_its_time_is_over(self):
        self.begin(smtp={"CommandTimeout": 1})
        self.provokes(GONE)
        client = self.client()
        self.assertRegex(self.drip(client, "N"), r"^421 4\.4\.2 ")

    def test_a_slow_message_ends_when_its_time_is_over(self):
        self.begin(smtp={"DataTimeout": 1})
        self.provokes(GONE)
        client = self.client()
        client.hello()
        client.envelope()
        client.ask("DATA")
        self.assertRegex(self.drip(client, "x"), r"^421 4\.4\.2 ")
        self.assertEqual(self.sink.messages, [])
        self.assert_nothing_left()

    def drip(self, client, byte):
        """A byte now and then, until the gateway says something."""
        client.socket.settimeout(0.2)
        for _ in range(50):
            client.send(byte)
            try:
                client.socket.recv(1, socket.MSG_PEEK)
            except TimeoutError:
                continue
            client.socket.settimeout(harness.LIMIT)
            return client.read()
        return self.fail("the gateway waits for ever")

    def test_what_is_no_mail_client_is_sent_away(self):
        self.begin()
        for line in ("GET / HTTP/1.1", "POST /x HTTP/1.1", "CONNECT a:25 HTTP/1.0"):
            client = self.client()
            client.send(f"{line}\r\nHost: x\r\n\r\nEHLO a.example\r\nMAIL FROM:<{SENDER}>\r\nRCPT TO:<{STAFF}>\r\nDATA\r\n"
                        "Subject: x\r\n\r\nx\r\n.\r\n")
            self.assertRegex(client.read(), r"^421 ", line)
            self.assertEqual(client.read(), "", line)
        self.assertEqual(self.sink.messages, [])

    def test_what_was_not_offered_is_not_known(self):
        self.begin()
        client = self.client()
        client.hello()
        for command in ("BDAT 5 LAST", "STARTTLS", "AUTH PLAIN", "ETRN x", "XCLIENT ADDR=127.0.0.1", "XFORWARD X=y"):
            self.assertRegex(client.ask(command), r"^50[02] 5\.5\.[12] ", command)


class Edges(SmtpCase):
    def test_the_end_is_found_at_every_cut(self):
        self.begin()
        wire = b".a\r\n..\r\n...\r\n.b\r\n\r\n.\r\n"
        content = b"a\r\n.\r\n..\r\nb\r\n\r\n"
        client = self.client()
        client.hello()
        for cut in range(1, len(wire)):
            client.envelope()
            client.ask("DATA")
            client.send(wire[:cut])
            client.send(wire[cut:])
            self.assertRegex(client.read(), r"^250 ", cut)
            self.assertEqual(self.content_of(self.sink.wait_messages(cut)[-1]), content, cut)

    def test_messages_that_are_hardly_any(self):
        self.begin()
        client = self.client()
        contents = [b"", b".\r\n", b".\r\n" * 1000, b"\r\n\r\n\r\n", b"\0\r\n", b"X: \xff\xfe\r\n\r\n", b" folded\r\n\r\n",
                    b"From x\r\n\r\n", b":\r\n\r\n", b"X: " + b"y" * 995 + b"\r\n\r\n", b"A: b\r\n C\r\n"]
        for number, content in enumerate(contents, 1):
            client.hello()
            client.envelope()
            self.assertRegex(client.data(content), r"^250 ", content[:20])
            self.assertEqual(self.content_of(self.sink.wait_messages(number)[-1]), content)
        self.assert_nothing_left()

    def test_a_transaction_that_was_taken_back_leaves_nothing(self):
        self.begin()
        client = self.client()
        client.hello()
        client.envelope(["x@inside.example"], "evil@outside.example")
        client.hello()
        self.assertRegex(client.ask("DATA"), r"^503 ")
        client.envelope()
        self.assertRegex(client.data(body()), r"^250 ")
        stored = self.sink.wait_messages(1)[0]
        self.assertEqual((stored.sender, stored.recipients), (SENDER, [STAFF]))


class Gone(SmtpCase):
    def test_a_client_that_resets_before_the_answer_will_come_again_and_gets_nothing_twice(self):
        self.begin()
        self.provokes(FAILED, DEFERRED)
        client = self.client()

        def meanwhile(_):
            reset(client)
            return "250 2.1.0 ok"
        self.sink.replies = {"MAIL": meanwhile}
        client.hello()
        client.envelope()
        client.ask("DATA")
        client.send(body() + b".\r\n")
        self.noted(GONE)
        self.sink.replies = {}
        self.assertRegex(self.client().mail(), r"^250 ")
        self.assertEqual(len(self.sink.wait_messages(1)), 1)
        self.assert_nothing_left()

    def test_a_client_that_has_said_all_is_served(self):
        self.begin()
        client = self.client()
        client.send(f"EHLO a.example\r\nMAIL FROM:<{SENDER}>\r\nRCPT TO:<{STAFF}>\r\nDATA\r\n".encode() + body() +
                    b".\r\nQUIT\r\n")
        client.socket.shutdown(socket.SHUT_WR)
        self.assertEqual([client.read()[:3] for _ in range(6)], ["250", "250", "250", "354", "250", "221"])
        self.assertEqual(len(self.sink.wait_messages(1)), 1)


class NextServer(SmtpCase):
    def test_it_greets_byte_by_byte(self):
        self.begin(smtp={"UpstreamGreetingTimeout": 1})
        self.provokes(FAILED, DEFERRED)
        self.serve(lambda connection, ended: self.drip(connection, ended, b"2"))
        self.assertRegex(self.client().mail(), r"^451 4\.4\.2 ")

    def test_it_greets_without_end(self):
        self.begin(smtp={"UpstreamGreetingTimeout": 1})
        self.provokes(FAILED, DEFERRED)
        self.serve(lambda connection, ended: self.drip(connection, ended, b"220-" + b"x" * 100 + b"\r\n", 0))
        self.assertRegex(self.client().mail(), r"^451 4\.[45]\.[02] ")

    def serve(self, talk):
        """Every connection from now on gets this in place of the sink."""
        ended = threading.Event()

        def instead(connection):
            with connection:
                try:
                    talk(connection, ended)
                except OSError:
                    pass
        self.sink._serve = instead
        self.addCleanup(ended.set)

    @staticmethod
    def drip(connection, ended, data, pause=0.2):
        while not ended.wait(pause):
            connection.sendall(data)

    def test_its_name_is_unknown(self):
        self.begin(smtp={"RelayHost": "no-such-host.invalid"})
        self.provokes(FAILED, DEFERRED)
        self.assertRegex(self.client().mail(), r"^451 4\.4\.3 ")
        self.assert_nothing_left()


class Routed(SmtpCase):
    def test_a_served_domain_is_no_way_to_others(self):
        self.begin(smtp={"AcceptDomains": ["inside.example"]})
        client = self.client()
        client.hello()
        for local in ("a%evil.example", "evil.example!a", '"a@evil.example"', '"a\\%evil.example"'):
            self.assertRegex(client.envelope([f"{local}@inside.example"])[-1], r"^550 5\.7\.1 ", local)
            client.ask("RSET")
        self.assertRegex(client.envelope(["@relay.example:bob@inside.example"])[-1], r"^250 ")
        self.assertRegex(client.data(body()), r"^250 ")
        self.assertEqual(self.sink.wait_messages(1)[0].recipients, ["bob@inside.example"])


class Spool(SmtpCase):
    def test_a_directory_that_is_gone_defers_and_the_gateway_goes_on(self):
        self.begin(scanning={"MaxScanMem": 1})
        self.provokes(DEFERRED)
        folder = self.root.path / "scandir" / self.proxy
        shutil.rmtree(folder, ignore_errors=True)
        (self.root.path / "scandir").rename(self.root.path / "away")
        large = body(("z" * 76 + "\r\n") * 1000)
        client = self.client()
        self.assertRegex(client.mail(large), r"^45[12] 4\.3\.1 ")
        self.noted(SPOOL_FAILED)
        (self.root.path / "away").rename(self.root.path / "scandir")
        folder.mkdir(exist_ok=True)
        self.assertRegex(client.mail(large), r"^250 ")
        self.assertEqual(len(self.sink.wait_messages(1)), 1)


class BadRule(SmtpCase):
    def configure(self, sections, **others):
        super().configure(sections, **others)
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace('match="project nightingale"', 'match="regex:("'))

    def test_a_rule_that_cannot_be_used_defers_all_that_it_would_judge(self):
        self.begin()
        self.provokes(ENGINE_FAILED, DEFERRED)
        self.assertRegex(self.client().mail(), r"^451 4\.7\.1 ")
        self.noted(SCAN_FAILED)
        self.assertRegex(self.client().mail(recipients=[STAFF, BOARD]), r"^451 4\.7\.1 ")
        self.assertRegex(self.client().mail(recipients=[BOARD]), r"^250 ")
        self.assertEqual([one.recipients for one in self.sink.wait_messages(1)], [[BOARD]])


class LongTexts(SmtpCase):
    def configure(self, sections, **others):
        super().configure(sections, **others)
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace('name="project-name"', f'name="{"n" * 300}"'))

    def test_the_audit_id_stands_in_the_answer_all_the_same(self):
        self.begin(smtp={"RefusedText": "r" * 300})
        self.provokes(RULE_HIT, POLICY_REFUSED)
        reply = self.client().mail(body(PHRASE))
        self.assertRegex(reply, r"^554 5\.7\.1 r+: n+ \([0-9A-Za-z-]+\)$")
        self.assertLessEqual(len(reply), 510)
        self.assertIn(self.noted(REFUSED)[0]["values"]["audit_id"], reply)


class Cleaned(SmtpCase):
    av = "CLEAN"

    def test_what_can_be_taken_out_is_and_what_cannot_is_refused(self):
        self.begin()
        self.provokes(CLEANED, VIRUS, POLICY_REFUSED, REFUSED)
        self.assertRegex(self.client().mail(with_attachment(EICAR)), r"^250 ")
        stored = self.sink.wait_messages(1)[0]
        self.assertNotIn(b"WDVPIVAlQEFQ", stored.content)
        self.assertIn(b"See below.", stored.content)
        self.assertRegex(self.client().mail(b"Subject: " + EICAR.encode() + b"\r\n\r\nx\r\n"), r"^554 5\.7\.1 ")
        self.assertEqual(len(self.sink.messages), 1)


class Killed(SmtpCase):
    def test_the_port_never_refuses_while_workers_are_killed(self):
        self.begin(network={"AcceptCount": 2})
        stop, refused, served = threading.Event(), [], []

        def load():
            while not stop.is_set():
                try:
                    with socket.create_connection((harness.SERVER, self.port), timeout=harness.LIMIT,
                                                  source_address=(harness.CLIENT, 0)) as one:
                        if one.recv(3) == b"220":
                            served.append(1)
                except ConnectionRefusedError as error:
                    refused.append(error)
                except OSError:
                    pass  # its worker was killed
        threads = [threading.Thread(target=load) for _ in range(3)]
        for thread in threads:
            thread.start()
        try:
            for _ in range(3):
                for victim in self.wait_worker(2):
                    self.kill_worker(victim)
                self.wait_worker(2)
        finally:
            stop.set()
            for thread in threads:
                thread.join()
        self.assertEqual(refused, [])
        self.assertTrue(served)
        self.assertRegex(self.client().mail(), r"^250 ")


if __name__ == "__main__":
    unittest.main()
