"""What the scenarios of the mail gateway share: a gateway with two identities, a mail server behind it, a raw client."""
import base64
import io
import os
import pathlib
import socket
import sys
import zipfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "testing"))

import harness  # noqa: E402
import mail_sink  # noqa: E402

STAFF, BOARD, SALES = "bob@inside.example", "carol@board.inside.example", "dave@sales.inside.example"
SENDER = "alice@outside.example"
PHRASE = "project nightingale"
EICAR = r"X5O!P%@AP[4\PZX54(P^)7CC)7}$" + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"

POLICIES = """
  <policy name="content" base="base">
    <actions><action>LOG</action><action>CLEAN</action><action>REPLACE</action><action>QUARANTINE</action>
      <action>QUARANTINE:DENY</action><action>DENY</action></actions>
    <settings section="KORAVScanner"><set name="Action">{av}</set></settings>
    <settings section="KORFormatScanner"><set name="MaxDepth">3</set><set name="OnLimit">{limit}</set></settings>
    <settings section="KORContentScanner">
      <rule name="project-name" where="subject,body" match="project nightingale" weight="1" action="{phrase}"/>
    </settings>
  </policy>
  <policy name="content_in" base="content">
    <identity name="board">
      <settings section="KORContentScanner"><set name="Enabled">false</set></settings>
    </identity>
    <identity name="sales"/>
  </policy>
  <policy name="content_out" base="content"/>
"""

IDENTITIES = ('<identities version="1">\n  <identity name="board">eto IS "*@board.*"</identity>\n'
              '  <identity name="sales">eto IS "*@sales.*"</identity>\n</identities>\n')

ENDED = (60000, 1)
ACCEPTED, REFUSED, DEFERRED, POLICY_REFUSED = (60000, 2), (60000, 3), (60000, 4), (60000, 5)
DELIVERED, FAILED = (60000, 6), (60000, 7)
NOTIFIED, NOTIFICATION_LOST, NOT_NOTIFIED, SCAN_FAILED = (60000, 8), (60000, 9), (60000, 10), (60000, 11)
ABUSE, SPOOL_FAILED, GONE, LOOP, DENIED = (60000, 12), (60000, 13), (60000, 14), (60000, 15), (60000, 16)
SWEPT, NOT_SCANNED = (60000, 17), (60000, 18)
UNREACHED, LED_BACK, CLEANED, VIRUS = (12000, 7), (12000, 12), (180000, 145), (180000, 146)
RULE_HIT, FILE_HIT, ENGINE_FAILED = (180001, 146), (180003, 146), (180007, 189)
SPAM_FOUND, SPAM_BELOW, MAIL_HIT = (180002, 161), (180002, 206), (180004, 146)


def body(text="hello", subject="test"):
    return f"From: <{SENDER}>\r\nSubject: {subject}\r\n\r\n{text}\r\n".encode()


def with_attachment(content):
    """A MIME message of a text and a base64 attachment."""
    content = content if isinstance(content, bytes) else content.encode()
    coded = base64.encodebytes(content).replace(b"\n", b"\r\n")
    return (b"Subject: test\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
            b"--b\r\nContent-Type: text/plain\r\n\r\nSee below.\r\n.dot\r\n"
            b"--b\r\nContent-Type: application/octet-stream; name=a.com\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
            coded + b"--b--\r\n")


def zipped(content, name="a.com"):
    """A zip archive with one file."""
    made = io.BytesIO()
    with zipfile.ZipFile(made, "w", zipfile.ZIP_DEFLATED) as archive:
        archive.writestr(name, content)
    return made.getvalue()


def nested(depth, inner="innermost"):
    """Messages in messages."""
    content = body(inner)
    for _ in range(depth):
        content = b"Subject: outer\r\nMIME-Version: 1.0\r\nContent-Type: message/rfc822\r\n\r\n" + content
    return content


def stuffed(content):
    return b"".join(b"." + line if line.startswith(b".") else line for line in content.splitlines(keepends=True))


