"""What the scenarios of interception share: three networks, the rules that are shipped, the mail gateway between a client
and a server of its own namespaces."""
import pathlib
import re
import socket
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import smtp_case  # noqa: E402  (it finds the harness)
import harness  # noqa: E402
import mail_sink  # noqa: E402
from harness import network  # noqa: E402

PACKAGED = pathlib.Path(__file__).resolve().parents[2] / "packaging/nftables"
ROUTES = PACKAGED / "velt-routes"
MAIL = 25
SKIPPED = 77  # what ctest takes for a test that could not run here


def skip_where_forbidden():
    if not network.permitted():
        print("namespaces or rules are not permitted here")
        sys.exit(SKIPPED)


def rules_of(mode, port, ports=(MAIL,)):
    """The shipped rules, set up for these networks."""
    text = (PACKAGED / f"velt-{mode}.nft").read_text()
    for name, value in (("client_if", f'{{ "{network.CLIENT_SIDE}" }}'), ("gateway_port", port),
                        ("ports", "{ " + ", ".join(map(str, ports)) + " }")):
        text, count = re.subn(rf"(?m)^define {name} = .*$", f"define {name} = {value}", text)
        assert count == 1, name
    return text


class Client(smtp_case.Client):
    """A mail client in the client's namespace, or in another one."""

    def __init__(self, networks, address, port=MAIL, source=None, namespace=None):
        self.socket = (namespace or networks.client).connect(address, port, source)
        self.socket.settimeout(harness.LIMIT)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.file = self.socket.makefile("rb")
        self.greeting = self.read()


class NetCase(smtp_case.SmtpCase):
    mode = "tproxy"
    interception = "netfilter"

    def setUp(self):
        super().setUp()
        self.networks = network.ThreeNetworks()
        self.addCleanup(self.networks.close)

    def begin_between(self, smtp=None, lists=None, **sections):
        """A gateway on all addresses, rules that lead to it, and a mail server behind."""
        self.lists = lists or {"inside": "NETWORK 10.1.0.0/24\n", "outside": "NETWORK *\n"}
        with self.networks.server.entered():
            self.sink = mail_sink.MailSink(MAIL, host=network.SERVER_ADDRESS)
        self.addCleanup(self.sink.close)
        self.begin_gateway(smtp, **sections)
        self.set_up_rules()

    def begin_gateway(self, smtp=None, **sections):
        there = {"BindAddress": ["0.0.0.0"], "Interception": self.interception, "MaxConnections": 16, "NetMem": 16,
                 "ConnectTimeout": 5, **sections.pop("network", {})}
        return self.start(network=there, process={"MonitorHealth": False, "MemoryLimit": 0},
                          smtp={"GreetingName": "gw.example", **(smtp or {})}, scanning={"MaxScanMem": 64}, **sections)

    def configure(self, sections, **others):
        super().configure(sections, **{**self.lists, **others})

    def set_up_rules(self):
        self.networks.load(rules_of(self.mode, self.port))
        network.run(str(ROUTES), "up")
        self.addCleanup(network.run, str(ROUTES), "down")

    def client(self, address=network.SERVER_ADDRESS, port=MAIL, **where):
        made = Client(self.networks, address, port, **where)
        self.addCleanup(made.close)
        return made

    def refused(self, address=network.SERVER_ADDRESS, port=MAIL):
        """Whether nobody answers the client there."""
        try:
            self.networks.client.connect(address, port, limit=2.0).close()
        except OSError:
            return True
        return False

    def session(self, count=1):
        """The facts of the latest session, as it was accepted."""
        return self.wait_event(10003, 65, count=count)[-1]["values"]["connection"]


def capped(root, program, *capabilities):
    """A program that starts this one with these capabilities and no other, as nobody where there is such a user."""
    wanted = ",".join(["-all", *(f"+{one}" for one in capabilities)])
    identity = "--reuid 65534 --regid 65534 --clear-groups " if nobody_exists() else ""
    script = root.path / "capped"
    script.write_text(f"#!/bin/sh\nexec setpriv {identity}--inh-caps {wanted} --ambient-caps {wanted} "
                      f"--bounding-set {wanted} {program} \"$@\"\n")
    script.chmod(0o755)
    return script


def nobody_exists():
    """In a namespace of one user there is only root, who has what its bounding set leaves it."""
    ranges = (map(int, line.split()) for line in pathlib.Path("/proc/self/uid_map").read_text().splitlines())
    return any(first <= 65534 < first + count for first, _, count in ranges)
