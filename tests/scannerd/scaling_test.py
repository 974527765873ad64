"""Three scanner hosts behind HAProxy, each in a network namespace of its own, as docs/scaling.md sets them up.

What the page shows is taken as it stands: HAProxy's file, the manager's, the hosts' and the script that rolls them. Beside
the hosts stand HAProxy, velt-rmgrd and the gateway, in the namespace of the test."""
import contextlib
import csv
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import harness  # noqa: E402
from harness import network  # noqa: E402
from scannerd_case import POLICIES as SCANNER_POLICIES  # noqa: E402
from smtp_case import (DEFERRED, EICAR, NOT_SCANNED, POLICY_REFUSED, REFUSED, SCAN_FAILED, VIRUS, SmtpCase,  # noqa: E402
                       body, with_attachment)

EXAMPLE = pathlib.Path(__file__).resolve().parents[2] / "docs/examples/scaling"
GATEWAY = "192.0.2.1"
HOSTS = {"scan-a": "192.0.2.11", "scan-b": "192.0.2.12", "scan-c": "192.0.2.13"}
PORT = 4310
LOST = ((190002, 399), (190002, 400), (190002, 401), (190002, 402))
NEW_VIRUS = b"a virus that nobody knows yet"
SENDERS = 4


class Host:
    """A machine with a scanner daemon."""

    def __init__(self, name, address):
        self.name, self.root, self.net = name, harness.Root(), network.Namespace()
        self._join(address)
        self.root.write("rules.xml", f'<rules version="1">\n{SCANNER_POLICIES.format(av="DENY")}</rules>\n')
        shutil.copy(EXAMPLE / "scannerd.xml", self.root.path / "config/qxxmlconf/efabric/scannerd.xml")
        for file in ("inside.txt", "outside.txt"):
            self.root.write(file, f"NETWORK {GATEWAY}\n")
        self.root.write("scannerd-logging.xml", f'<logging><sink type="json" file="{self.root.log.path}"/></logging>\n')
        self.start()

    def _join(self, address):
        network.run("ip", "link", "add", self.name, "type", "veth", "peer", "name", "eth0", "netns", str(self.net.pid))
        network.run("ip", "addr", "add", GATEWAY, "peer", address, "dev", self.name)
        network.run("ip", "link", "set", self.name, "up")
        self.net.ip("link", "set", "lo", "up")
        self.net.ip("addr", "add", address, "peer", GATEWAY, "dev", "eth0")
        self.net.ip("link", "set", "eth0", "up")

    def start(self):
        with self.net.entered():
            self.daemon = harness.Daemon(self.root, os.environ["VELT_SCANNERD"], "scannerd", "velt")
        harness.wait_until(self.daemon.workers, "a worker of the scanner daemon")

    def stop(self):
        if self.daemon.process.poll() is None:
            self.daemon.signal(signal.SIGHUP)
        self.daemon.wait()
        harness.wait_until(lambda: not self.root.processes(), "the end of the scanner daemon")

    def kill(self):
        for pid in self.root.processes():
            with contextlib.suppress(ProcessLookupError):  # some leave by themselves when the others are gone
                os.kill(pid, signal.SIGKILL)
        self.daemon.wait()

    def is_heard(self):
        return "state DOWN" not in network.run("ip", "link", "show", self.name)

    def vanish(self):
        """Nothing from it is heard any more, not even its end."""
        network.run("ip", "link", "set", self.name, "down")

    def learn(self, content):
        """Its next start knows this virus."""
        self.root.write("/opt/KORAqxs/avengine/dat/signatures.db", f"Test.New : {content.hex()}\n")

    def remove(self):
        self.stop() if self.is_heard() else self.kill()
        network.run("ip", "link", "del", self.name, check=False)
        self.net.close()
        self.root.remove()


class Load:
    """Clean mail and infected mail from several clients at once."""

    def __init__(self, case):
        self._case, self._stop = case, threading.Event()
        self.taken, self.put_off, self.passed = [], [], []
        self._threads = [threading.Thread(target=self._send, args=(number,)) for number in range(SENDERS)]

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        for thread in self._threads:
            thread.join(harness.LIMIT)

    def _send(self, number):
        turn = 0
        while not self._stop.is_set():
            turn += 1
            name = f"mail {number}-{turn}"
            answer = self._mail(body(name) if turn % 2 else with_attachment(EICAR))
            if not answer.startswith("250"):
                self.put_off += [name] if not answer.startswith("554") or turn % 2 else []
            elif turn % 2:
                self.taken.append(name)
            else:
                self.passed.append(name)

    def _mail(self, content):
        client = self._case.client()
        try:
            return client.mail(content)
        finally:
            client.close()

    def goes_on(self, count=12):
        before = len(self.taken)
        harness.wait_until(lambda: len(self.taken) >= before + count, "mail that passes")


