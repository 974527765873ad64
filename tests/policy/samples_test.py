"""Each sample configuration runs, and does with mail what its comments say.

A sample is taken as it is shipped. Where this machine is another one a per-proxy file is laid over it, and the
directory of the provider has another name."""
import pathlib
import shutil
import socket
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "interception"))

import forms  # noqa: E402
import net_case  # noqa: E402
import smtp_case  # noqa: E402
import harness  # noqa: E402
import mail_sink  # noqa: E402
from harness import network  # noqa: E402
from harness.directory import Slapd  # noqa: E402
from smtp_case import (CLEANED, DENIED, EICAR, GONE, NOTIFIED, POLICY_REFUSED, REFUSED, RULE_HIT,  # noqa: E402
                       VIRUS, body, with_attachment)

OUTSIDE = "203.0.113.9"
HIT = (RULE_HIT, POLICY_REFUSED, REFUSED)
INFECTED = (VIRUS, POLICY_REFUSED, REFUSED)


class Client(smtp_case.Client):
    """A client with an address of the sample's world."""

    def __init__(self, port, source):
        network.run("ip", "route", "replace", "local", source, "dev", "lo")
        self.socket = socket.create_connection((harness.SERVER, port), harness.LIMIT, (source, 0))
        self.file = self.socket.makefile("rb")
        self.greeting = self.read()


class Sample:
    """What the tests of every sample share."""

    sample = None
    product = "velt"

    def lay_down(self, **over):
        """The sample's files, and these settings over it."""
        config = self.root.path / "config"
        shutil.copytree(forms.SAMPLES / self.sample / "config", config, dirs_exist_ok=True)
        here = {"process": {"MonitorHealth": False, "PermThreads": 8}, **over}
        here["network"] = {"AcceptCount": 1, "MaxConnections": 8, **over.get("network", {})}
        self.root.write(f"efabric/{self.proxy}.xml", '<rules version="1">\n<policy name="base">\n' +
                        harness.settings_xml(here) + "\n</policy>\n</rules>\n")
        self._expected.configured(1)
        self.root.write(f"{self.proxy}-logging.xml",
                        f'<logging><sink type="json" file="{self.root.log.path}"/></logging>\n')

    def start_it(self, environment=None):
        self.launch(environment=environment)
        self.wait_worker()


class Relayed(Sample, smtp_case.SmtpCase):
    """A gateway in front of one server, here self.sink."""

    def begin_sample(self, environment=None):
        self.sink = mail_sink.MailSink()
        self.addCleanup(self.sink.close)
        self.ports = harness.free_ports(1)
        self.lay_down(network={"BindAddress": [harness.SERVER], "BindPorts": self.ports},
                      smtp={"RelayHost": harness.SERVER, "RelayPort": self.sink.port})
        self.adapt()
        self.start_it(environment)

    def adapt(self):
        pass

    def mail(self, content, *recipients, sender="someone@elsewhere.example", source=OUTSIDE):
        client = Client(self.port, source)
        self.addCleanup(client.close)
        return client.mail(content, recipients, sender)

    def delivered(self, count):
        return [message.recipients for message in self.sink.wait_messages(count)]


class SmallOffice(Relayed):
    sample = "small-office"
    INSIDE = "192.168.10.20"
    WON, MARKED = body("Dear friend, you have won a prize."), body("The plan.\r\n\r\nOffice internal.")

    def test_clean_mail_goes_both_ways(self):
        self.begin_sample()
        self.assertRegex(self.mail(body(), "anna@office.example"), r"^250 ")
        self.assertRegex(self.mail(body(), "someone@elsewhere.example", sender="anna@office.example",
                                   source=self.INSIDE), r"^250 ")
        self.assertEqual(self.delivered(2), [["anna@office.example"], ["someone@elsewhere.example"]])

    def test_other_domains_are_not_for_clients_from_outside(self):
        self.begin_sample()
        self.provokes(DENIED, GONE)
        self.assertRegex(self.mail(body(), "x@another.example"), r"^550 5\.7\.1 ")

    def test_a_virus_is_refused_in_either_direction_and_for_anybody(self):
        self.begin_sample()
        self.provokes(*INFECTED)
        virus = with_attachment(EICAR)
        self.assertRegex(self.mail(virus, "anna@office.example"), r"^554 5\.7\.1 ")
        self.assertRegex(self.mail(virus, "postmaster@office.example"), r"^554 5\.7\.1 ")
        self.assertRegex(self.mail(virus, "x@elsewhere.example", sender="ceo@office.example", source=self.INSIDE),
                         r"^554 ")

    def test_bait_is_refused_but_for_the_postmaster(self):
        self.begin_sample()
        self.provokes(*HIT)
        self.assertRegex(self.mail(self.WON, "anna@office.example"), r"^554 5\.7\.1 .*bait")
        self.assertRegex(self.mail(self.WON, "PostMaster@office.example"), r"^250 ")
        self.assertRegex(self.mail(self.WON, "abuse@office.example"), r"^250 ")

    def test_what_is_marked_stays_in_unless_the_management_sends_it(self):
        self.begin_sample()
        self.provokes(*HIT)
        for sender, answer in (("anna@office.example", r"^554 5\.7\.1 .*marked"), ("ceo@office.example", r"^250 "),
                               ("legal@office.example", r"^250 ")):
            self.assertRegex(self.mail(self.MARKED, "x@elsewhere.example", sender=sender, source=self.INSIDE), answer)

    def test_the_name_of_a_manager_is_worth_nothing_outside(self):
        self.begin_sample()
        self.provokes(*HIT)
        self.assertRegex(self.mail(self.WON, "anna@office.example", sender="ceo@office.example"), r"^554 ")


