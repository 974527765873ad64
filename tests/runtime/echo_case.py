"""The echo gateway under test, and clients that keep it busy."""
import os
import threading

import harness


class EchoCase(harness.DaemonCase):
    program = os.environ.get("VELT_ECHO")
    proxy = "echo"


class Load:
    """Clients that connect, say some lines and leave, over and over, until told to end.

    A refused connect and a session that was cut are errors; a connection that was accepted by nobody when the gateway
    went down for good is not a session."""

    def __init__(self, port, clients=4, lines=5):
        self.port = port
        self.lines = lines
        self.done = 0
        self.errors = []
        self.lock = threading.Lock()
        self.ending = threading.Event()
        self.threads = [threading.Thread(target=self._run) for _ in range(clients)]

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        self.ending.set()
        for thread in self.threads:
            thread.join()

    def _run(self):
        while not self.ending.is_set() and not self.errors:
            try:
                self._session()
            except (OSError, AssertionError) as failure:
                with self.lock:
                    self.errors.append(repr(failure))

    def _session(self):
        with harness.Line(self.port) as client:
            for number in range(self.lines):
                text = f"line {number}"
                answer = client.ask(text)
                if answer != text:
                    raise AssertionError(f"line {number} of a session was answered {answer!r}")
        with self.lock:
            self.done += 1

    def wait_done(self, more):
        """Waits until so many more sessions have run, or one failed."""
        wanted = self.done + more
        harness.wait_until(lambda: self.done >= wanted or self.errors, f"{more} more sessions")
