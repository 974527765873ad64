"""Real scan servers that are killed and started again while mail comes in on several sessions: whatever a client was told is
taken arrives once, what has a finding never does, and everything else was put off until the server was back."""
import collections
import re
import threading
import unittest

import harness
from scan_case import ScanCase
from scan_servers import CLAMD, PLANTED, SPAMD, RealClamd, RealSpamd, is_installed
from smtp_case import (DEFERRED, ENGINE_FAILED, POLICY_REFUSED, REFUSED, SCAN_FAILED, SPAM_BELOW, SPAM_FOUND, STAFF, VIRUS,
                       body, with_attachment)

SESSIONS = 6
KILLS = 3
TAKEN, FOUND, PUT_OFF = "250", "554", "451"


class Load:
    """Sessions that send one mail after the other, every third with a finding, each until it is taken or refused."""

    def __init__(self, connect, finding):
        self.connect, self.finding = connect, finding
        self.lock, self.stopping = threading.Lock(), threading.Event()
        self.answers = collections.Counter()
        self.taken, self.odd = [], []
        self.threads = [threading.Thread(target=self.session, args=(number,)) for number in range(SESSIONS)]

    def start(self):
        for thread in self.threads:
            thread.start()

    def stop(self):
        self.stopping.set()
        for thread in self.threads:
            thread.join()

    def session(self, number):
        client, count = self.connect(), 0
        client.hello()
        while not self.stopping.is_set():
            count += 1
            self.mail(client, f"mail {number}.{count}", count % 3 == 0)
        client.close()

    def mail(self, client, subject, planted):
        content = f"Subject: {subject}\r\n".encode() + (self.finding if planted else body("fine"))
        reply = PUT_OFF
        while reply == PUT_OFF:
            client.envelope([STAFF])
            reply = client.data(content)[:3]
            self.note(subject, reply, FOUND if planted else TAKEN)
            if reply == PUT_OFF:
                self.stopping.wait(0.02)

    def note(self, subject, reply, wanted):
        with self.lock:
            self.answers[reply] += 1
            if reply == TAKEN:
                self.taken.append(subject)
            if reply not in (wanted, PUT_OFF):
                self.odd.append((subject, reply))

    def wait_for(self, *replies):
        """Some more of each."""
        with self.lock:
            before = self.answers.copy()
        for reply in replies:
            harness.wait_until(lambda: self.answers[reply] > before[reply] + SESSIONS or self.odd, f"more of {reply}", 90)


class Restarts(ScanCase):
    def under_load(self, server, finding, *found, **sections):
        self.addCleanup(server.kill)
        server.start()
        self.provokes(*found, POLICY_REFUSED, REFUSED, ENGINE_FAILED, SCAN_FAILED, DEFERRED)
        self.begin(**sections)
        load = Load(self.client, finding)
        load.start()
        try:
            for _ in range(KILLS):
                load.wait_for(TAKEN, FOUND)
                server.kill()
                load.wait_for(PUT_OFF)
                server.start()
            load.wait_for(TAKEN, FOUND)
        finally:
            load.stop()
        self.assert_exact(load, finding)

    def assert_exact(self, load, finding):
        self.assertEqual(load.odd, [])
        arrived = [re.match(rb"(?:Received:.*\r\n(?:\t.*\r\n)*)?Subject: (.*)\r\n", one.content)[1].decode()
                   for one in self.sink.messages]
        self.assertEqual(sorted(arrived), sorted(load.taken))
        self.assertEqual(len(set(arrived)), len(arrived), "something arrived twice")
        self.assertFalse([one for one in self.sink.messages if finding in one.content], "arrived with a finding")
        self.assert_conserved(clean=load.answers[TAKEN], acted=load.answers[FOUND], failed=load.answers[PUT_OFF])

    @unittest.skipUnless(is_installed(CLAMD), "clamd is not installed")
    def test_of_clamd_lose_nothing_and_let_nothing_pass(self):
        server = RealClamd(self.root.path)
        self.under_load(server, with_attachment(PLANTED), VIRUS, KORAVScanner={"ClamdSockets": [server.path]})

    @unittest.skipUnless(is_installed(SPAMD), "spamd is not installed")
    def test_of_spamd_lose_nothing_and_let_nothing_pass(self):
        server = RealSpamd(self.root.path)
        self.under_load(server, body(PLANTED), SPAM_FOUND, SPAM_BELOW,
                        SpamScanner={"Source": "spamd", "Servers": server.path, "Action": "DENY"})


if __name__ == "__main__":
    unittest.main()