class Provider(Relayed):
    sample = "provider"
    INSIDE = "198.51.100.7"
    WON, HURRY = body("You just won."), body("Act now!")
    BOTH = body("You just won. Act now!")

    def begin_sample(self, environment=None):
        self.directory = Slapd()
        self.addCleanup(self.directory.close)
        subprocess.run(["ldapadd", "-x", "-H", f"ldap://{self.directory.host}", "-D", "cn=admin,dc=example,dc=test",
                        "-w", "secret"], input=PEOPLE, text=True, check=True, capture_output=True)
        super().begin_sample({"LDAPTLS_CACERT": str(self.directory.folder / "ca.pem"), **(environment or {})})

    def adapt(self):
        self.change("ldap.txt", {"directory.provider.example": self.directory.host, "change-me": "secret",
                                 "cn=gateway,dc=provider,dc=example": "cn=admin,dc=example,dc=test",
                                 "base dc=provider,dc=example": "base dc=example,dc=test"})
        self.change("identities.xml", {"directory.provider.example.board": f"{harness.SERVER}.board"})

    def change(self, name, texts):
        file = self.root.path / "config/qxxmlconf" / name
        text = file.read_text()
        for old, new in texts.items():
            self.assertIn(old, text)
            text = text.replace(old, new)
        file.write_text(text)

    @staticmethod
    def at(hour):
        """A time zone in which it is this hour of the day."""
        return {"TZ": f"HERE{(time.gmtime().tm_hour - hour) % 24}"}

    def test_each_customer_has_its_own_threshold(self):
        self.begin_sample(self.at(12))
        self.provokes(*HIT)
        for recipient, content, answer in (
                ("x@alpha.example", self.HURRY, r"^554 5\.7\.1 .*hurry"), ("x@eu.alpha.example", self.HURRY, r"^554 "),
                ("x@beta.example", self.HURRY, r"^554 "), ("x@gamma.example", self.HURRY, r"^250 "),
                ("x@gamma.example", self.WON, r"^250 "), ("x@gamma.example", self.BOTH, r"^554 "),
                ("sales@gamma.example", self.HURRY, r"^554 "), ("x@alpha.example", body(), r"^250 ")):
            self.assertRegex(self.mail(content, recipient), answer, f"{recipient}: {content}")

    def test_the_board_is_known_by_the_directory(self):
        self.begin_sample(self.at(12))
        self.provokes(*HIT, *INFECTED)
        self.assertRegex(self.mail(self.BOTH, "carol@alpha.example"), r"^250 ")
        self.assertRegex(self.mail(self.BOTH, "dave@alpha.example"), r"^554 ")
        self.assertRegex(self.mail(with_attachment(EICAR), "carol@alpha.example"), r"^554 ")

    def test_without_the_directory_the_board_is_alpha(self):
        self.begin_sample(self.at(12))
        self.directory.stop()
        self.provokes(*HIT, (15001, 378))
        self.assertRegex(self.mail(self.HURRY, "carol@alpha.example"), r"^554 ")
        self.directory.start()
        self.assertRegex(self.mail(self.HURRY, "carol@alpha.example"), r"^250 ")

    def test_the_directory_is_asked_about_alpha_alone(self):
        self.begin_sample(self.at(12))
        self.assertRegex(self.mail(body(), "x@beta.example", "x@gamma.example"), r"^250 ")
        self.assertEqual(self.directory.searches(), 0)

    def test_a_message_to_several_customers_is_one_for_each(self):
        self.begin_sample(self.at(12))
        self.provokes(RULE_HIT, POLICY_REFUSED, NOTIFIED)
        self.assertRegex(self.mail(self.HURRY, "x@alpha.example", "x@gamma.example"), r"^250 ")
        self.assertEqual(self.delivered(2), [["x@gamma.example"], ["someone@elsewhere.example"]])

    def test_betas_reports_pass_at_night(self):
        self.begin_sample(self.at(2))
        self.assertRegex(self.mail(self.BOTH, "x@beta.example"), r"^250 ")

    def test_what_customers_send_is_looked_at_for_viruses_alone(self):
        self.begin_sample(self.at(12))
        self.provokes(*INFECTED)
        self.assertRegex(self.mail(self.BOTH, "x@alpha.example", source=self.INSIDE), r"^250 ")
        self.assertRegex(self.mail(with_attachment(EICAR), "x@alpha.example", source=self.INSIDE), r"^554 ")


