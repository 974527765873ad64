"""What the scenarios of look-ups share: the program that asks, and a real name server."""
import contextlib
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "testing"))

import harness  # noqa: E402
import own_namespace  # noqa: E402

AGAIN, UNKNOWN, NO_DATA, TOO_LONG, MALFORMED = "2", "3", "10", "34", "90"
PORT = 53


def packed(name):
    """A name in the form of a DNS message."""
    return b"".join(bytes([len(label)]) + label.encode() for label in name.rstrip(".").split(".") if label) + b"\0"


def question(name, kind, number=0x2A2A):
    return struct.pack("!HHHHHH", number, 0x0100, 1, 0, 0, 0) + packed(name) + struct.pack("!HH", kind, 1)


def received(connection, count):
    data = b""
    while len(data) < count:
        more = connection.recv(count - len(data))
        if not more:
            raise EOFError
        data += more
    return data


def answer_size(name, kind=15):
    """How long the name server's whole answer is, asked by TCP."""
    with socket.create_connection((own_namespace.NAMESERVER, PORT), timeout=harness.LIMIT) as connection:
        query = question(name, kind)
        connection.sendall(struct.pack("!H", len(query)) + query)
        return struct.unpack("!H", received(connection, 2))[0]


class NameServer:
    """nsd with zones of a test's choice."""

    program = shutil.which("nsd", path=os.environ.get("PATH", "") + ":/usr/sbin")

    def __init__(self, zones):
        if not self.program:
            raise FileNotFoundError("nsd: scripts/install-dependencies check")
        self.folder = pathlib.Path(tempfile.mkdtemp())
        for name, text in zones.items():
            (self.folder / name).write_text(
                f"$ORIGIN {name}.\n$TTL 300\n@ SOA ns.{name}. hostmaster.{name}. 1 3600 600 86400 300\n@ NS ns\n"
                f"ns A {own_namespace.NAMESERVER}\n{text}\n")
        (self.folder / "nsd.conf").write_text(self._configuration(zones))
        self.process = subprocess.Popen([self.program, "-d", "-c", self.folder / "nsd.conf"])
        harness.wait_until(self._answers, "an answer of nsd")

    def _configuration(self, zones):
        paths = "".join(f' {key}: "{self.folder}/{key}"\n' for key in
                        ("pidfile", "xfrdfile", "zonelistfile", "cookie-secret-file", "logfile"))
        return (f'server:\n ip-address: {own_namespace.NAMESERVER}\n username: ""\n zonesdir: "{self.folder}"\n'
                f' database: ""\n server-count: 1\n{paths}remote-control:\n control-enable: no\n' +
                "".join(f"zone:\n name: {name}\n zonefile: {name}\n" for name in zones))

    def _answers(self):
        if self.process.poll() is not None:
            raise AssertionError("nsd ended:\n" + (self.folder / "logfile").read_text())
        with contextlib.suppress(OSError, EOFError):
            return answer_size("example.test", 6) > 0

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
        self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)


class Lookups:
    """The program that asks: each request is a line, and so is the answer."""

    def __init__(self):
        self.process = subprocess.Popen([os.environ["VELT_LOOKUPS"]], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)

    def ask(self, *request):
        """The words of the answer."""
        self.process.stdin.write(" ".join(map(str, request)) + "\n")
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        if not line:
            raise AssertionError(f"the program ended with {self.process.wait()} at {request}")
        return line.split()

    def close(self):
        self.process.stdin.close()
        self.process.stdout.close()
        if self.process.wait() != 0:
            raise AssertionError(f"the program ended with {self.process.returncode}")


class LookupCase(unittest.TestCase):
    def setUp(self):
        self.lookups = Lookups()
        self.addCleanup(self.lookups.close)
        self.ask = self.lookups.ask

    def mx(self, name, exchangers=100, addresses=100):
        """The code and the addresses."""
        code, *found = self.ask("mx", name, exchangers, addresses)
        return code, found
