"""The test that has daemons."""
import contextlib
import os
import signal
import subprocess
import unittest
from xml.sax.saxutils import quoteattr

from harness.basics import LIMIT, SERVER, free_ports, settings_xml, wait_until
from harness.client import Line
from harness.daemon import Daemon
from harness.events import ROUTINE, Expectations
from harness.processes import command_of
from harness.root import Root

LEFT_LIMIT = LIMIT  # seconds for what has been stopped to end

class DaemonCase(unittest.TestCase):
    """A test with a root of its own, and daemons that are stopped at its end."""

    program = None  # the daemon; a subclass or the test says which
    proxy = "gate"
    product = "product"
    routine = ROUTINE  # a gateway adds its own

    def setUp(self):
        self.root = Root()
        self.addCleanup(self.root.remove)
        self._begin()
        self.addCleanup(self.finish)

    def _begin(self):
        self.daemons = []
        self.ports = []
        self._expected = Expectations(self.routine)

    # --- configuration ---

    def configure(self, sections, inside="NETWORK *\n", outside="NETWORK *\n", rules=None):
        """Writes rules.xml with these settings in policy "base", the network lists and the logging configuration.

        A tie of the two lists means that every client comes from outside."""
        self.root.write("rules.xml", rules if rules is not None else
                        '<rules version="1">\n  <policy name="base">\n' + settings_xml(sections) +
                        "\n  </policy>\n</rules>\n")
        self.root.write("inside.txt", inside)
        self.root.write("outside.txt", outside)
        self._expected.configured(int(sections.get("network", {}).get("AcceptCount", 1)))
        self.root.write(f"{self.proxy}-logging.xml",
                        f'<logging><sink type="json" file={quoteattr(str(self.root.log.path))}/></logging>\n')

    def settings(self, ports=1, **sections):
        """The settings of a daemon on so many free ports; sections given here are laid over the common ones."""
        self.ports = free_ports(ports)
        base = {"network": {"BindAddress": [SERVER], "BindPorts": self.ports, "ForbidReverseLookups": True},
                "process": {"MemoryLimit": 0}}  # a size that a sanitizer's shadow would pass
        for section, keys in sections.items():
            base.setdefault(section, {}).update(keys)
        return base

    def start(self, ports=1, options=("-d",), **sections):
        """Configures and starts a daemon, and waits until its ports are open and its workers run."""
        settings = self.settings(ports, **sections)
        self.configure(settings)
        daemon = self.launch(options)
        self.wait_worker(int(settings["network"].get("AcceptCount", 1)))
        daemon.supervisor()  # known from now on, also when its monitor has died
        return daemon

    def launch(self, options=("-d",), arguments=(), environment=None):
        """Starts a daemon with the configuration that there is."""
        daemon = Daemon(self.root, self.program, self.proxy, self.product, options, arguments, environment)
        self.daemons.append(daemon)
        self._expected.started()
        return daemon

    @property
    def _latest(self):
        return self.daemons[-1]

    @property
    def port(self):
        return self.ports[0]

    def connect(self, port=None, **where):
        client = Line(port or self.port, **where)
        self.addCleanup(client.close)
        return client

    # --- events ---

    @property
    def events_path(self):
        return self.root.log.path

    def events(self, number=None, reason=None):
        """The events reported so far, as they stand in the JSON log, oldest first."""
        return list(self.root.log.read()) if number is None else self.root.log.named(number, reason)

    def wait_event(self, number, reason=None, count=1, limit=LIMIT):
        """Waits until the event was reported so many times; gives all of them. Nobody has to announce it then."""
        self._expected.awaited(number, reason, count)

        def enough():
            self._look_for_early_end()
            found = self.events(number, reason)
            return found if len(found) >= count else None
        return wait_until(enough, f"event {number}:{reason}, {count} times", limit)

    def expect(self, number, reason=None, at_least=1):
        """Announces an event that is not routine; with 0 it may as well stay away."""
        self._expected.announce(number, reason, at_least)

    def _look_for_early_end(self):
        for daemon in self.daemons:
            code = daemon.process.poll()
            if code is not None and code not in daemon.endings:
                raise AssertionError(f"{daemon.name} ended with {code}:\n{daemon.stderr()}")

    # --- processes ---

    def monitor(self):
        return self._latest.monitor()

    def supervisor(self):
        return self._latest.supervisor()

    def workers(self):
        return self._latest.workers()

    def connection_children(self):
        return self._latest.connection_children()

    def wait_worker(self, count=1, limit=LIMIT):
        """Waits until so many workers run, no more and no less; gives them, oldest first."""
        def enough():
            self._look_for_early_end()
            found = self._latest.workers()
            return found if len(found) == count else None
        return wait_until(enough, f"{count} workers", limit)

    def zombies(self):
        return self.root.zombies()

    # --- ends that a test brings about ---

    def kill_worker(self, pid=None):
        """SIGKILL for a worker, the oldest if none is named; gives its number when it has gone."""
        return self._end(pid or self._latest.workers()[0], signal.SIGKILL)

    def kill_monitor(self):
        return self._end(self._latest.monitor(), signal.SIGKILL)

    def terminate(self, pid):
        """SIGTERM ends this one process."""
        return self._end(pid, signal.SIGTERM)

    def _end(self, pid, number):
        self.expect_end(pid)
        self.root.runs(pid)  # known from now on, also without its environment
        os.kill(pid, number)
        self._wait_ended(pid)
        return pid

    def expect_end(self, pid):
        """The test will end this worker or monitor, and somebody else will take its place."""
        daemon = self._latest
        if pid in daemon.monitors() and not daemon.foreground and self.root.runs(daemon.supervisor()):
            self._expected.started()
        elif pid in daemon.workers():
            self._expected.replaced()

    def _wait_ended(self, pid):
        for daemon in self.daemons:
            if daemon.pid == pid:
                daemon.endings.add(daemon.wait())
        self.wait_gone(pid)

    # --- the end ---

    def wait_gone(self, pid, limit=LIMIT):
        wait_until(lambda: not self.root.runs(pid), f"the end of process {pid}", limit)

    def wait_all_gone(self, limit=LIMIT):
        wait_until(lambda: not self.root.processes(), "the end of every process", limit)

    def stop(self, daemon=None):
        """Stops a daemon of the foreground in order and waits for all of its processes."""
        daemon = daemon or self._latest
        if daemon.process.poll() is None:
            daemon.signal(signal.SIGHUP)
        daemon.wait()
        self.wait_all_gone()

    def stop_service(self, daemon=None):
        """Stops a service: the supervisor first, so that nothing is started again, then its monitor in order."""
        self._hang_up_service(daemon or self._latest)
        self.wait_all_gone()

    def _hang_up_service(self, daemon):
        with contextlib.suppress(ProcessLookupError):
            os.kill(daemon.supervisor(), signal.SIGKILL)
        self.wait_gone(daemon.supervisor())
        wait_until(daemon.every_process_is_known, "a report of what was just started")
        with contextlib.suppress(ProcessLookupError):
            os.kill(daemon.monitor(), signal.SIGHUP)

    def finish(self):
        """Stops what runs, and fails on what is left or was not expected. Another daemon may then begin anew.

        Every test ends so; one that goes through several daemons calls it after each."""
        for daemon in self.daemons:
            self._stop_for_good(daemon)
        try:
            self._fail_on_what_is_left()
            faults = self._expected.judge(self.events(), self.root.log.torn)
        finally:
            self.root.log.forget()
            self._begin()
        if faults:
            raise AssertionError("\n".join(faults))

    def _stop_for_good(self, daemon):
        if daemon.foreground:
            if daemon.process.poll() is None:
                daemon.signal(signal.SIGHUP)
        elif daemon.monitors() and self.root.processes():
            self._hang_up_service(daemon)
        with contextlib.suppress(subprocess.TimeoutExpired):
            daemon.wait()

    def _fail_on_what_is_left(self):
        try:
            self.wait_all_gone(LEFT_LIMIT)
        except AssertionError:
            left = {pid: command_of(pid) for pid in self.root.processes()}
            for pid in left:
                with contextlib.suppress(OSError):
                    os.kill(pid, signal.SIGKILL)
            for daemon in self.daemons:
                daemon.process.wait()
            raise AssertionError(f"processes were left behind: {left}\n" +
                                 "\n".join(daemon.stderr()[-2000:] for daemon in self.daemons)) from None
