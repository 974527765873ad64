"""Starts daemons for tests and leaves nothing behind.

A Root is a folder that stands for the system's root; a Daemon is one gateway that runs in it, in a process session of
its own, with the settings that the test gives. Everything waits for events, for connections or for the end of a process,
each with a limit; nothing sleeps for its own sake. A test ends by checking that no process of its root is left.

    class Mine(harness.DaemonCase):
        def test_it_answers(self):
            self.start(network={"MaxConnections": 4})
            with self.connect() as client:
                self.assertEqual(client.ask("hello"), "hello")
"""
import contextlib
import json
import os
import pathlib
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
from xml.sax.saxutils import escape, quoteattr

LIMIT = 20.0  # seconds that a test waits for what has to happen
CLIENT = "127.0.0.2"  # where test clients come from: 127.0.0.1 is the health monitor's
SERVER = "127.0.0.1"


def wait_until(condition, what, limit=LIMIT):
    """Calls the condition until it gives something true, and gives that."""
    deadline = time.monotonic() + limit
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {limit} s for {what}")
        select.select([], [], [], 0.01)


def free_ports(count):
    """Ports that nobody listens on. They are held together, so that no two are the same."""
    with contextlib.ExitStack() as held:
        ports = []
        for _ in range(count):
            probe = held.enter_context(socket.socket())
            probe.bind((SERVER, 0))
            ports.append(probe.getsockname()[1])
        return ports


def settings_xml(sections):
    """<settings> elements of {section: {key: value or list of values}}."""
    parts = []
    for section, keys in sections.items():
        parts.append(f"    <settings section={quoteattr(section)}>")
        for key, value in keys.items():
            if isinstance(value, (list, tuple)):
                items = "".join(f"<item>{escape(str(item))}</item>" for item in value)
                parts.append(f"      <list name={quoteattr(key)}>{items}</list>")
            else:
                text = {True: "true", False: "false"}.get(value, value) if isinstance(value, bool) else value
                parts.append(f"      <set name={quoteattr(key)}>{escape(str(text))}</set>")
        parts.append("    </settings>")
    return "\n".join(parts)


class Root:
    """A temporary VELT_ROOT with the folders that a daemon expects."""

    def __init__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="velt-scenario-"))
        self.path.chmod(0o755)
        for folder in ("config/qxxmlconf/efabric", "scandir"):
            (self.path / folder).mkdir(parents=True)

    def remove(self):
        shutil.rmtree(self.path, ignore_errors=True)

    def write(self, name, text):
        """A file below /config/qxxmlconf, or anywhere below the root if the name begins with a slash."""
        file = self.path / name[1:] if name.startswith("/") else self.path / "config/qxxmlconf" / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        return file

    def processes(self):
        """The processes that run in this root, by number. A process that has ended and was not waited for is none."""
        mark = f"VELT_ROOT={self.path}".encode()
        found = []
        for entry in pathlib.Path("/proc").iterdir():
            if not entry.name.isdigit():
                continue
            with contextlib.suppress(OSError):
                if mark in (entry / "environ").read_bytes().split(b"\0"):
                    found.append(int(entry.name))
        return sorted(found)


class Line:
    """A client that speaks in lines."""

    def __init__(self, port, source=CLIENT, server=SERVER):
        self.socket = socket.create_connection((server, port), timeout=LIMIT, source_address=(source, 0))
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


class Daemon:
    """One gateway process tree."""

    def __init__(self, root, program, name, product, options=("-d",), arguments=(), environment=None):
        self.root = root
        self.name = name
        self.stderr_path = root.path / f"{name}.stderr"
        command = [str(program), *options, name, product, *arguments]
        with open(self.stderr_path, "wb") as stderr:
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr, start_new_session=True,
                env={**os.environ, "VELT_ROOT": str(root.path), **(environment or {})})

    @property
    def pid(self):
        return self.process.pid

    def stderr(self):
        return self.stderr_path.read_text(errors="replace")

    def workers(self):
        """The monitor's living children."""
        found = []
        for pid in self.root.processes():
            with contextlib.suppress(OSError, IndexError):
                fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
                if int(fields[1]) == self.pid and fields[0] != "Z":
                    found.append(pid)
        return found

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self, limit=LIMIT):
        """The exit code of the process that was started."""
        return self.process.wait(limit)


