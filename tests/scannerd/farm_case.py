"""What the scenarios of a farm share: scanner daemons that announce themselves to a resource manager, that manager, and
whoever asks it."""
import contextlib
import os
import pathlib
import select
import signal
import socket
import struct
import subprocess
import sys
from typing import NamedTuple

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import harness  # noqa: E402
from scannerd_case import Client as ScanClient, EICAR, POLICIES, scan, set_up  # noqa: E402

SOCKET = "run/velt/rmgrd.socket"
OPEN, WAIT, COUNT, NAME = 0, 4, 6, 7
CONTROL, ANY = -1, 0
AGAIN = 11  # EAGAIN
QUESTION = struct.Struct("=I3i4sI32s")
ANSWER = struct.Struct("=2i2i4s4s32s")
LOOKED_AT = """
  <policy name="probe"><settings section="KORAVScanner"><set name="Enabled">{finds}</set></settings></policy>
"""


def limited(root, program):
    """The same program with 256 MiB of addresses, of which a heap for each thread would take 64 and use none."""
    made = root.write("/limited", f'#!/bin/sh\nulimit -v {256 * 1024}\nexport MALLOC_ARENA_MAX=1\nexec {program} "$@"\n')
    made.chmod(0o755)
    return made


class Offer(NamedTuple):
    resource: int  # or -1, and then `error` says why
    error: int
    server: int
    generation: int
    port: int


class Handle:
    """One open handle of the resource manager, as a gateway has it."""

    def __init__(self, path, resource=ANY):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(harness.LIMIT)
        try:
            self.socket.connect(str(path))
            self.error = self.ask(OPEN, resource)[1]
        except OSError:
            self.socket.close()
            raise

    def ask(self, request, *values):
        """What is answered; None once nobody answers any more."""
        three = (*values, 0, 0, 0)[:3]
        self.socket.sendall(QUESTION.pack(request, *three, b"", 0, b""))
        packet = self.socket.recv(4096)
        return ANSWER.unpack(packet) if packet else None

    def wait(self, seconds=0):
        result, error, server, generation, _address, port = self.ask(WAIT, seconds)[:6]
        return Offer(result, error, server, generation, struct.unpack(">H", port[:2])[0])

    def name(self):
        return self.ask(NAME)[6].rstrip(b"\0").decode()

    def is_open(self):
        return not select.select([self.socket], [], [], 0)[0]

    def close(self):
        self.socket.close()


class Manager:
    """velt-rmgrd for the daemons of these roots; `root` has its socket."""

    def __init__(self, root, *options, program=None):
        self.root, self.options = root, options
        self.program = program or os.environ["VELT_RMGRD"]
        self.path = root.path / SOCKET
        self.path.parent.mkdir(parents=True, exist_ok=True)
        self.log_path = root.path / "rmgrd.log"
        self.log_path.touch()
        self.lines, self.read = [], 0
        self.start()

    def start(self):
        self.before = len(self.log())
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen([str(self.program), *self.options], stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=log, start_new_session=True,
                                            env={**os.environ, "VELT_ROOT": str(self.root.path)})
        harness.wait_until(lambda: any(line.startswith("listens at") for line in self.said()), "the resource manager")

    def log(self):
        """Whole lines."""
        with open(self.log_path, "rb") as log:
            log.seek(self.read)
            new = log.read().rpartition(b"\n")
        self.read += len(new[0]) + len(new[1])
        self.lines += new[0].decode().splitlines()
        return self.lines

    def said(self):
        """Since it was started the last time."""
        return self.log()[self.before:]

    def last_word(self, port):
        """What it said last of the server at this port: "is up", "has gone", "gets no work: ..."; or nothing."""
        mark = f":{port} "
        words = [line.split(mark, 1)[1].strip() for line in self.said() if line.startswith("server ") and mark in line]
        return words[-1] if words else ""

    def is_up(self, *scanners):
        return all(self.last_word(scanner.port) == "is up" for scanner in scanners)

    def wait_up(self, *scanners):
        harness.wait_until(lambda: self.is_up(*scanners), "servers that are up")

    def handle(self, resource=ANY):
        return Handle(self.path, resource)

    def end(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        return self.process.wait(harness.LIMIT)


class Scanner:
    """A scanner daemon in a root of its own, which announces itself to the manager in another."""

    def __init__(self, managers_root, spools=(), connections=16, workers=1):
        self.root = harness.Root()
        (self.port,) = harness.free_ports(1)
        (self.root.path / SOCKET).parent.mkdir(parents=True)
        (self.root.path / SOCKET).symlink_to(managers_root.path / SOCKET)
        self.settings = {"network": {"BindAddress": [harness.SERVER], "BindPorts": [self.port], "ForbidReverseLookups": True,
                                     "AcceptCount": workers, "MaxConnections": connections, "NetMem": 16},
                         "process": {"MemoryLimit": 0, "ShutDownTimeout": 0},
                         "scannerd": {"SpoolRoots": [str(spool) for spool in spools]}, "scanning": {"MaxScanMem": 64}}
        self.finds(True)
        for name in ("inside.txt", "outside.txt"):
            self.root.write(name, "NETWORK *\n")
        self.root.write("scannerd-logging.xml", f'<logging><sink type="json" file="{self.root.log.path}"/></logging>\n')
        self.start()

    def finds(self, finds):
        """Whether it finds the test file by the policy by which the manager looks; within five seconds from now."""
        new = self.root.write("new", '<rules version="1">\n  <policy name="base">\n' + harness.settings_xml(self.settings) +
                              "\n  </policy>\n" + POLICIES.format(av="DENY") +
                              LOOKED_AT.format(finds=str(finds).lower()) + "</rules>\n")
        new.rename(new.with_name("rules.xml"))

    def start(self):
        self.daemon = harness.Daemon(self.root, os.environ["VELT_SCANNERD"], "scannerd", "product")

    def wait_serving(self):
        harness.wait_until(self.daemon.workers, "a worker of the scanner daemon")

    def finds_test_file(self):
        """As the manager looks."""
        client = ScanClient(self.port)
        try:
            client.send(set_up(EICAR, policy="probe"))
            return client.read_headers()["State"] == "OK" and bool(client.verdict(scan()).infections)
        finally:
            client.close()

    def kill(self):
        """Every process of it, at once."""
        for pid in self.root.processes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        self.daemon.wait()

    def kill_worker(self):
        for pid in self.daemon.workers():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)

    def stop(self):
        if self.daemon.process.poll() is None:
            self.daemon.signal(signal.SIGHUP)
        self.daemon.wait()
        harness.wait_until(lambda: not self.root.processes(), "the end of the scanner daemon")


class FarmCase:
    """Mixed into a test with a root of its own, which is the manager's."""

    def start_manager(self, *options, program=None):
        self.manager = Manager(self.root, *options, program=program)
        self.addCleanup(self.end_manager)
        return self.manager

    def end_manager(self):
        if self.manager.process.poll() is None:
            self.manager.end(signal.SIGKILL)

    def start_scanners(self, count, **settings):
        made = [Scanner(self.root, **settings) for _ in range(count)]
        for scanner in made:
            self.addCleanup(scanner.root.remove)
            self.addCleanup(scanner.stop)
        return made

    def handle(self, resource=ANY):
        made = self.manager.handle(resource)
        self.addCleanup(made.close)
        return made
