"""A mail gateway, a resource manager and four scanner daemons under load, while daemons and the manager are killed and come
back: no mail is lost, none passes unscanned, and the work goes on as before soon after each return."""
import bisect
import multiprocessing
import os
import pathlib
import random
import signal
import subprocess
import sys
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import harness  # noqa: E402
from farm_case import FarmCase  # noqa: E402
from smtp_case import (DEFERRED, EICAR, NOT_SCANNED, POLICY_REFUSED, REFUSED, RULE_HIT, SCAN_FAILED, VIRUS,  # noqa: E402
                       Client, SmtpCase, body, with_attachment)

SECONDS = 60 if harness.FULL else 8
DAEMONS, CLIENTS = 4, 6
EACH = 10  # mails of a session: with one for each mail there would soon be no port left
WARM = SECONDS / 8  # seconds of work before the first kill, by which the others are measured
WINDOW = 0.5  # seconds over which work is counted
BACK = harness.bound(8.0)  # seconds from a return until the work goes on, with room: 2 are what is aimed at
LOST = ((190002, 399), (190002, 400), (190002, 401), (190002, 402))


class Mailing:
    """Clients that send mail after mail, every other one infected, and keep what they were told. They are a process of
    their own, whose pace is not that of the test."""

    def __init__(self, port):
        own = multiprocessing.get_context("fork")
        self.port, self.stopping, self.kept = port, own.Event(), own.Queue()
        self.began = time.monotonic()
        self.judged = own.Value("L", 0)
        self.told = {"clean": {}, "infected": {}}  # by the text of the mail
        self.answered = []  # when each mail was judged, by the clock that only goes forward
        self.process = own.Process(target=self._work, daemon=True)
        self.process.start()

    def _work(self):
        threads = [threading.Thread(target=self._run, args=(number,)) for number in range(CLIENTS)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.kept.put((self.told, sorted(self.answered)))

    def _run(self, number):
        turn, client = 0, Client(self.port)
        while not self.stopping.is_set():
            turn += 1
            kind = "infected" if turn % 2 else "clean"
            text = f"{kind} {number}-{turn}"
            self.told[kind][text] = client.mail(with_attachment(f"{EICAR}\r\n{text}") if turn % 2 else body(text))
            if turn % EACH == 0:
                client.close()
                client = Client(self.port)
            if not self.told[kind][text].startswith("4"):
                self.answered.append(time.monotonic())
                with self.judged.get_lock():
                    self.judged.value += 1
        client.close()

    def rate(self, begin, end):
        """Mails a second that were judged."""
        return (bisect.bisect(self.answered, end) - bisect.bisect(self.answered, begin)) / (end - begin)

    def wait_more(self, count, what):
        before = self.judged.value
        harness.wait_until(lambda: self.judged.value > before + count, what)

    def end(self):
        """After this what was told is known."""
        self.stopping.set()
        self.told, self.answered = self.kept.get(timeout=harness.LIMIT)
        self.process.join(harness.LIMIT)


class Kills(FarmCase, SmtpCase):
    def begin_farm(self):
        self.start_manager("--probe", "1", "--slow-start", "1")
        self.scanners = self.start_scanners(DAEMONS, spools=[self.root.path / "scandir"])
        self.manager.wait_up(*self.scanners)
        self.begin(scanning={"LSServerWaitTime": 3})
        for event in (*LOST, SCAN_FAILED, NOT_SCANNED, DEFERRED, VIRUS, RULE_HIT, REFUSED, POLICY_REFUSED):
            self.expect(*event, at_least=0)

    def kill_a_daemon(self, scanner):
        scanner.kill()
        scanner.start()
        self.manager.wait_up(scanner)

    def kill_a_worker(self, scanner):
        scanner.kill_worker()

    def kill_all_daemons(self, _):
        for scanner in self.scanners:
            scanner.kill()
        for scanner in self.scanners:
            scanner.start()
        harness.wait_until(lambda: any(map(self.manager.is_up, self.scanners)), "a server that is up")

    def kill_the_manager(self, _):
        self.manager.end(signal.SIGKILL)
        self.manager.start()

    def kill_at_random(self, mailing):
        """What was done, and when whoever was killed was back."""
        choice = random.Random(SECONDS)
        kinds = [self.kill_a_daemon, self.kill_the_manager, self.kill_a_worker, self.kill_all_daemons]
        returns = []
        end = time.monotonic() + SECONDS - WARM
        while time.monotonic() < end:
            kill = kinds[len(returns) % 4] if len(returns) < 4 else choice.choice([self.kill_a_daemon, *kinds])
            kill(choice.choice(self.scanners))
            returns.append((kill.__name__, time.monotonic()))
            pause = time.monotonic() + choice.uniform(0.2, 1.2)
            harness.wait_until(lambda: time.monotonic() > pause, "the next kill")
        two_seconds_work = 2 * mailing.judged.value / (time.monotonic() - mailing.began)
        mailing.wait_more(max(4 * CLIENTS, two_seconds_work), "work after the last return")
        return returns

    def time_to_work(self, mailing, returned, usual):
        """Seconds from a return until half of the usual work is done again; None where it never is."""
        last = mailing.answered[-1]
        at = returned
        while at + WINDOW <= last:
            if mailing.rate(at, at + WINDOW) >= usual / 2:
                return at - returned
            at += 0.05
        return None

    def test_no_mail_is_lost_and_none_passes_unscanned(self):
        self.begin_farm()
        mailing = Mailing(self.port)
        try:
            began = mailing.began
            mailing.wait_more(20, "work")
            harness.wait_until(lambda: time.monotonic() > began + WARM, "the first kill")
            returns = self.kill_at_random(mailing)
            ended = time.monotonic()
        finally:
            mailing.end()
        usual = min(mailing.rate(began, began + WARM), mailing.rate(began, ended))  # other work of the machine comes and goes
        self.assert_every_infected_mail_was_stopped(mailing.told["infected"])
        self.assert_every_clean_mail_came_once(mailing.told["clean"])
        self.assert_the_gateway_scanned_nothing_itself()
        self.assert_work_goes_on(mailing, returns, usual)

    def assert_every_infected_mail_was_stopped(self, told):
        self.assertEqual({text: reply for text, reply in told.items() if not reply.startswith(("554", "451"))}, {})

    def assert_every_clean_mail_came_once(self, told):
        self.assertEqual({text: reply for text, reply in told.items() if not reply.startswith(("250", "451"))}, {})
        taken = sorted(text for text, reply in told.items() if reply.startswith("250"))
        arrived = sorted(mail.content.rstrip().rsplit(b"\r\n", 1)[-1].decode() for mail in self.sink.wait_messages(len(taken)))
        self.assertEqual(arrived, taken)

    def assert_the_gateway_scanned_nothing_itself(self):
        shown = subprocess.run([os.environ["VELT_COUNTERS"], self.proxy], capture_output=True, text=True, check=True,
                               env={**os.environ, "VELT_ROOT": str(self.root.path)}).stdout
        counters = dict(line.split()[:2] for line in shown.splitlines())
        self.assertEqual(counters["scanner.inline.scans"], "0")
        self.assertNotEqual(counters["scanner.servers.connects"], "0")

    def assert_work_goes_on(self, mailing, returns, usual):
        took = {}
        for number, (kill, returned) in enumerate(returns):
            again = self.time_to_work(mailing, returned, usual)
            if again is not None:
                took.setdefault(kill, []).append(again)
        later = [reply for kind in mailing.told.values() for reply in kind.values() if reply.startswith("4")]
        print(f"{sum(map(len, mailing.told.values()))} mails, {len(later)} told to come later; {usual:.0f} a second")
        for kill, times in sorted(took.items()):
            print(f"{kill}: {len(times)} times, at work again after {max(times):.2f} s at most")
        self.assertEqual(len(returns) - sum(map(len, took.values())), 0, "work was done after each return")
        self.assertLess(max(map(max, took.values())), BACK)


if __name__ == "__main__":
    unittest.main()
