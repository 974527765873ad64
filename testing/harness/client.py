"""The client of most tests."""
import contextlib
import socket

from harness.basics import CLIENT, LIMIT, SERVER


class Line:
    """A client that speaks in lines."""

    def __init__(self, port, source=CLIENT, server=SERVER, limit=LIMIT):
        self.socket = socket.create_connection((server, port), timeout=limit, source_address=(source, 0))
        self.file = self.socket.makefile("rwb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        with contextlib.suppress(OSError):
            self.file.close()
        self.socket.close()

    def send(self, text):
        self.file.write(text.encode() + b"\r\n")
        self.file.flush()

    def read(self):
        """The next line without its end; None when the other side has closed."""
        line = self.file.readline()
        return line.decode().rstrip("\r\n") if line else None

    def ask(self, text):
        self.send(text)
        return self.read()

    def closed_by_peer(self):
        try:
            return self.file.read(1) == b""
        except OSError:
            return True
