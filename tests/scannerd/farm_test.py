"""A mail gateway whose mail is scanned by scanner daemons, which a resource manager offers."""
import os
import pathlib
import subprocess
import sys
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import harness  # noqa: E402
from mail_farm_case import LOST, REMOTE, MailFarmCase  # noqa: E402
from smtp_case import (BOARD, DEFERRED, EICAR, NOT_SCANNED, NOTIFIED, PHRASE, POLICY_REFUSED, REFUSED, RULE_HIT,  # noqa: E402
                       SCAN_FAILED, SENDER, STAFF, VIRUS, body, with_attachment)

ANNOUNCED, NOT_ANNOUNCED = (60100, 9), (60100, 10)


class Farm(MailFarmCase):
    def judge(self):
        """Mail of every kind, and what has to become of it."""
        self.provokes(VIRUS, RULE_HIT, REFUSED, POLICY_REFUSED)
        self.assertRegex(self.client().mail(body("hello")), r"^250 ")
        self.assertRegex(self.client().mail(with_attachment(EICAR)), r"^554 5\.7\.1 .*EICAR")
        self.assertRegex(self.client().mail(body(PHRASE)), r"^554 ")
        self.assertRegex(self.client().mail(body(PHRASE), recipients=[BOARD]), r"^250 ")
        self.assertRegex(self.client().mail(body("x\r\n" * 100000)), r"^250 ")
        self.assertRegex(self.client().mail(with_attachment(b"x\r\n" * 100000 + EICAR.encode())), r"^554 |^250 ")
        self.assertRegex(self.client().mail(body("x\r\n" * 100000 + PHRASE)), r"^554 ")
        self.sink.wait_messages(3)

    def test_mail_is_judged_by_a_daemon_of_this_machine(self):
        self.begin_farm()
        self.judge()
        self.stop_scanners()
        self.assertEqual(self.scanners[0].items(), 7)

    def test_mail_is_judged_by_a_daemon_elsewhere(self):
        self.begin_farm((REMOTE,))
        self.judge()
        self.stop_scanners()
        self.assertEqual(self.scanners[0].items(), 7)

    def test_a_daemon_announces_itself_where_there_is_a_manager(self):
        self.begin_manager()
        self.scanners = []
        scanner = self.add_scanner(harness.SERVER, self.managed)
        harness.wait_until(lambda: scanner.root.log.named(*ANNOUNCED), "an announcement")
        self.assertEqual((self.manager / "qxrmgr1").read_text(), f"{harness.SERVER} {scanner.port}\n15 scannerd\n")
        self.assertEqual(len(scanner.root.log.named(*ANNOUNCED)), 1)
        (holder,) = [pid for pid in scanner.root.processes()
                     if any("qxrmgrctl" in os.readlink(fd) for fd in pathlib.Path(f"/proc/{pid}/fd").iterdir())]
        self.assertEqual(pathlib.Path(f"/proc/{holder}/comm").read_text(), "announcer\n", "workers that drain are not offered")
        self.begin(scanning={"LSServerWaitTime": 3})
        self.judge()
        self.stop_scanners()
        self.assertEqual(scanner.items(), 7)

    def test_a_daemon_that_the_manager_refuses_serves_those_who_know_it(self):
        self.begin_manager()
        (self.manager / "refuses").touch()
        self.scanners = []
        scanner = self.add_scanner(harness.SERVER, self.managed)
        harness.wait_until(lambda: scanner.root.log.named(*NOT_ANNOUNCED), "a refusal")
        self.offer(1, scanner)
        self.begin(scanning={"LSServerWaitTime": 3})
        self.assertRegex(self.client().mail(body("hello")), r"^250 ")

    def test_who_scans_is_one_setting(self):
        self.begin_manager()
        self.scanners = []
        self.offer(1, self.add_scanner(harness.SERVER))
        self.begin(scanning={"LSDisabled": True})
        self.judge_two()
        self.assertEqual(self.scans(), (2, 0))
        self.stop()
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.write_text(rules.read_text().replace('name="LSDisabled">true<', 'name="LSDisabled">false<'))
        self.launch()
        self.wait_worker()
        self.judge_two()
        self.assertEqual(self.scans()[1], 2)
        self.stop_scanners()
        self.assertEqual(self.scanners[0].items(), 2)

    def judge_two(self):
        self.provokes(VIRUS, REFUSED, POLICY_REFUSED)
        for content, answer in ((body("hello"), r"^250 "), (with_attachment(EICAR), r"^554 5\.7\.1 .*EICAR")):
            client = self.client()
            self.assertRegex(client.mail(content), answer)
            client.close()

    def scans(self):
        """(by the gateway itself, by daemons)"""
        shown = subprocess.run([os.environ["VELT_COUNTERS"], self.proxy], capture_output=True, text=True, check=True,
                               env={**os.environ, "VELT_ROOT": str(self.root.path)}).stdout
        counts = dict(line.split() for line in shown.splitlines() if len(line.split()) == 2)
        return tuple(int(counts.get(f"scanner.{way}.scans", 0)) for way in ("inline", "conn"))

    def test_each_identity_has_its_own_verdict_of_one_item(self):
        self.begin_farm()
        self.provokes(RULE_HIT, POLICY_REFUSED, NOTIFIED)
        self.client().mail(body(PHRASE), recipients=[STAFF, BOARD])
        mail, report = self.sink.wait_messages(2)
        self.assertEqual((mail.recipients, report.recipients), ([BOARD], [SENDER]))
        self.stop_scanners()
        self.assertEqual(self.scanners[0].items(), 1)

    def test_without_a_daemon_mail_waits_with_its_sender(self):
        self.begin_farm()
        self.scanners[0].stop()
        for event in (*LOST, SCAN_FAILED, NOT_SCANNED, DEFERRED):
            self.expect(*event, at_least=0)
        self.assertRegex(self.client().mail(body("hello")), r"^451 ")
        self.assertEqual(self.sink.messages, [])

    def test_a_daemon_that_looks_at_nothing_passes_no_mail(self):
        self.begin_manager()
        self.scanners = []
        self.offer(1, self.add_scanner(harness.SERVER, agent="null"))
        self.begin(scanning={"LSServerWaitTime": 3})
        for event in (*LOST, SCAN_FAILED, NOT_SCANNED, DEFERRED):
            self.expect(*event, at_least=0)
        self.assertRegex(self.client().mail(with_attachment(EICAR)), r"^451 4\.7\.1 ")
        self.assertEqual(self.sink.messages, [])

    def test_daemons_that_are_killed_lose_no_mail_and_pass_none_unscanned(self):
        self.begin_farm((harness.SERVER, harness.SERVER))
        for event in (*LOST, SCAN_FAILED, NOT_SCANNED, DEFERRED, VIRUS, RULE_HIT, REFUSED, POLICY_REFUSED):
            self.expect(*event, at_least=0)
        taken, passed, stop = [], [], threading.Event()

        def send(number):
            turn = 0
            while not stop.is_set():
                turn += 1
                client = self.client()
                if turn % 2:
                    if client.mail(with_attachment(EICAR)).startswith("250"):
                        passed.append((number, turn))
                else:
                    text = f"mail {number}-{turn}"
                    if client.mail(body(text)).startswith("250"):
                        taken.append(text)
                client.close()
        threads = [threading.Thread(target=send, args=(number,)) for number in range(4)]
        for thread in threads:
            thread.start()
        try:
            for turn in range(6):
                before = len(taken)
                harness.wait_until(lambda: len(taken) > before + 3, "mail that passes")
                victim = turn % 2
                self.scanners[victim].kill()
                self.withdraw(victim + 1)
                self.scanners[victim].root.remove()
                self.scanners[victim] = self.add_scanner(harness.SERVER)
                self.offer(victim + 1, self.scanners[victim])
        finally:
            stop.set()
            for thread in threads:
                thread.join(harness.LIMIT)
        self.assertEqual(passed, [])
        arrived = b"\n".join(mail.content for mail in self.sink.wait_messages(len(taken)))
        self.assertEqual([text for text in taken if text.encode() + b"\r\n" not in arrived], [])


if __name__ == "__main__":
    unittest.main()
