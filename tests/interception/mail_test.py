"""Mail that a client sends to a server's address, and that the gateway between them scans."""
import unittest

import net_case
from harness import network
from net_case import MAIL, NetCase
from smtp_case import EICAR, FAILED, DEFERRED, POLICY_REFUSED, REFUSED, UNREACHED, VIRUS, body, with_attachment

LISTEN_FAILED, SESSION_ACCEPTED, TRYING = (10001, 60), (10003, 65), (19000, 98)


class Common:
    """What holds however connections come to the gateway."""

    def test_a_clean_mail_passes_and_the_server_sees_the_client(self):
        self.begin_between()
        client = self.client()
        self.assertTrue(client.greeting.startswith("220 gw.example"), client.greeting)
        self.assertRegex(client.mail(body("clean")), r"^250 ")
        self.assertIn(b"clean", self.sink.wait_messages(1)[0].content)
        self.assertEqual(self.sink.peers, [network.CLIENT_ADDRESS])

    def test_a_virus_is_refused_and_the_server_gets_none_of_it(self):
        self.begin_between()
        self.provokes(VIRUS, REFUSED, POLICY_REFUSED)
        self.assertRegex(self.client().mail(with_attachment(EICAR)), r"^554 5\.7\.1 ")
        self.noted(REFUSED)
        self.assertEqual((self.sink.messages, self.sink.peers), ([], []))

    def test_the_session_is_transparent_and_its_server_is_where_the_client_was_going(self):
        self.begin_between()
        self.client()
        facts = self.session()
        self.assertEqual(facts["connection_type"], "Transparent")
        self.assertEqual(facts["source_ip"], network.CLIENT_ADDRESS)
        self.assertEqual((facts["destination_ip"], int(facts["destination_port"])), (network.SERVER_ADDRESS, MAIL))

    def test_a_client_of_the_inside_list_comes_from_inside(self):
        self.assertEqual(self.policy_by("NETWORK 10.1.0.0/24\n", "NETWORK *\n"), "from_inside")

    def test_a_client_of_the_outside_list_comes_from_outside(self):
        self.assertEqual(self.policy_by("NETWORK 10.2.0.0/24\n", "NETWORK 10.1.0.0/16\n"), "from_outside")

    def policy_by(self, inside, outside):
        self.begin_between(lists={"inside": inside, "outside": outside})
        self.assertRegex(self.client().mail(), r"^250 ")
        return self.wait_event(10003, 68)[-1]["values"]["connection"]["conversation_policy"]

    def test_a_client_that_no_list_knows_gets_nothing_through(self):
        self.begin_between(lists={"inside": "NETWORK 172.16.0.0/12\n", "outside": "NETWORK 172.16.0.0/12\n"})
        client = self.client()
        self.assertEqual(client.greeting, "")
        self.assertEqual(self.sink.peers, [])

    def test_a_server_that_is_not_there_is_told_to_the_client_who_keeps_the_mail(self):
        self.begin_between()
        self.sink.close()
        self.provokes(UNREACHED, FAILED, DEFERRED)
        self.assertRegex(self.client().mail(), r"^451 4\.4\.1 ")

    def test_the_relay_host_is_for_those_who_come_to_the_gateway_itself(self):
        self.begin_between(smtp={"RelayHost": network.SERVER_ADDRESS, "RelayPort": MAIL})
        client = self.client(network.INNER_ADDRESS, self.port)
        self.assertRegex(client.mail(), r"^250 ")
        self.assertEqual(self.session()["connection_type"], "Proxy")
        self.assertEqual(self.sink.peers, [network.OUTER_ADDRESS])

    def test_an_intercepted_mail_does_not_go_to_the_relay_host(self):
        self.begin_between(smtp={"RelayHost": "10.2.0.99"})
        self.assertRegex(self.client().mail(), r"^250 ")
        self.assertEqual(self.sink.peers, [network.CLIENT_ADDRESS])

    def test_the_server_sees_the_gateway_where_the_setting_says_so(self):
        self.begin_between(smtp={"TransparentSource": "gateway"})
        self.assertRegex(self.client().mail(), r"^250 ")
        self.assertEqual(self.sink.peers, [network.OUTER_ADDRESS])

    def test_several_clients_are_seen_each_with_its_own_address(self):
        addresses = [f"10.1.0.{last}" for last in range(10, 18)]
        self.begin_between()
        for address in addresses:
            self.networks.client.ip("addr", "add", f"{address}/24", "dev", "eth0")
        clients = [self.client(source=address) for address in addresses]
        for client in clients:
            self.assertRegex(client.mail(), r"^250 ")
        self.assertEqual(sorted(self.sink.peers), sorted(addresses))

    def test_other_ports_pass_by(self):
        self.begin_between()
        with self.networks.server.entered():
            other = net_case.mail_sink.MailSink(2500, host=network.SERVER_ADDRESS)
        self.addCleanup(other.close)
        self.assertTrue(self.client(port=2500).greeting.startswith("220 sink"))
        self.assertEqual(self.events(*SESSION_ACCEPTED), [])

    def test_with_the_gateway_stopped_nothing_passes(self):
        self.begin_between()
        self.assertFalse(self.refused())
        self.stop()
        self.assertTrue(self.refused())
        self.assertEqual(self.sink.peers, [])

    def test_with_the_gateways_processes_dead_nothing_passes(self):
        self.begin_between()
        client = self.client()
        self.kill_monitor()
        for worker in self.workers():
            self.kill_worker(worker)
        self.assertEqual(client.read(), "")
        self.assertTrue(self.refused())
        self.assertEqual(self.sink.peers, [])

    def test_without_the_rules_the_guard_lets_nothing_pass(self):
        self.begin_between()
        network.run("nft", "delete", "table", "ip", "velt")
        self.assertTrue(self.refused())
        self.assertEqual(self.sink.peers, [])

    def test_the_rules_may_be_loaded_again_and_the_routes_set_again(self):
        self.begin_between()
        before = network.run("nft", "list", "ruleset")
        self.set_up_rules()
        self.assertEqual(network.run("nft", "list", "ruleset"), before)
        self.assertEqual(network.run("ip", "rule", "list").count("fwmark"), 1)
        self.assertRegex(self.client().mail(), r"^250 ")

    def test_a_connection_to_the_gateways_own_address_does_not_lead_back_to_it(self):
        rules = net_case.rules_of
        self.begin_between()
        self.networks.load(rules(self.mode, self.port).replace("fib daddr type != local ", ""))
        network.run("ip", "addr", "add", "10.2.0.77/24", "dev", network.SERVER_SIDE)  # unknown to the gateway so far
        for number, address in enumerate((network.OUTER_ADDRESS, network.INNER_ADDRESS, "10.2.0.77"), 1):
            self.client(address)
            self.assertEqual(self.session(number)["connection_type"], "Proxy", address)
        self.assertEqual(self.events(*TRYING), [])

    def test_the_capability_for_networks_is_enough(self):
        self.served_with("net_admin")

    def test_the_capability_for_raw_sockets_is_enough(self):
        self.served_with("net_raw")

    def served_with(self, capability):
        self.as_nobody(capability)
        self.begin_between()
        self.assertRegex(self.client().mail(), r"^250 ")
        self.assertEqual(self.sink.peers, [network.CLIENT_ADDRESS])

    def test_without_a_capability_the_port_is_not_served_and_nothing_passes(self):
        self.as_nobody()
        self.expect(*LISTEN_FAILED)
        self.begin_between()
        self.assertEqual(self.wait_event(*LISTEN_FAILED)[0]["values"]["velt_socket_operation"], "IP_TRANSPARENT")
        self.assertTrue(self.refused())
        self.assertEqual(self.sink.peers, [])

    def as_nobody(self, *capabilities):
        self.program = net_case.capped(self.root, NetCase.program, *capabilities)
        self.root.path.chmod(0o777)
        (self.root.path / "scandir").chmod(0o777)


class Tproxy(Common, NetCase):
    mode = "tproxy"

    def test_with_interception_off_nothing_passes(self):
        self.nothing_passes_with("off")

    def test_with_a_device_that_is_not_there_nothing_passes(self):
        self.nothing_passes_with("device")

    def nothing_passes_with(self, interception):
        self.interception = interception
        self.begin_between()
        self.assertTrue(self.refused())
        self.assertEqual(self.sink.peers, [])

    def test_without_the_guard_a_dead_gateway_is_open(self):
        """Why there is a guard."""
        self.begin_between()
        self.stop()
        network.run("nft", "delete", "table", "ip", "velt_guard")
        self.assertTrue(self.client().greeting.startswith("220 sink"))


class Redirect(Common, NetCase):
    mode = "redirect"

    def test_with_interception_off_a_session_is_one_of_the_gateway_itself(self):
        self.interception = "off"
        self.begin_between()
        self.client()
        self.assertEqual(self.session()["connection_type"], "Proxy")
        self.assertEqual(self.sink.peers, [])


if __name__ == "__main__":
    net_case.skip_where_forbidden()
    unittest.main()
