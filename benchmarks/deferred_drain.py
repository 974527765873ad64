#!/usr/bin/env python3
"""How soon mail that waited has left once the next server is back: this gateway's retryer beside Postfix.

usage: deferred_drain.py BUILD_DIR    MAILS, RUNS in the environment; FULL=1: 5,000 mails

Both take the same mails while nobody listens on the port of the next server, then that is started: the same program for
both, which counts what it has taken. The time is that from its first moment to the last mail; `first` is when the first one
came: Postfix is told to flush its queue in that moment, and the retryer finds out by itself, with walks, rests and pauses of
a second. Both deliver 20 mails at once. CPU is user and system of the retryer's processes, and of all of Postfix, meanwhile.

The exit status is that of the CPU ratio alone, with room; the time is judged by the reader, as it drifts with the machine
and its disk: the retryer flushes twice for each mail.
"""
import os
import pathlib
import statistics
import subprocess
import sys
import time

import mail_filters
import relays

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "testing"))
import postfix  # noqa: E402

MAILS = int(os.environ.get("MAILS", "5000" if os.environ.get("FULL") else "200"))
RUNS = int(os.environ.get("RUNS", "1"))
AT_ONCE, SESSIONS = 20, 16
SIZE = 4096  # bytes of a mail
LIMIT = 600  # seconds
OURS, PEER = "velt-smtp's retryer", "Postfix"
CPU_GATE = 0.8  # of Postfix's, with room: from 0.2 to 0.4 were measured beside other work
QUIET = '<logging version="1"><sink type="json" file="/dev/null"/><events default="off"></events></logging>\n'


class Queue:
    """What keeps mail. A subclass has the port where it comes in, `pids` and `waiting()`, and what `flush` does."""

    def fill(self, build, path):
        command = (build / "bin/velt_load", "mail", "--to", f"127.0.0.1:{self.port}", "--timeout-ms", 60000, "--file", path,
                   "--clients", SESSIONS, "--sessions", MAILS)
        subprocess.run([str(word) for word in command], stdout=subprocess.DEVNULL, check=True)
        relays.harness.wait_until(lambda: self.waiting() == MAILS, f"{MAILS} mails that wait", LIMIT)


class Ours(Queue):
    def __init__(self, build, folder, next_port):
        [self.port] = relays.harness.free_ports(1)
        self.build, self.root = build, mail_filters.root_of(folder)
        for name in ("bench", "bench-retryer"):
            mail_filters.write(self.root / f"config/qxxmlconf/{name}-logging.xml", QUIET)
        mail_filters.write(self.root / "config/qxxmlconf/rules.xml", mail_filters.rules("127.0.0.1", self.port, f"""
    <settings section="smtp">
      <set name="RelayHost">127.0.0.1</set><set name="RelayPort">{next_port}</set><set name="GreetingName">bench.test</set>
      <set name="StoreAndForward">true</set><set name="RetryPause">1</set><set name="RetryPauseLimit">1</set>
    </settings>
    <settings section="smtpretryer">
      <set name="ScanInterval">1</set><set name="RetryInterval">1</set><set name="MaxConncurrent">{AT_ONCE}</set>
    </settings>"""))

    def service(self, *options):
        return mail_filters.Service([self.build / "bin/velt-smtp", *options, "bench"], self.port, self.root)

    def __enter__(self):
        self.gateway = self.service("bench")
        self.gateway.__enter__()
        self.retryer = self.service("-s", "retryer", "-t", "smtp", "bench-retryer")
        self.retryer.__enter__()
        return self

    def __exit__(self, *_):
        self.retryer.__exit__()
        self.gateway.__exit__()

    @property
    def pids(self):
        return self.retryer.filter_pids

    def waiting(self):
        return sum(entry.name.endswith(".rmd") for entry in os.scandir(self.root / "deferred/smtp"))

    def flush(self):
        """It finds out by itself."""


class Peer(Queue):
    def __init__(self, _, folder, next_port):
        self.postfix = postfix.Postfix(folder / "postfix", next_port, f"""minimal_backoff_time = 10000
maximal_backoff_time = 20000
default_destination_concurrency_limit = {AT_ONCE}""")
        self.port = self.postfix.port

    def __enter__(self):
        self.postfix.start()
        return self

    def __exit__(self, *_):
        self.postfix.stop()

    @property
    def pids(self):
        return mail_filters.tree(self.postfix.process.pid)

    def waiting(self):
        return sum(one["queue_name"] == "deferred" for one in self.postfix.queued())

    def flush(self):
        self.postfix.flush()


def measure(make, build, folder, path):
    """(seconds, those before the first mail, CPU seconds) from the next server's start to the last mail."""
    [port] = relays.harness.free_ports(1)
    with make(build, folder, port) as queue:
        queue.fill(build, path)
        before = mail_filters.cpu_seconds(queue.pids)
        with mail_filters.Sink(folder, port) as sink:
            begin = time.monotonic()
            queue.flush()
            relays.harness.wait_until(lambda: sink.count() > 0, "a mail at the next server", LIMIT)
            first = time.monotonic() - begin
            relays.harness.wait_until(lambda: sink.count() >= MAILS, f"{MAILS} mails at the next server", LIMIT)
            seconds = time.monotonic() - begin
            relays.harness.wait_until(lambda: queue.waiting() == 0, "an empty queue")
            cpu = mail_filters.cpu_seconds(queue.pids) - before
            if sink.count() != MAILS:
                raise SystemExit(f"{sink.count()} mails arrived, not {MAILS}")
    return seconds, first, cpu


def show(name, figures):
    seconds, first, cpu = (statistics.median(one[column] for one in figures) for column in range(3))
    print(f"{name:<24}{seconds:>10.2f}{first:>10.2f}{MAILS / (seconds - first):>12.0f}{cpu / MAILS * 1e3:>14.3f}")
    return seconds, first, cpu


def main():
    if not postfix.is_available():
        raise SystemExit("Postfix is not installed, or not for this user")
    mail_filters.adopt_orphans()
    build, figures = pathlib.Path(sys.argv[1]).resolve(), {OURS: [], PEER: []}
    with relays.folder() as folder:
        work = pathlib.Path(folder)
        work.chmod(0o755)
        path = mail_filters.write(work / "mail", "Subject: waits\n\n" + "a line of a mail that waits for its server\n" * (SIZE // 43))
        for run in range(RUNS):
            for name, make in ((OURS, Ours), (PEER, Peer)):
                own = work / f"{make.__name__}{run}"
                own.mkdir()
                figures[name].append(measure(make, build, own, path))
    print(f"{MAILS} mails that waited, load average {os.getloadavg()[0]:.1f}\n"
          f"{'':<24}{'seconds':>10}{'first':>10}{'mails/s':>12}{'CPU ms each':>14}")
    ours, peer = show(OURS, figures[OURS]), show(PEER, figures[PEER])
    whole, behind = ours[0] / peer[0], (ours[0] - ours[1]) / (peer[0] - peer[1])
    ratio = ours[2] / peer[2]
    print(f"  time, of Postfix's: {whole:.2f}, goal 1 at most; from the first mail on: {behind:.2f}\n"
          f"  CPU, of Postfix's: {ratio:.2f}" + ("" if ratio <= CPU_GATE else f", OUTSIDE THE GATE of {CPU_GATE}"))
    mail_filters.await_orphans()
    return int(ratio > CPU_GATE)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        raise SystemExit(__doc__)
    relays.isolate()
    sys.exit(main())