class Scaling(SmtpCase):
    def setUp(self):
        if not network.permitted():
            self.skipTest("namespaces are not permitted here")
        super().setUp()

    def begin_all(self, connections):
        self.hosts = {}
        for name, address in HOSTS.items():
            self.hosts[name] = Host(name, address)
            self.addCleanup(self.hosts[name].remove)
        self.begin_haproxy()
        self.begin_manager(connections)
        for event in (*LOST, SCAN_FAILED, NOT_SCANNED, DEFERRED, VIRUS, REFUSED, POLICY_REFUSED):
            self.expect(*event, at_least=0)
        self.begin()

    def begin_haproxy(self):
        self.haproxy = self.root.path / "haproxy.sock"
        debian = self.root.write("/haproxy.cfg", f"global\n    stats socket {self.haproxy} mode 600 level admin\n")
        self.run_beside(["haproxy", "-db", "-q", "-f", debian, "-f", EXAMPLE / "scanners.cfg"], "haproxy.log")
        harness.wait_until(lambda: [self.status(name) for name in HOSTS] == ["UP"] * 3, "three hosts that are up")

    def begin_manager(self, connections):
        (self.root.path / "run/velt").mkdir(parents=True)
        log = self.run_beside([os.environ["VELT_RMGRD"], "--servers", EXAMPLE / "servers", "--probe", "1",
                               "--connections", connections], "rmgrd.log")
        harness.wait_until(lambda: "is up" in log.read_text(), "a farm that is up")

    def run_beside(self, command, log):
        """A program that runs until the end of the test; the file that it writes to."""
        path = self.root.path / log
        with open(path, "wb") as out:
            process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                       start_new_session=True, env={**os.environ, "VELT_ROOT": str(self.root.path)})

        def end():
            process.terminate()
            process.wait(harness.LIMIT)
        self.addCleanup(end)
        return path

    def stat(self, name, field):
        with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as asked:
            asked.connect(str(self.haproxy))
            asked.sendall(b"show stat\n")
            for row in csv.DictReader(asked.makefile().read().removeprefix("# ").splitlines()):
                if (row["pxname"], row["svname"]) == ("scanners", name):
                    return row[field]
        return None

    def status(self, name):
        return self.stat(name, "status")

    def roll(self, *words):
        return subprocess.run([EXAMPLE / "roll", *words], capture_output=True, text=True, check=False,
                              env={**os.environ, "HAPROXY_SOCKET": str(self.haproxy)})

    def roll_one(self, host, load, *options):
        """Restarts it with a new signature; what the script would have done on the host is done by this test."""
        begin, done = (self.root.path / f"{host.name}-{what}" for what in ("begin", "done"))
        for pipe in (begin, done):
            os.mkfifo(pipe)
        host.learn(NEW_VIRUS)
        rolled = []
        words = (*options, host.name, "sh", "-c", f"echo > {begin}; cat {done}")
        script = threading.Thread(target=lambda: rolled.append(self.roll(*words)))
        script.start()
        begin.read_text()
        self.assertEqual(self.status(host.name), "DRAIN")
        load.goes_on()
        host.stop()
        load.goes_on()
        host.start()
        done.write_text("")
        script.join(harness.LIMIT)
        self.assertEqual((rolled[0].returncode, rolled[0].stderr), (0, ""))
        self.assertEqual(self.status(host.name), "UP")
        load.goes_on()

    def assert_nothing_is_lost(self, load):
        self.assertEqual(load.passed, [])
        arrived = b"\n".join(mail.content for mail in self.sink.wait_messages(len(load.taken)))
        self.assertEqual([name for name in load.taken if name.encode() + b"\r\n" not in arrived], [])


class Farm(Scaling):
    def test_hosts_are_rolled_without_a_mail_that_fails_and_killed_without_one_that_is_lost(self):
        self.begin_all(connections="0 30 5 20")
        new = with_attachment(NEW_VIRUS)
        self.assertRegex(self.client().mail(new), r"^250 ")
        with Load(self) as load:
            load.goes_on()
            for host in self.hosts.values():
                self.roll_one(host, load)
            self.assertEqual((load.put_off, load.passed), ([], []))
            for _ in HOSTS:
                self.assertRegex(self.client().mail(new), r"^554 .*Test\.New")
            self.hosts["scan-a"].kill()
            load.goes_on()
            self.hosts["scan-b"].vanish()
            load.goes_on()
            harness.wait_until(lambda: self.status("scan-b").startswith("DOWN"), "the end of the host that is silent")
        self.sink.messages[:] = [mail for mail in self.sink.messages if b"mail " in mail.content]
        self.assert_nothing_is_lost(load)
        self.assertNotEqual(self.stat("scan-c", "stot"), "0")

    def test_a_host_whose_connections_are_kept_is_rolled_without_a_mail_that_fails(self):
        self.begin_all(connections="1 30 5 20")
        with Load(self) as load:
            load.goes_on()
            self.roll_one(self.hosts["scan-a"], load, "--kept")
        self.assertEqual(load.put_off, [])
        self.assert_nothing_is_lost(load)

    def test_a_host_that_does_not_come_back_stays_out(self):
        self.begin_all(connections="0 30 5 20")
        rolled = self.roll("scan-a", "false")
        self.assertEqual((rolled.returncode, rolled.stderr), (1, "scan-a stays out: the command failed\n"))
        self.assertEqual(self.status("scan-a"), "DRAIN")
        self.assertEqual(self.roll("scan-d", "true").stderr, "HAProxy knows no server scanners/scan-d\n")
        self.assertRegex(self.client().mail(body("hello")), r"^250 ")


if __name__ == "__main__":
    unittest.main()
