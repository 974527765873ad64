#!/usr/bin/env python3
"""What clients notice while workers are replaced under load: nothing may be refused, reset, cut or left without an answer.

usage: recycling.py BUILD_DIR        SECONDS, RATE in the environment; FULL=1 for 60 s of each row

A gateway serves RATE new connections a second while its workers are replaced: by their connection count, by their memory
limit, and by a hangup of one worker after the other. HAProxy reloads as often at the same rate, in front of the bare loop.
The exit status is that of the gateway's failures, of too few replacements, and of less than 1,000 connections a second. Waiting times are for the reader; one of a
second is a connect request that found the queue of the listening socket full and was sent again, which can happen while a
gateway's only worker is replaced.
"""
import contextlib
import json
import os
import pathlib
import signal
import subprocess
import sys
import time

import relays

harness = relays.harness
FULL = bool(os.environ.get("FULL"))
SECONDS = float(os.environ.get("SECONDS", "60" if FULL else "12"))
RATE = int(os.environ.get("RATE", "1050"))  # a little more than LEAST, which is to be kept up over the whole time
LEAST = min(RATE, 1000)
WORKERS = 2
PAUSE = 1.0  # seconds between two replacements where the script makes them
STARTED, COUNT, MEMORY = (10000, 54), (10000, 71), (10000, 70)


class Case(harness.DaemonCase):
    def configure(self, *arguments, **more):
        """Of the sessions nothing is reported: to read a million of their reports here would be a load of its own."""
        super().configure(*arguments, **more)
        file = self.root.path / f"config/qxxmlconf/{self.proxy}-logging.xml"
        file.write_text(file.read_text().replace(
            "</logging>", '<events default="off"><event number="10000" switch="on"/></events></logging>'))


class Gateway(relays.Gateway):
    """Its workers leave for one cause: what the event of `cause` reports, or a hangup of ours where there is none."""

    def __init__(self, build, cause=None, workers=WORKERS, **process):
        super().__init__(build / "bin/velt_once", logging=True, case=Case(),
                         network={"AcceptCount": workers, "MaxConnections": 16}, process={"PermThreads": 16, **process})
        self.cause = cause
        self.workers = workers

    def replace(self):
        """The oldest worker leaves, where the gateway does not see to it itself."""
        if not self.cause:
            started = [event["values"]["velt_pid"] for event in self.case.events(*STARTED)]
            living = set(self.pids)
            os.kill(next(pid for pid in started if pid in living), signal.SIGHUP)

    def replacements(self):
        """Those that have begun, and had this cause."""
        begun = len(self.case.events(*STARTED)) - self.workers
        return min(begun, len(self.case.events(*self.cause))) if self.cause else begun


class ReloadingHaproxy(relays.Process):
    """A master that starts a new worker on each SIGUSR2 and hands the listening sockets on."""

    def __init__(self, folder, backend):
        [self.port] = harness.free_ports(1)
        conf = pathlib.Path(folder) / "reload.cfg"
        conf.write_text(f"""global
    nbthread 1
    maxconn 4000
    stats socket {folder}/haproxy.sock mode 600 level admin expose-fd listeners
defaults
    mode tcp
    timeout connect 5s
    timeout client 60s
    timeout server 60s
listen relay
    bind 127.0.0.1:{self.port} backlog 4096
    server s 127.0.0.1:{backend}
""")
        super().__init__(["haproxy", "-W", "-q", "-f", conf], stderr=subprocess.DEVNULL)
        self.wait_port(self.port)
        self.seen = set(relays.children_of(self.process.pid))
        self.first = len(self.seen)

    def replace(self):
        self.process.send_signal(signal.SIGUSR2)

    def note(self):
        self.seen.update(relays.children_of(self.process.pid))

    def replacements(self):
        self.note()
        return len(self.seen) - self.first


def load(build, server):
    """Runs the load beside the replacements; gives what the clients saw."""
    process = subprocess.Popen([build / "bin/velt_load", "connect", "--to", f"127.0.0.1:{server.port}", "--rate", str(RATE),
                                "--seconds", str(SECONDS), "--clients", "2000", "--sources", "64"],
                               stdout=subprocess.PIPE, text=True)
    due = time.monotonic() + PAUSE
    while process.poll() is None:
        if time.monotonic() >= due:
            server.replace()
            due += PAUSE
        if hasattr(server, "note"):
            server.note()
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(0.05)
    return json.loads(process.communicate()[0])


def row(name, replaced, result):
    failed, waited = result["failed"], result["latency_us"]
    print(f"{name:<26} {replaced:>8} {result['sessions']:>8} {result['rate']:>7.0f} {failed['refused']:>8} "
          f"{failed['reset']:>6} {failed['truncated']:>4} {failed['timeout']:>8} {failed['other']:>6} "
          f"{waited['p50']:>7} {waited['p99']:>8} {waited['max']:>9} {result['over_900_ms']:>7}", flush=True)


def complaints(name, replaced, result):
    wanted = int(SECONDS * 5 / 6)
    if any(result["failed"].values()):
        yield f"{name}: sessions failed: {result['failed']}"
    if replaced < wanted:
        yield f"{name}: only {replaced} replacements, {wanted} were wanted"
    if result["sessions"] < LEAST * SECONDS:
        yield f"{name}: the rate was not kept"


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    share = RATE // WORKERS
    rows = {
        "gateway: connection count": lambda: Gateway(build, COUNT, ProxyRefreshRate=share),
        "gateway: memory limit": lambda: Gateway(build, MEMORY, MemoryLimit=1, MemoryLimitRate=2),
        "gateway: hangups": lambda: Gateway(build),
        "gateway: hangups, 1 worker": lambda: Gateway(build, workers=1),
    }
    print(f"{'server':<26} {'replaced':>8} {'sessions':>8} {'conn/s':>7} {'refused':>8} {'reset':>6} {'cut':>4} "
          f"{'timeout':>8} {'other':>6} {'p50 us':>7} {'p99 us':>8} {'max us':>9} {'>0.9 s':>7}")
    found = []
    for name, make in rows.items():
        with make() as server:
            result = load(build, server)
            row(name, server.replacements(), result)
            found += complaints(name, server.replacements(), result)
    with relays.folder() as folder, relays.Bare(build) as bare, ReloadingHaproxy(folder, bare.port) as server:
        result = load(build, server)
        row("HAProxy: reloads", server.replacements(), result)
    for complaint in found:
        print(complaint)
    return 1 if found else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    relays.isolate()
    sys.exit(main())
