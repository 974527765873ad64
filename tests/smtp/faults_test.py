"""What goes wrong outside: the next server, the client, the disk. Nothing is lost, nothing comes twice."""
import os
import resource
import signal
import socket
import stat
import time
import unittest

import harness
from smtp_case import (ACCEPTED, BOARD, DEFERRED, FAILED, GONE, LED_BACK, LOOP, NOTIFICATION_LOST, NOTIFIED, PHRASE,
                       POLICY_REFUSED, REFUSED, RULE_HIT, SENDER, SPOOL_FAILED, STAFF, SWEPT, UNREACHED, SmtpCase, body)


class NextServer(SmtpCase):
    SHORT = {f"Upstream{stage}Timeout": 1 for stage in ("Greeting", "Command", "Data", "Block", "Final")}

    def test_what_it_refuses_is_refused_with_its_class(self):
        self.begin()
        self.provokes(REFUSED, DEFERRED)
        for replies, answer in (({"MAIL": "550 5.7.9 not you"}, r"554 5\.7\.9 not you"),
                                ({f"RCPT {STAFF}": "550 5.1.1 unknown"}, r"554 5\.1\.1 unknown"),
                                ({f"RCPT {STAFF}": "450 4.2.1 greylisted"}, r"451 4\.2\.1 greylisted"),
                                ({"DATA": "452 4.3.1 full"}, r"451 4\.3\.1 full"),
                                ({"END": "554 5.6.0 no"}, r"554 5\.6\.0 no"),
                                ({"END": "421 4.3.2 going down"}, r"451 4\.3\.2 going down")):
            self.sink.replies = replies
            self.assertRegex(self.client().mail(), "^" + answer)
        self.assertEqual(self.sink.messages, [])
        self.noted(FAILED, 6)
        self.assert_nothing_left()

    def test_it_cannot_be_reached(self):
        self.begin()
        self.provokes(UNREACHED, FAILED)
        self.sink.refuse_connections()
        self.assertRegex(self.client().mail(), r"^451 4\.4\.1 ")
        self.noted(DEFERRED)

    def test_it_greets_with_a_refusal(self):
        self.begin()
        self.provokes(FAILED, REFUSED)
        self.sink.greeting = "554 5.3.2 closed"
        self.assertRegex(self.client().mail(), r"^554 5\.3\.2 closed")

    def test_it_dies_in_the_middle_and_the_message_goes_at_the_second_try(self):
        self.begin()
        self.provokes(FAILED, DEFERRED)
        content = body(("z" * 76 + "\r\n") * 20000)
        for fault in ("die-in-data", "die-at-end"):
            self.sink.fault = fault
            client = self.client()
            self.assertRegex(client.mail(content), r"^451 4\.4\.2 ", fault)
            self.sink.fault = None
            self.assertRegex(client.mail(content), r"^250 ", fault)
        stored = self.sink.wait_messages(2)
        self.assertEqual(len(stored), 2, "once for each 250")
        self.assert_nothing_left()

    def test_it_stalls(self):
        self.begin(smtp=self.SHORT)
        self.provokes(FAILED, DEFERRED)
        content = body(("z" * 76 + "\r\n") * 200000)  # more than socket buffers take
        for fault in ("stall-at-greeting", "stall-in-data", "stall-at-end"):
            self.sink.fault = fault
            self.assertRegex(self.client().mail(content), r"^451 4\.4\.2 ", fault)
        self.assertEqual(self.sink.messages, [])
        self.assert_nothing_left()

    def test_it_is_this_gateway(self):
        self.begin()
        self.provokes(LED_BACK, FAILED, REFUSED)
        self.sink.close()
        self.stop()
        settings = self.settings(smtp={"RelayHost": harness.SERVER, "GreetingName": "gw.example"},
                                 network={"MaxConnections": 4}, process={"MonitorHealth": False, "MemoryLimit": 0})
        settings["smtp"]["RelayPort"] = self.port
        self.configure(settings)
        self.launch()
        self.wait_event(10000, 54, count=2)
        self.assertRegex(self.client().mail(), r"^554 5\.4\.6 ")
        self.noted(LOOP)


class PartOfTheRecipients(SmtpCase):
    def test_those_it_refuses_are_reported_to_the_sender(self):
        self.begin()
        self.provokes(FAILED)
        self.sink.replies = {f"RCPT {STAFF}": "550 5.1.1 unknown here"}
        self.assertRegex(self.client().mail(recipients=[STAFF, BOARD]), r"^250 ")
        mail, report = self.sink.wait_messages(2)
        self.assertEqual(mail.recipients, [BOARD])
        self.assertEqual((report.sender, report.recipients), ("", [SENDER]))
        self.assertIn(b"Status: 5.1.1\r\n", report.content)
        self.assertIn(b"Remote-MTA: dns; 127.0.0.1\r\n", report.content)
        self.noted(NOTIFIED)

    def test_where_no_report_can_be_sent_the_client_is_told_of_the_refusal(self):
        self.begin()
        self.provokes(RULE_HIT, POLICY_REFUSED, REFUSED)
        self.sink.replies = {f"RCPT {SENDER}": "550 5.1.1 unknown"}
        reply = self.client().mail(body(PHRASE), [STAFF, BOARD])
        self.assertRegex(reply, r"^554 5\.7\.1 some recipients have the message, others do not: .*project-name")
        self.assertIn(self.noted(NOTIFICATION_LOST)[0]["values"]["audit_id"], reply)
        self.assertEqual([one.recipients for one in self.sink.messages], [[BOARD]])

    def test_where_no_report_can_be_sent_the_client_is_told_and_does_not_try_again(self):
        self.begin()
        self.provokes(FAILED, REFUSED)
        self.sink.replies = {f"RCPT {STAFF}": "450 4.2.0 later", f"RCPT {SENDER}": "550 5.1.1 unknown"}
        self.assertRegex(self.client().mail(recipients=[STAFF, BOARD]), r"^554 5\.2\.0 some recipients")
        self.noted(NOTIFICATION_LOST)
        self.assertEqual([one.recipients for one in self.sink.messages], [[BOARD]])

    def test_nothing_delivered_is_one_answer_and_no_report(self):
        self.begin()
        self.provokes(RULE_HIT, POLICY_REFUSED, FAILED, DEFERRED)
        self.sink.replies = {f"RCPT {BOARD}": "450 4.2.0 later"}
        self.assertRegex(self.client().mail(body(PHRASE), [STAFF, BOARD]), r"^451 4\.2\.0 ")
        self.assertEqual(self.sink.messages, [])