PEOPLE = """
dn: uid=carol,ou=people,dc=example,dc=test
objectClass: inetOrgPerson
uid: carol
cn: Carol C
sn: C
mail: carol@alpha.example

dn: uid=dave,ou=people,dc=example,dc=test
objectClass: inetOrgPerson
uid: dave
cn: Dave D
sn: D
mail: dave@alpha.example

dn: cn=board,ou=people,dc=example,dc=test
objectClass: groupOfNames
cn: board
member: uid=carol,ou=people,dc=example,dc=test
"""


class Transparent(Sample, net_case.NetCase):
    sample = "transparent"
    PLANT = "10.2.7.5"
    DRAWING = body("Site drawing 17, of the new hall.")

    def begin_sample(self):
        with self.networks.server.entered():
            self.sink = mail_sink.MailSink(net_case.MAIL, host="0.0.0.0")
        self.addCleanup(self.sink.close)
        with self.networks.client.entered():
            self.inner_sink = mail_sink.MailSink(net_case.MAIL, host=network.CLIENT_ADDRESS)
        self.addCleanup(self.inner_sink.close)
        self.networks.server.ip("addr", "add", f"{self.PLANT}/24", "dev", "eth0")
        network.run("ip", "route", "add", "10.2.7.0/24", "dev", network.SERVER_SIDE)
        self.ports = [2525]
        self.lay_down()
        self.start_it()
        both = f'"{network.CLIENT_SIDE}", "{network.SERVER_SIDE}"'
        self.networks.load(net_case.rules_of("tproxy", self.port).replace(f'"{network.CLIENT_SIDE}"', both))
        network.run(str(net_case.ROUTES), "up")
        self.addCleanup(network.run, str(net_case.ROUTES), "down")

    def from_outside(self):
        client = net_case.Client(self.networks, network.CLIENT_ADDRESS, namespace=self.networks.server)
        self.addCleanup(client.close)
        return client

    def test_servers_see_the_clients(self):
        self.begin_sample()
        self.assertRegex(self.client().mail(body(), ("x@there.example",)), r"^250 ")
        self.assertEqual(self.sink.peers, [network.CLIENT_ADDRESS])

    def test_drawings_stay_in_but_for_the_plant(self):
        self.begin_sample()
        self.provokes(*HIT)
        self.assertRegex(self.client().mail(self.DRAWING), r"^554 5\.7\.1 .*drawings")
        self.assertRegex(self.client(self.PLANT).mail(self.DRAWING), r"^250 ")

    def test_a_virus_from_inside_is_refused(self):
        self.begin_sample()
        self.provokes(*INFECTED)
        self.assertRegex(self.client().mail(with_attachment(EICAR)), r"^554 5\.7\.1 ")
        self.assertEqual(self.sink.messages, [])

    def test_a_virus_from_outside_is_taken_out_and_drawings_come_in(self):
        self.begin_sample()
        self.provokes(CLEANED)
        self.assertRegex(self.from_outside().mail(with_attachment(EICAR)), r"^250 ")
        content = self.inner_sink.wait_messages(1)[0].content
        self.assertIn(b"This part of the message was removed.", content)
        self.assertIn(b"See below.", content)
        self.assertRegex(self.from_outside().mail(self.DRAWING), r"^250 ")
        self.assertEqual(self.inner_sink.peers, [network.SERVER_ADDRESS] * 2)


if __name__ == "__main__":
    net_case.skip_where_forbidden()
    unittest.main()
