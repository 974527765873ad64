"""Set-ups that lack one piece, and what velt-doctor says of each."""
import json
import os
import subprocess
import sys
import unittest

import net_case
from harness import network
from net_case import NetCase
from smtp_case import DEFERRED, FAILED, GONE

LISTEN_FAILED = (10001, 60)
DOCTOR = net_case.PACKAGED.parents[1] / "tools/velt-doctor"


class Common:
    """Each test takes one piece away from a set-up that works."""

    def diagnose(self, *options, environment=None):
        done = subprocess.run([sys.executable, "-B", DOCTOR, "--program", "velt-smtp", *options], check=False,
                              capture_output=True, text=True, env={**os.environ, "VELT_ROOT": str(self.root.path),
                                                                   **(environment or {})})
        return done.returncode, done.stdout, done.stderr

    def begin_to_stall(self):
        """For a set-up in which the gateway may not reach the server, which it says then."""
        for event in ((12000, None), FAILED, DEFERRED, GONE):
            self.expect(*event, at_least=0)
        self.begin_between(network={"ConnectTimeout": 1})

    def faults(self):
        code, out, err = self.diagnose("--json")
        self.assertEqual(err, "")
        report = json.loads(out)
        pieces = [fault["piece"] for fault in report["faults"]]
        self.assertEqual(code, 1 if pieces else 0)
        for fault in report["faults"]:
            self.assertTrue(fault["found"] and fault["remedy"])
        return pieces

    def lacks(self, piece, passes=False):
        """Exactly this is named; whether the client's mail passes meanwhile."""
        self.assertEqual(self.faults(), [piece])
        self.assertEqual(self.diagnose()[1].split(":")[0], piece)
        self.assertEqual(self.mail_passes(), passes)

    def mail_passes(self):
        try:
            client = self.client()
        except OSError:
            return False
        return client.greeting.startswith("220 gw") and client.mail().startswith("250")

    def replace(self, before, after):
        """The rules with this in the place of that."""
        rules = net_case.rules_of(self.mode, self.port)
        self.assertIn(before, rules)
        network.run("nft", "flush", "ruleset")
        self.networks.load(rules.replace(before, after))

    def test_a_whole_set_up_lacks_nothing(self):
        self.begin_between()
        self.assertEqual(self.faults(), [])
        code, out, _ = self.diagnose()
        self.assertEqual((code, out), (0, f"nothing is missing ({self.mode})\n"))
        self.assertTrue(self.mail_passes())

    def test_the_setting(self):
        self.interception = "off"
        self.begin_between()
        self.assertEqual(self.faults(), ["setting"])

    def test_the_gateway(self):
        self.begin_between()
        self.stop()
        self.lacks("listener")

    def test_the_capability(self):
        self.program = net_case.capped(self.root, NetCase.program)
        self.root.path.chmod(0o777)
        (self.root.path / "scandir").chmod(0o777)
        self.expect(*LISTEN_FAILED)
        self.begin_between()
        self.lacks("capability")

    def test_the_rules(self):
        self.begin_between()
        network.run("nft", "flush", "chain", "ip", "velt", "divert" if self.mode == "tproxy" else "nat")
        self.assertIn("rule", self.faults())
        self.assertFalse(self.mail_passes())

    def test_rules_that_sleep(self):
        self.begin_between()
        network.run("nft", "add", "table", "ip", "velt", "{ flags dormant ; }")
        self.assertEqual(self.faults(), ["rule", "divert"])

    def test_the_divert_rule(self):
        self.begin_to_stall()
        self.replace("socket transparent 1", "socket transparent 0")
        self.lacks("divert")

    def test_the_policy_rule(self):
        self.begin_to_stall()
        network.run("ip", "rule", "del", "fwmark", "0x56", "lookup", "100")
        self.lacks("policy-rule")

    def test_the_route(self):
        self.begin_to_stall()
        network.run("ip", "route", "flush", "table", "100")
        self.lacks("route")

    def test_forwarding(self):
        self.begin_between()
        self.networks.set(network.FORWARD, 0)
        self.assertEqual(self.faults(), ["forwarding"])

    def test_the_guard(self):
        self.begin_between()
        network.run("nft", "delete", "table", "ip", "velt_guard")
        self.lacks("guard", passes=True)

    def test_a_guard_of_other_ports(self):
        self.begin_between()
        self.replace("dport $ports counter", "dport 26 counter")
        self.lacks("guard", passes=True)

    def test_a_guard_of_another_interface(self):
        self.begin_between()
        self.replace("iifname $client_if tcp dport $ports counter", 'iifname "eth9" tcp dport $ports counter')
        self.lacks("guard", passes=True)

    def test_the_clients_interface(self):
        self.begin_between()
        self.replace(f'"{network.CLIENT_SIDE}"', '"eth9"')
        self.assertEqual(self.faults(), ["interface"])

    def test_the_port(self):
        self.begin_between()
        self.replace(f"gateway_port = {self.port}", "gateway_port = 9")
        self.lacks("port")

    def test_the_filter_of_return_paths(self):
        self.begin_to_stall()
        self.networks.set(f"conf/{network.SERVER_SIDE}/rp_filter", 1)
        self.networks.set(f"conf/{network.SERVER_SIDE}/src_valid_mark", 1)
        self.lacks("rp_filter")

    def test_several_pieces_at_once(self):
        self.begin_between()
        network.run("nft", "delete", "table", "ip", "velt_guard")
        network.run("ip", "route", "flush", "table", "100")
        self.networks.set(network.FORWARD, 0)
        self.assertEqual(sorted(self.faults()), ["forwarding", "guard", "route"])

    def test_the_device_where_no_rule_asks_for_another_way(self):
        self.interception = "device"
        self.begin_between()
        network.run("nft", "flush", "ruleset")
        self.assertEqual(set(self.faults()), {"device"})

    def test_what_cannot_be_looked_at_is_told_apart(self):
        self.begin_between()
        for options, environment in ((("--settings", "/nonexistent"), None), ((), {"PATH": "/nonexistent"})):
            code, out, err = self.diagnose(*options, environment=environment)
            self.assertEqual((code, out), (2, ""))
            self.assertTrue(err.startswith("velt-doctor: "), err)
        self.assertEqual(self.diagnose("--what")[0], 2)
        self.assertEqual(self.diagnose("--help")[0], 0)


class Tproxy(Common, NetCase):
    mode = "tproxy"

    def test_marks_that_differ(self):
        self.begin_between()
        self.replace("tproxy to :$gateway_port meta mark set $our_mark", "tproxy to :$gateway_port meta mark set 0x57")
        self.lacks("mark")


class Redirect(Common, NetCase):
    mode = "redirect"


if __name__ == "__main__":
    net_case.skip_where_forbidden()
    unittest.main()
