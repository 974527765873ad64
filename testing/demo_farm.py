"""What stands behind the gateway of ./demo --farm: two scanner daemons, and the resource manager that knows them."""
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import time

PROXY = "scannerd"

RULES = """<?xml version="1.0"?>
<!-- The settings of a scanner daemon. Its policies are those of the gateway. -->
<rules version="1">
  <policy name="base">
    <settings section="network">
      <list name="BindAddress"><item>127.0.0.1</item></list>
      <list name="BindPorts"><item>{port}</item></list>
      <set name="MaxConnections">64</set>            <!-- those that gateways keep for later are among them -->
      <set name="NetMem">64</set>
      <set name="ForbidReverseLookups">true</set>
    </settings>
    <settings section="process">
      <set name="MemoryLimit">0</set>
    </settings>
    <settings section="scanning">
      <set name="MaxScanMem">512</set>
    </settings>
    <settings section="scannerd">
      <list name="SpoolRoots"><item>{spool}</item></list> <!-- what a gateway has on disk it names, and does not send -->
    </settings>
  </policy>
{policies}</rules>
"""


def wait_for(condition, what, limit=30):
    deadline = time.monotonic() + limit
    while not condition():
        if time.monotonic() > deadline:
            sys.exit(f"waited {limit} s for {what}")
        time.sleep(0.02)


class Manager:
    """velt-rmgrd. Daemons announce themselves to it, and it lets each of them scan the test file before it has work."""

    def __init__(self, build, root):
        self.socket = root / "run/velt/rmgrd.socket"
        self.socket.parent.mkdir(parents=True)
        self.log = root / "rmgrd.log"
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen([build / "bin/velt-rmgrd", "--probe", "1", "--slow-start", "0"],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
                                            env={**os.environ, "VELT_ROOT": str(root)})
        wait_for(self.socket.exists, "the resource manager")

    def lines(self):
        return self.log.read_text().splitlines()

    def stop(self):
        self.process.terminate()
        self.process.wait(15)


class Daemon:
    """velt-scannerd in a root of its own, as on a machine of its own, but for the resource manager's socket."""

    def __init__(self, build, root, name, policies, port, manager):
        self.build, self.name, self.manager = build, name, manager
        self.root = root / name
        config = self.root / "config/qxxmlconf"
        (config / "efabric").mkdir(parents=True)
        (self.root / "scandir").mkdir()
        (self.root / "run/velt").mkdir(parents=True)
        (self.root / "run/velt" / manager.socket.name).symlink_to(manager.socket)
        (config / "rules.xml").write_text(RULES.format(port=port, spool=root / "scandir", policies=policies))
        for file in ("inside.txt", "outside.txt"):
            (config / file).write_text("NETWORK 127.0.0.0/8\n")
        (config / f"{PROXY}-logging.xml").write_text('<logging version="1"><events default="off"/></logging>\n')
        self.environment = {**os.environ, "VELT_ROOT": str(self.root)}
        self.start()

    def start(self):
        """Returns when it has found the test file and takes work."""
        known = len(self.manager.lines())
        with open(self.root / "stderr", "wb") as stderr:
            self.process = subprocess.Popen([self.build / "bin/velt-scannerd", "-d", PROXY, "velt"],
                                            stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr, env=self.environment,
                                            start_new_session=True)
        wait_for(lambda: any(line.endswith("is up") for line in self.manager.lines()[known:]), f"{self.name} to take work")

    def kill(self):
        """All its processes, without a word."""
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        for pid in (self.process.pid, *map(int, children)):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        self.process.wait(15)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGHUP)
            self.process.wait(15)

    def items(self):
        """What it has scanned for the gateway, whose connection waits for the next mail after each. Probes' do not."""
        shown = subprocess.run([self.build / "bin/velt-counters", PROXY], env=self.environment, capture_output=True,
                               text=True, check=False).stdout
        counts = dict(line.split() for line in shown.splitlines() if len(line.split()) == 2)
        return int(counts.get("scannerd.parked", 0))


class Farm:
    def __init__(self, build, root, policies, ports):
        self.manager, self.daemons = Manager(build, root), []
        for name, port in zip(("scan-a", "scan-b"), ports):
            self.daemons.append(Daemon(build, root, name, policies, port, self.manager))

    def items(self):
        """{name: items}, of those that run."""
        return {daemon.name: daemon.items() for daemon in self.daemons}

    def stop(self):
        for one in (*self.daemons, self.manager):
            one.stop()
