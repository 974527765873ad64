"""Mail while the processes of gateway, retryer and scanner daemons are killed, and the next server comes and goes: what was
told 250 arrives, and arrives once but for the answers that were lost, which are counted."""
import collections
import contextlib
import json
import os
import pathlib
import random
import re
import signal
import subprocess
import sys
import threading
import time
import unittest

TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path += [str(TESTS / "smtp"), str(TESTS / "scannerd")]

import greeter_case  # noqa: E402
import harness  # noqa: E402
import mail_sink  # noqa: E402
from deferred_case import EVERY_SECOND, NO_FILE, RESENT, WALK, DeferredCase, message_id  # noqa: E402
from mail_farm_case import LOST, Scanner  # noqa: E402
from smtp_case import DEFERRED, NOT_SCANNED, SCAN_FAILED, SWEPT  # noqa: E402

MAILS = greeter_case.size(300 if harness.SANITIZED else 1000, 20000)
SESSIONS = 8
SCANNERS = 2
UNANSWERED = 0.01  # of the mails that the next server takes
CLIENT_GONE, UNFINISHED_SWEPT = (60000, 14), (60000, 27)
START, WORKER = (10000, 46), (10000, 54)
SCRIPT = pathlib.Path(__file__).parent / "mails.py"
QUIET = (WALK, (10003, None), (15004, None), (19000, None), (60000, 1), (60000, 6))  # events that each mail has
SERVICE = ("-s", "retryer", "-t", "smtp")
VICTIMS = {"gateway's worker": 8, "gateway's monitor": 1, "retryer's worker": 8, "retryer's monitor": 1,
           "scanner's worker": 3, "scanner": 1}  # how often each is chosen


