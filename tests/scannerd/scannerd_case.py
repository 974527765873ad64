"""What the scenarios of the scanner daemon share: a daemon with two identities, and a client that speaks the protocol."""
import os
import pathlib
import re
import socket
import struct
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "testing"))

import harness  # noqa: E402

EICAR = rb"X5O!P%@AP[4\PZX54(P^)7CC)7}$" + b"EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"
LOCAL, REMOTE = harness.SERVER, harness.CLIENT
ENDED, REFUSED, TOO_LARGE, FILE_REFUSED = (60100, 1), (60100, 2), (60100, 3), (60100, 4)
SPOOL_FAILED, SCAN_FAILED, GONE, SILENT = (60100, 5), (60100, 6), (60100, 7), (60100, 8)
SWEPT, TOO_MANY_NAMES = (60100, 11), (60100, 14)

POLICIES = """
  <policy name="content" base="base">
    <actions><action>LOG</action><action>CLEAN</action><action>REPLACE</action><action>DENY</action></actions>
    <settings section="KORAVScanner"><set name="Action">{av}</set></settings>
    <settings section="KORContentScanner">
      <rule name="project-name" where="subject,body" match="project nightingale" weight="1" action="DENY"/>
    </settings>
  </policy>
  <policy name="content_in" base="content">
    <identity name="board">
      <settings section="KORContentScanner"><set name="Enabled">false</set></settings>
    </identity>
  </policy>
  <policy name="counting" base="content">
    <settings section="KORMailFilter"><rule name="crowd" recipients="2" action="DENY"/></settings>
  </policy>
"""


def mail(text="hello"):
    return b"Subject: test\r\n\r\n" + (text if isinstance(text, bytes) else text.encode()) + b"\r\n"


def wide(text):
    return b"".join(struct.pack("=I", ord(one)) for one in text)


def set_up(content=b"", size=None, policy="content_in", filename=None, section=b""):
    """A set-up request, with its content unless that has a file name."""
    head = f"get setup_scan\nprotocol smtp\ntime 1767225600\nsize {len(content) if size is None else size}\npolicy {policy}\n"
    if filename:
        head += f"filename {filename}\n"
    return head.encode() + b"\n" + section + b"\r\n" + (b"" if filename else content)


def scan(identity=None, fallback=False, attributes=False):
    return ("get scan\n" + (f"identity {identity}\n" if identity else "") + ("fallbackscan 1\n" if fallback else "") +
            ("connattr 1\n" if attributes else "") + "\n").encode()


class Verdict:
    """One answer to a scan, read to its last byte."""

    def __init__(self, client, headers):
        self.headers = headers
        self.infections, self.fields, self.actions = [], {}, []
        self._read_sections(client)
        self.properties = client.read_section()
        flags = [headers[name] == "1" for name in ("output_in_input", "cached", "input_modified")]
        follows = not flags[0] or (flags[2] and not flags[1])
        self.content = client.read_exactly(int(headers["size"])) if follows else None

    def _read_sections(self, client):
        """The whole result ends in an empty line, as each of its parts does."""
        inside = False
        while inside or not client.at_empty_line():
            line = client.read_line()
            if line.startswith(("msr.master.result", "msr.sr.result")):
                inside = True
            elif not line:
                inside = False
            else:
                self._take(client, line)

    def _take(self, client, line):
        payload = client.payload_of(line)
        if line.startswith("infectionlist"):
            self.infections += payload.split()
        elif line.startswith("msr.action"):
            self.actions.append(payload)
        elif match := re.match(r"(msr\.triggered|msr\.modified) sl (\d+)$", line):
            self.fields[match[1]] = int(match[2])

    @property
    def triggered(self):
        return self.fields["msr.triggered"] == 1


