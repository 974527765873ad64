"""One gateway: how it is started, and which of its processes is which."""
import os
import signal
import subprocess

from harness.basics import LIMIT, wait_until
from harness.events import SESSIONS, START, WORKER
from harness.processes import process_fields


class Daemon:
    """One gateway process tree. Its processes are known by what they have reported since it was started."""

    def __init__(self, root, program, name, product, options=("-d",), arguments=(), environment=None):
        self.root = root
        self.name = name
        self.foreground = "-d" in options or "-p" in options
        self.endings = {0, -signal.SIGKILL}  # how the process that was started may end
        self._before = len(root.log.read())
        self._supervisor = None
        self.stderr_path = root.path / f"{name}.stderr"
        command = [str(program), *options, name, product, *arguments]
        with open(self.stderr_path, "wb") as stderr:
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr, start_new_session=True,
                env={**os.environ, "VELT_ROOT": str(root.path), **(environment or {})})

    @property
    def pid(self):
        """The process that was started: the monitor in the foreground, the launcher of a service."""
        return self.process.pid

    def stderr(self):
        return self.stderr_path.read_text(errors="replace")

    # --- roles ---

    def _reported(self, number, reason=None):
        """The processes that have reported this event, each once, in the order of their first report."""
        events = self.root.log.read()[self._before:]
        return list(dict.fromkeys(event["pid"] for event in events
                                  if event["event"] == number and (reason is None or event["reason"] == reason)))

    def monitors(self):
        """Every monitor so far, oldest first."""
        return self._reported(*START)

    def monitor(self):
        """The latest."""
        return wait_until(self.monitors, "the start of a monitor")[-1]

    def supervisor(self):
        """The process that starts the service again; None in the foreground.

        It reports before there is a log to report to, so that it is known as the leader of its monitor's session."""
        if self._supervisor is None and not self.foreground:
            self._supervisor = wait_until(self._session_of_monitor, "a monitor's session")
        return self._supervisor

    def _session_of_monitor(self):
        fields = process_fields(self.monitor())
        return fields and fields[3]

    def workers(self):
        """Those that run, oldest first, also such as are on their way out."""
        return [pid for pid in self._reported(*WORKER) if self.root.runs(pid)]

    def connection_children(self):
        """The processes that run a session and are no worker, oldest first."""
        others = {*self.monitors(), *self._reported(*WORKER)}
        return [pid for pid in self._reported(SESSIONS) if pid not in others and self.root.runs(pid)]

    def every_process_is_known(self):
        """False while a monitor or a worker of the service was forked and has not reported yet."""
        fields = {pid: process_fields(pid) for pid in self.root.processes()}
        group = {pid for pid, known in fields.items() if known and known[2] == self.supervisor()}
        return group <= {*self.monitors(), *self._reported(*WORKER), *self._reported(SESSIONS)}

    # --- its end ---

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self, limit=LIMIT):
        """The exit code of the process that was started."""
        return self.process.wait(limit)
