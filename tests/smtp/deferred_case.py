"""What the scenarios of mail that waits share: a gateway that keeps mail, and retryers beside it."""
import fcntl
import os
import re
import socket
import subprocess
import time
import zlib
from xml.sax.saxutils import quoteattr

import harness
import mail_sink
from smtp_case import FAILED, STAFF, UNREACHED, SmtpCase

COUNTERS = os.environ["VELT_COUNTERS"]
RETRYER = ("-d", "-s", "retryer", "-t", "smtp")
WALK, NO_FILE = (70000, 117), (70002, 120)
KEPT, STORE_FAILED, RETRY_FAILED, RETRY_ENDED, GIVEN_UP = (60000, 19), (60000, 20), (60000, 21), (60000, 22), (60000, 23)
RESENT, DAMAGED = (60000, 24), (60000, 25)
QUARANTINED, RELEASED, HELD = (60000, 28), (60000, 29), (60000, 30)
CLOCK_SET_BACK = (60000, 31)
EVERY_SECOND = {"ScanInterval": 1, "RetryInterval": 1, "NewFileDelta": 1}
PATIENT = {"RetryPause": 1, "RetryPauseLimit": 1}


def message_id(content):
    return re.search(rb"^Message-ID: *(.*?)\r$", content, re.MULTILINE | re.IGNORECASE)[1]


def numbered(number):
    return f"Message-ID: <{number}@outside.example>\r\nSubject: {number}\r\n\r\nhello\r\n".encode()


class DeferredCase(SmtpCase):
    routine = {**SmtpCase.routine, WALK: "each walk names the files that it comes by",
               KEPT: "the next server was away", RETRY_ENDED: "a mail has left", FAILED: "the next server was away",
               UNREACHED: "so that it could not be connected", RETRY_FAILED: "also at a later try"}

    def launch(self, options=("-d",), arguments=(), environment=None):
        return super().launch(options, arguments, environment or self.environment)

    def begin(self, smtp=None, environment=None, **sections):
        self.environment = environment
        given = {"StoreAndForward": True, **PATIENT, "UpstreamFinalTimeout": 5, **(smtp or {})}
        made = super().begin(smtp=given, smtpretryer={**EVERY_SECOND, **sections.pop("smtpretryer", {})}, **sections)
        self.gateway = made
        for name in ("smtp-retryer", "smtp-retryer2"):
            self.root.write(f"{name}-logging.xml", f'<logging><sink type="json" file={quoteattr(str(self.root.log.path))}/>'
                                                   "</logging>\n")
        return made

    @property
    def directory(self):
        return self.root.path / "deferred/smtp"

    def waiting(self):
        """The files that a walk takes."""
        names = (entry.name for entry in self.directory.iterdir()) if self.directory.exists() else ()
        return sorted(name for name in names if name.endswith(".rmd"))

    @property
    def quarantine(self):
        return self.root.path / "quarantine/smtp"

    def held(self):
        return sorted(file.name for file in self.quarantine.glob("*.rmd")) if self.quarantine.is_dir() else []

    def wait_empty(self, limit=60):
        harness.wait_until(lambda: not self.waiting(), "an empty deferred directory", limit)

    def retryer(self, options=RETRYER, arguments=(), name="smtp-retryer", environment=None):
        made = harness.Daemon(self.root, self.program, name, self.product, options, arguments, environment)
        self.daemons.append(made)
        self._expected.started()
        return made

    def away(self):
        self.sink.refuse_connections()

    def back(self):
        """A server on the same port again, with what it had."""
        before = self.sink
        self.sink = mail_sink.MailSink(before.port)
        self.addCleanup(self.sink.close)

    def send_to_leave(self, content, recipients=(STAFF,)):
        """A message whose client may leave() before it is answered."""
        self.leaving = self.client()
        self.leaving.hello()
        self.leaving.envelope(recipients)
        self.leaving.ask("DATA")
        self.leaving.send(content + b".\r\n")

    def leave(self):
        """By a reset, which is on its way over loopback afterwards."""
        self.leaving.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        self.leaving.close()
        time.sleep(0.2)

    def wait_tries(self, count=1):
        return harness.wait_until(lambda: len(self.events(*RETRY_FAILED)) >= count or None, f"{count} failed tries")

    def counters(self, name="smtp-retryer"):
        told = subprocess.run([COUNTERS, name], capture_output=True, text=True, env={**os.environ, "VELT_ROOT": str(self.root.path)})
        return dict((line.split()[0], int(line.split()[-1])) for line in told.stdout.splitlines() if line.split())

    @staticmethod
    def is_locked(path):
        with open(path, "r+b") as file:
            try:
                fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except OSError:
                return True
        return False

    @staticmethod
    def rewrite(path, pattern, other):
        """The envelope of a file with something of the same length in it, as nobody who reads the file can tell."""
        with open(path, "r+b") as file:
            fcntl.lockf(file, fcntl.LOCK_EX)
            content = file.read()
            end = 80 + int(content[10:20])
            envelope = re.sub(pattern, other, content[80:end], flags=re.MULTILINE)
            first = content[:53] + b"%08x" % zlib.crc32(envelope) + content[61:71]
            file.seek(0)
            file.write(first + b"%08x\n" % zlib.crc32(first) + envelope)