class Client:
    """Speaks to the daemon in bytes, and reads whole answers."""

    def __init__(self, port, source=REMOTE):
        self.socket = socket.create_connection((harness.SERVER, port), timeout=harness.LIMIT, source_address=(source, 0))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.file = self.socket.makefile("rb")

    def send(self, data):
        self.socket.sendall(data)

    def read_line(self):
        line = self.file.readline()
        if not line.endswith(b"\n"):
            raise EOFError(line)
        return line.rstrip(b"\r\n").decode("latin-1")

    def read_exactly(self, count):
        data = self.file.read(count)
        if len(data) != count:
            raise EOFError(f"{len(data)} of {count} bytes")
        return data

    def at_empty_line(self):
        if self.file.peek(1)[:1] not in (b"\n", b"\r"):
            return False
        return self.read_line() == ""

    def payload_of(self, line):
        """The string that follows a line, if one does."""
        if match := re.match(r"(?:infectionlist|scanpolcontext +\w+) (\d+)$", line):
            return self.read_exactly(4 * int(match[1])).decode("utf-32-le")
        if match := re.match(r"(?:property \.|\w+\.)\S+ [ms]s (\d+)$", line):
            width = 1 if line.startswith("msr.action") else 4
            data = self.read_exactly(width * int(match[1]))
            return data.decode("latin-1" if width == 1 else "utf-32-le")
        if match := re.match(r"classname ss (\d+)$", line):
            return self.read_exactly(int(match[1])).decode("latin-1")
        return None

    def read_headers(self):
        headers = {}
        while line := self.read_line():
            name, _, value = line.partition(" ")
            headers[name] = value
        return headers

    def read_section(self):
        lines = []
        while line := self.read_line():
            lines.append((line, self.payload_of(line)))
        return lines

    def state(self, request):
        """The state that a request is answered with."""
        self.send(request)
        return self.read_headers()["State"]

    def verdict(self, request=None):
        if request:
            self.send(request)
        headers = self.read_headers()
        if headers["State"] != "OK":
            return headers["State"]
        return Verdict(self, headers)

    def item(self, content, identity=None):
        """One item from its set-up on: the verdict."""
        state = self.state(set_up(content))
        return self.verdict(scan(identity)) if state == "OK" else state

    def is_closed(self):
        try:
            return self.file.read(1) == b""
        except ConnectionResetError:
            return True

    def close(self):
        self.file.close()
        self.socket.close()


class ScannerdCase(harness.DaemonCase):
    program = os.environ["VELT_SCANNERD"]
    routine = {**harness.ROUTINE, ENDED: "each connection says so"}
    proxy = "scannerd"
    av = "DENY"

    def configure(self, sections, **others):
        rules = ('<rules version="1">\n  <policy name="base">\n' + harness.settings_xml(sections) + "\n  </policy>\n" +
                 POLICIES.format(av=self.av) + "</rules>\n")
        super().configure(sections, rules=others.pop("rules", rules), **others)

    def begin(self, scannerd=None, **sections):
        network = {"MaxConnections": 16, "NetMem": 16, **sections.pop("network", {})}
        return self.start(network=network, process={"MemoryLimit": 0, **sections.pop("process", {})},
                          scannerd=scannerd or {}, scanning={"MaxScanMem": 64}, **sections)

    def client(self, source=REMOTE):
        made = Client(self.port, source)
        self.addCleanup(made.close)
        return made

    def spooled(self, content, name="gate/1.in"):
        """A file as a gateway of this root leaves it; its path."""
        path = self.root.path / "scandir" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        path.chmod(0o600)
        return path

    def all_counters(self):
        shown = subprocess.run([os.environ["VELT_COUNTERS"], self.proxy], capture_output=True, text=True, check=True,
                               env={**os.environ, "VELT_ROOT": str(self.root.path)}).stdout
        return {name: int(number) for name, number in (line.rsplit(None, 1) for line in shown.splitlines())}

    def counters(self):
        """The daemon's own."""
        return {name.removeprefix("scannerd."): number for name, number in self.all_counters().items()
                if name.startswith("scannerd.")}

    def spool_files(self):
        folder = self.root.path / "scandir" / self.proxy
        return [file.name for file in folder.rglob("*") if file.is_file()]

    def assert_nothing_left(self):
        harness.wait_until(lambda: not self.spool_files(), "an empty spool folder")
