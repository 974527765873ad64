"""Scan servers beside the gateway that are away, die, fall silent or talk nonsense: nothing passes that they have not
judged, each such scan has one event and one counter, and the mail goes again when they are back."""
import signal
import unittest

import harness
from scan_case import ScanCase
from scan_servers import CLAMD, PLANTED, RealClamd, ScriptedClamd, ScriptedRspamd, ScriptedSpamd, is_installed
from smtp_case import (BOARD, DEFERRED, ENGINE_FAILED, POLICY_REFUSED, REFUSED, SCAN_FAILED, SENDER, SPAM_FOUND,
                       SPAM_BELOW, STAFF, VIRUS, body, with_attachment)

LONG = ("hello " * 12 + "\r\n") * 5000  # goes to a server in pieces
FAULTS = (SPAM_FOUND, POLICY_REFUSED, REFUSED, ENGINE_FAILED, SCAN_FAILED, DEFERRED)  # what they provoke
AWAY, SLOW, NONSENSE = 120, 121, 122  # the engines' numbers


class ServerCase(ScanCase):
    impatient = ""  # the settings of those who do not wait long

    def configure(self, sections, **others):
        super().configure(sections, **others)
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        mark = '<identity name="board">'
        text = rules.read_text()
        self.assertIn(mark, text)
        rules.write_text(text.replace(mark, mark + self.impatient))

    def serve(self, server):
        self.server = server
        self.addCleanup(server.stop)
        server.start()

    def mail(self, *message):
        """One message of a client of its own."""
        client = self.client()
        reply = client.mail(*message)
        client.close()
        return reply

    def assert_deferred(self, what, number, recipient=STAFF):
        """451, one event of the engine, one of the gateway, and one counter."""
        failed = self.counted()["failed"] + 1
        self.assertRegex(self.mail(body(LONG), [recipient]), r"^451 4\.7\.1 message could not be checked", what)
        self.assertEqual(self.counted()["failed"], failed, what)
        for event in (ENGINE_FAILED, SCAN_FAILED):
            self.assertEqual(len(self.noted(event, failed)), failed, what)
        self.assertEqual(self.events(*ENGINE_FAILED)[-1]["values"]["error_id"], number, what)

    def assert_judged(self, what):
        self.assertRegex(self.mail(), r"^250 ", what)
        self.assertRegex(self.mail(with_attachment("harmless")), r"^250 ", what)
        self.assertRegex(self.mail(body(PLANTED)), r"^554 5\.7\.1 ", what)

    def each_fault(self, faults):
        """Each is followed by the server as it should be."""
        self.assert_judged("at the beginning")
        for fault, number in faults.items():
            self.server.fault = fault
            self.assert_deferred(fault, number)
            self.server.fault = None
            self.assert_judged("after " + fault)
        self.server.fault = "silent"
        self.assert_deferred("silent", SLOW, BOARD)
        self.server.fault = None
        self.assert_judged("after silent")
        self.server.stop()
        for _ in range(2):
            self.assert_deferred("away", AWAY)
        self.server.start()
        self.assert_judged("back again")
        times = len(faults) + 3
        self.assert_conserved(failed=times, clean=2 * times, acted=times)


class VirusServer(ServerCase):
    impatient = '<settings section="KORAVScanner"><set name="ClamdTimeout">0.3</set></settings>'

    def begin(self, path):
        self.provokes(VIRUS, POLICY_REFUSED, REFUSED, ENGINE_FAILED, SCAN_FAILED, DEFERRED)
        super().begin(KORAVScanner={"ClamdSockets": [path]})

    def test_each_fault_of_it_defers_and_mail_goes_again_afterwards(self):
        self.serve(ScriptedClamd(self.root.path / "clamd"))
        self.begin(self.server.path)
        self.each_fault({"leave-in-content": AWAY, "leave-at-end": AWAY, "cut": AWAY, "rubbish": NONSENSE})

    @unittest.skipUnless(is_installed(CLAMD), "clamd is not installed")
    def test_a_real_one_is_killed_in_the_middle_of_a_scan_stopped_and_started_again(self):
        clamd = RealClamd(self.root.path)
        self.addCleanup(clamd.kill)
        clamd.start()
        harness.wait_until(clamd.is_idle, "the end of the first question")
        self.begin(clamd.path)
        clamd.signal(signal.SIGSTOP)
        client = self.client()
        client.hello()
        client.envelope()
        client.ask("DATA")
        client.send(body() + b".\r\n")
        harness.wait_until(lambda: clamd.connections() == 1, "a question that waits for its answer")
        clamd.kill()
        self.assertRegex(client.read(), r"^451 4\.7\.1 ")
        self.assert_deferred("killed", AWAY)
        clamd.start()
        self.assertRegex(self.mail(), r"^250 ")
        self.assertRegex(self.mail(with_attachment(PLANTED)), r"^554 5\.7\.1 .*Own\.Planted")
        clamd.signal(signal.SIGSTOP)
        self.assert_deferred("stopped", SLOW, BOARD)
        clamd.signal(signal.SIGCONT)
        self.assertRegex(self.mail(), r"^250 ")
        self.assert_conserved(failed=3, clean=2, acted=1)


class SpamServer(ServerCase):
    impatient = '<settings section="SpamScanner"><set name="Timeout">0.3</set></settings>'

    def begin(self, source, server, *provoked):
        self.serve(server)
        self.provokes(SPAM_BELOW, *provoked)
        super().begin(SpamScanner={"Source": source, "Servers": self.server.path, "Action": "DENY"})

    def test_each_fault_of_it_defers_and_mail_goes_again_afterwards(self):
        self.begin("spamd", ScriptedSpamd(self.root.path / "spamd"), *FAULTS)
        self.each_fault({"leave-in-content": AWAY, "leave-at-end": AWAY, "cut": NONSENSE, "rubbish": NONSENSE})

    def test_the_same_of_one_that_speaks_http(self):
        self.begin("rspamd", ScriptedRspamd(self.root.path / "rspamd"), *FAULTS)
        self.each_fault({"leave-in-content": AWAY, "leave-at-end": AWAY, "cut": NONSENSE, "rubbish": NONSENSE})

    def assert_told(self, *lines):
        told = self.server.question.decode().split("\r\n")
        self.assertEqual([line for line in lines if line not in told], [], self.server.question)

    def test_it_is_told_the_envelope(self):
        self.begin("spamd", ScriptedSpamd(self.root.path / "spamd"))
        self.assertRegex(self.mail(body(), [STAFF, "erin@inside.example"]), r"^250 ")
        self.assert_told(f"X-Envelope-From: <{SENDER}>", f"X-Envelope-To: {STAFF},", "\terin@inside.example")

    def test_one_that_speaks_http_is_told_it_in_fields(self):
        self.begin("rspamd", ScriptedRspamd(self.root.path / "rspamd"))
        self.assertRegex(self.mail(body(), [STAFF, "erin@inside.example"]), r"^250 ")
        self.assert_told(f"From: <{SENDER}>", f"Rcpt: {STAFF}", "Rcpt: erin@inside.example", f"IP: {harness.CLIENT}",
                         "Helo: client.example")
        self.assertRegex(self.mail(body(), [STAFF], ""), r"^250 ")
        self.assert_told("From: <>", f"Rcpt: {STAFF}")


if __name__ == "__main__":
    unittest.main()