class DaemonCase(unittest.TestCase):
    """A test with a root of its own, and daemons that are stopped at its end."""

    program = None  # the daemon; a subclass or the test says which
    proxy = "gate"
    product = "product"

    def setUp(self):
        self.root = Root()
        self.addCleanup(self.root.remove)
        self.daemons = []
        self.ports = []
        self.addCleanup(self._leave_nothing)

    # --- configuration ---

    def configure(self, sections, inside="NETWORK *\n", outside="NETWORK *\n", rules=None):
        """Writes rules.xml with these settings in policy "base", the network lists and the logging configuration.

        A tie of the two lists means that every client comes from outside."""
        self.root.write("rules.xml", rules if rules is not None else
                        '<rules version="1">\n  <policy name="base">\n' + settings_xml(sections) +
                        "\n  </policy>\n</rules>\n")
        self.root.write("inside.txt", inside)
        self.root.write("outside.txt", outside)
        self.events_path = self.root.path / "events.json"
        self.root.write(f"{self.proxy}-logging.xml",
                        f'<logging><sink type="json" file={quoteattr(str(self.events_path))}/></logging>\n')

    def settings(self, ports=1, **sections):
        """The settings of a daemon on so many free ports; sections given here are laid over the common ones."""
        self.ports = free_ports(ports)
        base = {"network": {"BindAddress": [SERVER], "BindPorts": self.ports, "ForbidReverseLookups": True},
                "process": {}}
        for section, keys in sections.items():
            base.setdefault(section, {}).update(keys)
        return base

    def start(self, ports=1, options=("-d",), **sections):
        """Configures and starts a daemon, and waits until its ports are open and its workers run."""
        settings = self.settings(ports, **sections)
        self.configure(settings)
        daemon = self.launch(options)
        wanted = int(settings["network"].get("AcceptCount", 1))
        self.wait_event(10000, 54, count=wanted)
        return daemon

    def launch(self, options=("-d",), arguments=()):
        daemon = Daemon(self.root, self.program, self.proxy, self.product, options, arguments)
        self.daemons.append(daemon)
        return daemon

    @property
    def port(self):
        return self.ports[0]

    def connect(self, port=None, **where):
        client = Line(port or self.port, **where)
        self.addCleanup(client.close)
        return client

    # --- events ---

    def events(self, number=None, reason=None):
        """The events reported so far, as they stand in the JSON log, oldest first."""
        found = []
        with contextlib.suppress(FileNotFoundError):
            for line in self.events_path.read_text().splitlines(keepends=True):
                if not line.endswith("\n"):
                    break  # still being written
                event = json.loads(line)
                if (number is None or event["event"] == number) and (reason is None or event["reason"] == reason):
                    found.append(event)
        return found

    def wait_event(self, number, reason=None, count=1, limit=LIMIT):
        """Waits until the event was reported so many times; gives all of them."""
        def enough():
            self._look_for_early_end()
            found = self.events(number, reason)
            return found if len(found) >= count else None
        return wait_until(enough, f"event {number}:{reason}, {count} times", limit)

    def _look_for_early_end(self):
        for daemon in self.daemons:
            code = daemon.process.poll()
            if code not in (None, 0, -signal.SIGKILL):
                raise AssertionError(f"{daemon.name} ended with {code}:\n{daemon.stderr()}")

    # --- the end ---

    def wait_gone(self, pid, limit=LIMIT):
        wait_until(lambda: pid not in self.root.processes(), f"the end of process {pid}", limit)

    def wait_all_gone(self, limit=LIMIT):
        wait_until(lambda: not self.root.processes(), "the end of every process", limit)

    def stop(self, daemon=None):
        """Stops a daemon in order and waits for all of its processes."""
        daemon = daemon or self.daemons[-1]
        if daemon.process.poll() is None:
            daemon.signal(signal.SIGHUP)
        daemon.wait()
        self.wait_all_gone()

    def _leave_nothing(self):
        for daemon in self.daemons:
            if daemon.process.poll() is None:
                daemon.signal(signal.SIGHUP)
                with contextlib.suppress(subprocess.TimeoutExpired):
                    daemon.wait()
        try:
            self.wait_all_gone()
        except AssertionError:
            left = {pid: self._command(pid) for pid in self.root.processes()}
            for pid in left:
                with contextlib.suppress(OSError):
                    os.kill(pid, signal.SIGKILL)
            for daemon in self.daemons:
                daemon.process.wait()
            raise AssertionError(f"processes were left behind: {left}\n" +
                                 "\n".join(daemon.stderr() for daemon in self.daemons)) from None

    @staticmethod
    def _command(pid):
        with contextlib.suppress(OSError):
            return pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().replace(b"\0", b" ").decode().strip()
        return "gone"