class Client:
    """Speaks to the gateway in bytes, and reads whole replies."""

    def __init__(self, port):
        self.socket = socket.create_connection((harness.SERVER, port), timeout=harness.LIMIT,
                                               source_address=(harness.CLIENT, 0))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.file = self.socket.makefile("rb")
        self.greeting = self.read()

    def read(self):
        """The next reply, its lines joined; "" when the gateway has closed."""
        lines = []
        while True:
            line = self.file.readline().decode("latin-1")
            lines.append(line.rstrip("\r\n"))
            if line[3:4] != "-":
                return "\n".join(lines)

    def send(self, data):
        self.socket.sendall(data if isinstance(data, bytes) else data.encode())

    def ask(self, command):
        self.send(command + "\r\n")
        return self.read()

    def hello(self):
        return self.ask("EHLO client.example")

    def envelope(self, recipients=(STAFF,), sender=SENDER, parameters=""):
        """The replies to MAIL and each RCPT."""
        return [self.ask(f"MAIL FROM:<{sender}>{parameters}")] + [self.ask(f"RCPT TO:<{one}>") for one in recipients]

    def data(self, content):
        """The reply to the whole message, whose lines are stuffed here."""
        begin = self.ask("DATA")
        if not begin.startswith("354"):
            return begin
        self.send(stuffed(content) + b".\r\n")
        return self.read()

    def mail(self, content=None, recipients=(STAFF,), sender=SENDER):
        """One message from EHLO on: the reply to it."""
        self.hello()
        for reply in self.envelope(recipients, sender):
            if not reply.startswith("250"):
                return reply
        return self.data(content or body())

    def close(self):
        self.file.close()
        self.socket.close()


class SmtpCase(harness.DaemonCase):
    program = os.environ["VELT_SMTP"]
    routine = {**harness.ROUTINE, ENDED: "each session says so", ACCEPTED: "a client was told that its message is taken",
               DELIVERED: "the next server took a message"}
    proxy = "smtp"
    av, phrase, limit = "DENY", "DENY", "DENY"

    def configure(self, sections, **others):
        rules = ('<rules version="1">\n  <policy name="base">\n' + harness.settings_xml(sections) + "\n  </policy>\n" +
                 POLICIES.format(av=self.av, phrase=self.phrase, limit=self.limit) + "</rules>\n")
        self.root.write("identities.xml", IDENTITIES)
        super().configure(sections, rules=others.pop("rules", rules), **others)

    def begin(self, smtp=None, scanning=None, **sections):
        """A gateway in front of self.sink."""
        self.sink = mail_sink.MailSink()
        self.addCleanup(self.sink.close)
        settings = {"RelayHost": harness.SERVER, "RelayPort": self.sink.port, "GreetingName": "gw.example"}
        network = {"MaxConnections": 16, "NetMem": 16, **sections.pop("network", {})}
        process = {"MonitorHealth": False, "MemoryLimit": 0, **sections.pop("process", {})}
        return self.start(network=network, process=process, smtp={**settings, **(smtp or {})},
                          scanning={"MaxScanMem": 64, **(scanning or {})}, **sections)

    def client(self):
        made = Client(self.port)
        self.addCleanup(made.close)
        return made

    def provokes(self, *events):
        """What this test brings about beside the routine."""
        for event in events:
            self.expect(*event)

    def noted(self, event, count=1):
        return self.wait_event(*event, count=count)

    def content_of(self, stored):
        """What the client sent: the stored message without the gateway's Received: line."""
        self.assertTrue(stored.content.startswith(b"Received: from client.example ([127.0.0.2])\r\n"), stored.content[:80])
        rest = stored.content
        line, rest = rest.split(b"\r\n", 1)
        while rest.startswith(b"\t"):
            line, rest = rest.split(b"\r\n", 1)
        return rest

    def spool_files(self):
        folder = self.root.path / "scandir" / self.proxy
        return [file.name for file in folder.rglob("*") if file.is_file()] if folder.exists() else []

    def assert_nothing_left(self):
        harness.wait_until(lambda: not self.spool_files(), "an empty spool folder")
