"""What the scenarios of a scanner farm share: scanner daemons, a manager that offers them, and a mail gateway."""
import contextlib
import os
import pathlib
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import harness  # noqa: E402
from scannerd_case import ENDED as SCANNED, POLICIES as SCANNER_POLICIES  # noqa: E402
from smtp_case import SmtpCase  # noqa: E402

REMOTE = "127.0.0.3"  # this machine, but not by the address that counts as local
LOST = ((190002, 399), (190002, 400), (190002, 401), (190002, 402))


class Scanner:
    """A scanner daemon in a root of its own."""

    def __init__(self, gateway, address, environment=None, agent=""):
        self.root, self.address = harness.Root(), address
        (self.port,) = harness.free_ports(1)
        settings = {"network": {"BindAddress": [address], "BindPorts": [self.port], "ForbidReverseLookups": True,
                                "MaxConnections": 16, "NetMem": 16},
                    "process": {"MemoryLimit": 0, "ShutDownTimeout": 0},
                    "scannerd": {"SpoolRoots": [str(gateway / "scandir")]}, "scanning": {"MaxScanMem": 64, "ScannerAgent": agent}}
        self.root.write("rules.xml", '<rules version="1">\n  <policy name="base">\n' + harness.settings_xml(settings) +
                        "\n  </policy>\n" + SCANNER_POLICIES.format(av="DENY") + "</rules>\n")
        for name in ("inside.txt", "outside.txt"):
            self.root.write(name, "NETWORK *\n")
        self.root.write("scannerd-logging.xml", f'<logging><sink type="json" file="{self.root.log.path}"/></logging>\n')
        self.daemon = harness.Daemon(self.root, os.environ["VELT_SCANNERD"], "scannerd", "product", environment=environment)
        harness.wait_until(self.daemon.workers, "a worker of the scanner daemon")

    def items(self):
        """How many this daemon has been given, by the connections that have ended."""
        return sum(int(event["values"]["scannerd_items"]) for event in self.root.log.named(*SCANNED))

    def kill(self):
        """Every process of it, at once."""
        for pid in self.root.processes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        self.daemon.wait()

    def stop(self):
        if self.daemon.process.poll() is None:
            self.daemon.signal(signal.SIGHUP)
        self.daemon.wait()
        harness.wait_until(lambda: not self.root.processes(), "the end of the scanner daemon")


class MailFarmCase(SmtpCase):
    def begin_farm(self, addresses=(harness.SERVER,), **sections):
        self.begin_manager()
        self.scanners = []
        for number, address in enumerate(addresses, 1):
            self.offer(number, self.add_scanner(address))
        return self.begin(scanning={"LSServerWaitTime": 3}, **sections)

    def begin_manager(self):
        self.manager = self.root.path / "manager"
        self.manager.mkdir()
        for name in ("qxrmgrctl", "qxrmgr0", "qxrmgr"):
            (self.manager / name).touch()

    def add_scanner(self, address, environment=None, agent=""):
        scanner = Scanner(self.root.path, address, environment, agent)
        self.addCleanup(scanner.root.remove)
        self.addCleanup(scanner.stop)
        self.scanners.append(scanner)
        return scanner

    @property
    def managed(self):
        """The environment of a daemon that finds the manager."""
        return {"LD_PRELOAD": os.environ["VELT_MANAGER_CALLS"], "VELT_MANAGER": str(self.manager)}

    def offer(self, number, scanner):
        new = self.manager / "new"
        new.write_text(f"{scanner.address} {scanner.port}\n")
        new.rename(self.manager / f"qxrmgr{number}")

    def withdraw(self, number):
        (self.manager / f"qxrmgr{number}").unlink()

    def launch(self, options=("-d",), arguments=(), environment=None):
        return super().launch(options, arguments, {
            **self.managed, **(environment or {})})

    def stop_scanners(self):
        for scanner in self.scanners:
            scanner.stop()