def children(pid):
    with contextlib.suppress(OSError):
        return [int(child) for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
    return []


class NextServer(mail_sink.MailSink):
    """Notes what arrives, and now and then leaves without the answer to a mail that it has taken."""

    def __init__(self, port, arrived):
        self.arrived = arrived
        super().__init__(port)

    def store(self, message):
        self.arrived.note(message.content)
        if self.arrived.loses_answer():
            raise ConnectionAbortedError("without an answer")

    def leave(self):
        """Also in the middle of what is under way."""
        self.close()
        for connection in list(self.open):
            with contextlib.suppress(OSError):
                connection.shutdown(mail_sink.socket.SHUT_RDWR)


class Arrived:
    """What came to the next server: the audit ids of each Message-ID's copies."""

    def __init__(self):
        self.lock = threading.Lock()
        self.copies = collections.defaultdict(list)
        self.unanswered = 0
        self.random = random.Random(MAILS)

    def note(self, content):
        audit = re.match(rb"Received: .*\r\n(?:\t.*\r\n)*?.*\bid (\S+?);?\s", content)[1].decode()
        with self.lock:
            self.copies[message_id(content).decode()].append(audit)

    def loses_answer(self):
        with self.lock:
            lost = self.random.random() < UNANSWERED
            self.unanswered += lost
        return lost


class Load:
    """The mails of mails.py, and what became of them so far."""

    def __init__(self, port):
        command = [sys.executable, "-B", str(SCRIPT), str(port), str(MAILS), str(SESSIONS)]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        self.taken, self.untaken = set(), collections.Counter()
        self.reader = threading.Thread(target=self._read)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            what = json.loads(line)
            if "taken" in what:
                self.taken.add(f"<{what['taken']}@outside.example>")
            else:
                self.untaken[what["why"]] += 1

    def runs(self):
        return self.process.poll() is None

    def end(self):
        self.process.wait()
        self.reader.join()
        self.process.stdout.close()


class Restarted(Scanner):
    """A scanner daemon that comes back in its own root."""

    def kill(self):
        for pid in self.root.processes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        self.daemon.wait()

    def restart(self):
        self.daemon = harness.Daemon(self.root, os.environ["VELT_SCANNERD"], "scannerd", "product")
        harness.wait_until(self.daemon.workers, "a worker of the scanner daemon")


class KilledMail(DeferredCase):
    def configure(self, *arguments, **others):
        super().configure(*arguments, **others)
        rows = "".join(f'<event number="{number}"' + (f' reason="{reason}"' if reason else "") + ' switch="off"/>'
                       for number, reason in QUIET)
        self.logging = f'<logging><sink type="json" file="{self.root.log.path}"/><events>{rows}</events></logging>\n'
        self.root.write(f"{self.proxy}-logging.xml", self.logging)

    def begin_all(self):
        for event in (START, WORKER, NO_FILE, RESENT, DEFERRED, SCAN_FAILED, NOT_SCANNED, CLIENT_GONE, (12000, None), *LOST):
            self.expect(*event, at_least=0)
        self.arrived = Arrived()
        self.upstream = NextServer(0, self.arrived)
        self.addCleanup(lambda: self.upstream.close())
        self.begin_scanners()
        managed = {"LD_PRELOAD": os.environ["VELT_MANAGER_CALLS"], "VELT_MANAGER": str(self.manager)}
        self.begin(options=(), environment=managed, smtp={"RelayPort": self.upstream.port, "UpstreamFinalTimeout": 20},
                   scanning={"LSServerWaitTime": 1}, network={"AcceptCount": 2, "MaxConnections": 16},
                   smtpretryer={**EVERY_SECOND, "MaxConncurrent": 4})
        self.root.write("smtp-retryer-logging.xml", self.logging)
        self.addCleanup(self.end_services)
        self.kept = 0
        self.services = {"gateway": self.gateway.supervisor(), "retryer": self.retryer_service(managed)}

    def retryer_service(self, environment):
        """The number of its supervisor: of both services' processes the one that leads no known session."""
        known = set(self.root.processes())
        self.retryer(options=SERVICE, environment=environment).wait()

        def supervisors():
            return [pid for pid in self.root.processes() if pid not in known and children(pid) and
                    (harness.process_fields(pid) or (0, 0, 0, 0))[3] == pid]
        return harness.wait_until(supervisors, "the retryer's supervisor")[0]

    def begin_scanners(self):
        self.manager = self.root.path / "manager"
        self.manager.mkdir()
        for name in ("qxrmgrctl", "qxrmgr0", "qxrmgr"):
            (self.manager / name).touch()
        self.scanners = []
        for number in range(1, SCANNERS + 1):
            scanner = Restarted(self.root.path, harness.SERVER)
            self.addCleanup(scanner.root.remove)
            self.addCleanup(scanner.stop)
            self.scanners.append(scanner)
            (self.manager / f"qxrmgr{number}").write_text(f"{scanner.address} {scanner.port}\n")

    def end_services(self):
        """The supervisors first: they would start the rest again."""
        for pid in self.services.values():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
            for monitor in children(pid):
                os.kill(monitor, signal.SIGHUP)
        for pid in self.root.processes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGHUP)
        self.wait_all_gone()

    # --- what is pulled out of the wall ---

    def kill(self, victim):
        whose, what = victim.split("'s ") if "'s " in victim else (victim, None)
        if whose == "scanner":
            return self.kill_scanner(self.choice.choice(self.scanners), what)
        monitors = children(self.services[whose])
        found = monitors if what == "monitor" else [pid for one in monitors for pid in children(one)]
        if not found:
            return False  # it is just being started again
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.choice.choice(found), signal.SIGKILL)
        return True

    def kill_scanner(self, scanner, what):
        if not what:
            scanner.kill()
            scanner.restart()
            return True
        for pid in children(scanner.daemon.pid):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        return True

    def turn(self, step):
        """The next server is there for three steps of five."""
        if step % 5 == 2:
            self.upstream.leave()
        elif step % 5 == 4:
            self.upstream = NextServer(self.upstream.port, self.arrived)

    def kill_at_random(self, load):
        """While mails come in, and until half of those that wait then have left."""
        self.choice = random.Random(MAILS)
        self.killed, step, moment = collections.Counter(), 0, threading.Event()
        while load.runs() or step % 5 != 4 or len(self.waiting()) > self.kept / 2:
            step += 1
            self.kept = len(self.waiting()) if load.runs() else self.kept
            victim = self.choice.choices(list(VICTIMS), VICTIMS.values())[0]
            self.killed[victim] += self.kill(victim)
            self.turn(step)
            moment.wait(self.choice.uniform(0.02, 0.3))  # any
        load.end()

    # --- what is promised ---

    def test_nothing_that_was_taken_is_lost(self):
        self.begin_all()
        begin = time.monotonic()
        load = Load(self.port)
        self.kill_at_random(load)
        self.wait_empty(limit=120)
        ended = time.monotonic()
        self.assert_all_arrived(load)
        self.end_services()
        again = self.assert_copies_are_counted()
        swept = self.assert_nothing_is_left_after_the_sweep()
        print(f"\nmails taken {len(load.taken)}; tries without a 250 {sum(load.untaken.values())}; arrived "
              f"{len(self.arrived.copies)}; a second time {again}, of {self.arrived.unanswered} lost answers and "
              f"{self.resent()} counted; kept {self.counters('smtp')['smtp.messages.kept']}, {self.kept} of them at once; "
              f"killed {dict(self.killed)}; stale spool files {swept}; {ended - begin:.0f} s", flush=True)

    def assert_all_arrived(self, load):
        self.assertEqual(len(load.taken), MAILS)
        self.assertEqual(load.taken - set(self.arrived.copies), set(), "told 250, and never seen")

    def resent(self):
        return self.counters().get("smtp.messages.resent", 0)

    def assert_copies_are_counted(self):
        """Each second copy has the audit id of the first, and the retryer has counted that it may be one. Its report of that
        may have ended with the process."""
        told = collections.Counter(event["values"]["audit_id"] for event in self.events(*RESENT))
        several = {name: audits for name, audits in self.arrived.copies.items() if len(audits) > 1}
        for name, audits in several.items():
            self.assertEqual(len(set(audits)), 1, name)
        again = sum(len(audits) - 1 for audits in several.values())
        self.assertLessEqual(again, self.resent())
        untold = [name for name, audits in several.items() if len(audits) - 1 > told[audits[0]]]
        self.assertLessEqual(len(untold), self.killed["retryer's worker"] + self.killed["retryer's monitor"], untold)
        return again

    def assert_nothing_is_left_after_the_sweep(self):
        """Of an hour later. How many files it has removed."""
        roots = [self.root, *(scanner.root for scanner in self.scanners)]
        stale = [file for root in roots for file in (root.path / "scandir").rglob("*") if file.is_file()]
        for file in stale:
            os.utime(file, (time.time() - 7200,) * 2)
        self.expect(*SWEPT, at_least=0)
        for scanner in self.scanners:
            scanner.kill()
            scanner.restart()
        self.launch(("-d",))
        self.retryer()
        harness.wait_until(lambda: not any(file.exists() for file in stale), "an empty spool directory")
        return len(stale)


if __name__ == "__main__":
    unittest.main()
