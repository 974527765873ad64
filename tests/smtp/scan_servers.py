"""Scan servers for scenarios: scripted ones, which judge by a phrase or fail on demand, and a real clamd and spamd."""
import contextlib
import os
import pathlib
import re
import select
import signal
import socket
import struct
import subprocess
import threading

import harness

PLANTED = "planted for the scan server"
CLAMD, SPAMD = "/usr/sbin/clamd", "/usr/sbin/spamd"


class ScanServer:
    """Listens on a local socket. Its fault says what it does to a question, and may change while it runs: None,
    "leave-in-content", "leave-at-end", "cut", "silent" or "rubbish". A subclass speaks a protocol: its serve() answers
    until it gives up or the client leaves."""

    def __init__(self, path):
        self.path, self.fault, self.listener = str(path), None, None
        self.open = set()

    def start(self):
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen(64)
        threading.Thread(target=self._accept, args=(self.listener,), daemon=True).start()

    def stop(self):
        """Nobody listens any more, and the connections end."""
        if not self.listener:
            return
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.listener = None
        pathlib.Path(self.path).unlink()
        for connection in list(self.open):
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)

    def _accept(self, listener):
        while True:
            try:
                connection = listener.accept()[0]
            except OSError:
                return
            self.open.add(connection)
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with connection, connection.makefile("rb") as file, contextlib.suppress(OSError, struct.error):
            self.serve(connection, file)
        self.open.discard(connection)

    def answer(self, connection, judgement, rubbish):
        """Whether the next question may come."""
        if self.fault == "silent":
            until_it_leaves = select.poll()
            until_it_leaves.register(connection, 0)
            until_it_leaves.poll()
        if self.fault in ("silent", "leave-at-end"):
            return False
        connection.sendall({"cut": judgement[:-1], "rubbish": rubbish}.get(self.fault, judgement))
        return self.fault is None


class ScriptedClamd(ScanServer):
    def serve(self, connection, file):
        number = 0
        while command := self.command(file):
            if command == b"zIDSESSION":
                continue
            number += 1
            content = self.content(file)
            if content is None:
                return
            verdict = b"Test.Planted FOUND" if PLANTED.encode() in content else b"OK"
            if not self.answer(connection, b"%d: stream: %s\0" % (number, verdict), b"stream: OK\0"):
                return

    @staticmethod
    def command(file):
        return b"".join(iter(lambda: file.read(1).strip(b"\0"), b""))

    def content(self, file):
        pieces = []
        while length := struct.unpack("!I", file.read(4))[0]:
            if self.fault == "leave-in-content":
                return None
            pieces.append(file.read(length))
        return b"".join(pieces)


class SpamServer(ScanServer):
    """One question a connection. Keeps the last one in `question`."""
    question = b""

    def serve(self, connection, file):
        head = b"".join(iter(file.readline, b"\r\n"))
        if self.fault == "leave-in-content":
            return
        content = file.read(int(re.search(rb"Content-length: (\d+)", head, re.IGNORECASE)[1]))
        self.question = head + content
        self.answer(connection, *self.judgement(20 if PLANTED.encode() in content else 0))
        connection.shutdown(socket.SHUT_RDWR)


class ScriptedSpamd(SpamServer):
    def judgement(self, score):
        return (b"SPAMD/1.1 0 EX_OK\r\nContent-length: 0\r\nSpam: False ; %d / 5\r\n\r\n" % score,
                b"HTTP/1.1 200 OK\r\n\r\n")


class ScriptedRspamd(SpamServer):
    def judgement(self, score):
        body = b'{"score": %d, "required_score": 5, "symbols": {}}' % score
        return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body), b"SPAMD/1.1 0 EX_OK\r\n\r\n"


class RealServer:
    """The system's own. A subclass has the command, and what it asks to learn that it works."""
    probe, answer = b"", b""

    def __init__(self, path):
        self.path, self.process = str(path), None

    def start(self):
        self.process = subprocess.Popen(self.command(), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, start_new_session=True)
        harness.wait_until(self.answers, f"an answer at {self.path}", 90)

    def answers(self):
        with socket.socket(socket.AF_UNIX) as probe, contextlib.suppress(OSError):
            probe.connect(self.path)
            probe.sendall(self.probe)
            return probe.recv(64).startswith(self.answer)
        return False

    def kill(self):
        """It and what it has started."""
        if self.process:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
            pathlib.Path(self.path).unlink(missing_ok=True)
        self.process = None


class RealSpamd(RealServer):
    """With one rule."""
    probe, answer = b"PING SPAMC/1.2\r\n\r\n", b"SPAMD/"

    def __init__(self, folder):
        super().__init__(folder / "spamd.socket")
        folder.chmod(0o755)
        self.rules = folder / "spamd"
        self.rules.mkdir()
        (self.rules / "own.cf").write_text("loadplugin Mail::SpamAssassin::Plugin::Check\n"
                                           f"body PLANTED /{PLANTED}/\nscore PLANTED 20\n")

    def command(self):
        return [SPAMD, "-L", "-x", "-m", "4", "--min-children=4", "-C", self.rules, f"--siteconfigpath={self.rules}",
                "-s", "null", f"--socketpath={self.path}"]


class RealClamd(RealServer):
    """With a database of one line."""
    probe, answer = b"zPING\0", b"PONG"

    def __init__(self, folder):
        super().__init__(folder / "clamd.socket")
        (folder / "clamd").mkdir()
        (folder / "clamd/own.ndb").write_text(f"Own.Planted:0:*:{PLANTED.encode().hex()}\n")
        self.configuration = folder / "clamd.conf"
        self.configuration.write_text(f"DatabaseDirectory {folder}/clamd\nLocalSocket {self.path}\nForeground yes\n"
                                      f"MaxThreads 2\nTemporaryDirectory {folder}\nSelfCheck 0\n")

    def command(self):
        return [CLAMD, "-c", str(self.configuration)]

    def is_idle(self):
        """Also the question at its start has ended."""
        return self.connections() == 0

    def signal(self, number):
        self.process.send_signal(number)

    def connections(self):
        """How many there are to it, also such as it has not accepted yet."""
        lines = pathlib.Path("/proc/net/unix").read_text().splitlines()
        return sum(line.endswith(" " + self.path) for line in lines) - 1


def is_installed(program):
    return os.access(program, os.X_OK)