class Client(SmtpCase):
    def test_it_vanishes_in_the_middle_of_a_message(self):
        self.begin(scanning={"MaxScanMem": 1})
        client = self.client()
        client.hello()
        client.envelope()
        client.ask("DATA")
        client.send(body("x" * 70 + "\r\n" + "y" * 900) * 20)
        harness.wait_until(self.spool_files, "a spool file")
        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        client.close()
        self.noted(GONE)
        self.assert_nothing_left()
        self.assertEqual(self.sink.messages, [])
        self.assertRegex(self.client().mail(), r"^250 ")

    def test_it_falls_silent_in_the_middle_of_a_message(self):
        self.begin(smtp={"DataTimeout": 1})
        self.provokes(GONE)
        client = self.client()
        client.hello()
        client.envelope()
        client.ask("DATA")
        client.send("Subject: half\r\n")
        self.assertRegex(client.read(), r"^421 4\.4\.2 ")
        self.assertEqual(client.read(), "")
        self.assertEqual(self.sink.messages, [])


class Disk(SmtpCase):
    def launch(self, options=("-d",), arguments=()):
        """Files may not grow beyond 256 KiB: what a full disk does, without one."""
        old = resource.getrlimit(resource.RLIMIT_FSIZE)
        resource.setrlimit(resource.RLIMIT_FSIZE, (256 * 1024, old[1]))
        try:
            return super().launch(options, arguments)
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, old)

    def test_a_full_disk_defers_and_the_gateway_goes_on(self):
        self.begin(scanning={"MaxScanMem": 16})
        self.provokes(DEFERRED)
        large = body(("z" * 76 + "\r\n") * 10000)
        client = self.client()
        for _ in range(2):
            self.assertRegex(client.mail(large), r"^45[12] 4\.3\.1 ")
            self.assertRegex(client.mail(body("small")), r"^250 ")
        self.noted(SPOOL_FAILED, 2)
        self.assertEqual(len(self.sink.wait_messages(2)), 2)
        self.assert_nothing_left()


class Signals(SmtpCase):
    def test_a_stop_cuts_no_session(self):
        daemon = self.begin()
        client = self.client()
        client.hello()
        client.envelope()
        client.ask("DATA")
        daemon.signal(signal.SIGHUP)
        harness.wait_until(self.refused, "the end of the listening socket")
        client.send(body() + b".\r\n")
        self.assertRegex(client.read(), r"^250 ")
        self.assertRegex(client.ask("QUIT"), r"^221 ")
        daemon.wait()

    def refused(self):
        with socket.socket() as probe:
            return probe.connect_ex((harness.SERVER, self.port)) != 0

    def test_a_worker_that_is_killed_is_replaced_and_its_message_is_not_lost(self):
        self.begin(network={"AcceptCount": 2})
        for victim in self.workers():
            self.kill_worker(victim)
        self.wait_event(10000, 54, count=4)
        for _ in range(3):
            self.assertRegex(self.client().mail(), r"^250 ")
        self.noted(ACCEPTED, 3)

    def test_what_a_killed_worker_leaves_in_the_spool_is_swept_by_a_start_an_hour_later(self):
        folder = self.root.path / "scandir" / self.proxy
        daemon = self.begin(scanning={"MaxScanMem": 16})
        self.assertEqual([stat.S_IMODE(path.stat().st_mode) for path in (folder, folder / "segv")], [0o777] * 2)
        client = self.client()
        client.hello()
        client.envelope()
        client.ask("DATA")
        client.send(body("x\r\n" * 20000))
        [left] = harness.wait_until(self.spool_files, "a message on disk")
        self.assertTrue(left.endswith(".in"), left)
        self.assertEqual(stat.S_IMODE((folder / left).stat().st_mode), 0o600)
        self.kill_worker()
        self.wait_event(10000, 54, count=2)
        following = self.client()
        self.assertRegex(following.mail(), r"^250 ")
        following.close()
        self.stop(daemon)
        self.assertEqual(self.spool_files(), [left])
        self.launch()
        self.wait_worker()
        self.assertEqual(self.spool_files(), [left])  # somebody may still be at it
        self.stop()
        os.utime(folder / left, (time.time() - 3700,) * 2)
        self.launch()
        self.assertEqual(self.noted(SWEPT)[0]["values"]["smtp_count"], 1)
        self.assertEqual(self.spool_files(), [])


if __name__ == "__main__":
    unittest.main()
