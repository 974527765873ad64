"""Recipients whose groups in a directory differ are treated apart, within one message."""
import unittest

from harness.basics import free_ports
from harness.directory import Slapd
from smtp_case import NOTIFIED, PHRASE, POLICY_REFUSED, REFUSED, RULE_HIT, SENDER, SmtpCase, body

ANN, BOB = "ann@example.test", "bob@example.test"  # ann is in the group sales, bob in none
UNREACHABLE, QUERY_FAILED = (15001, 378), (15001, 379)
BIND = "user cn=admin,dc=example,dc=test\npassword secret\n"


class Groups(SmtpCase):
    def begin_with(self, directory, before="", more="", **settings):
        self.root.write("ldap.txt", f"{before}server\nldapserver {directory.host}\nbase dc=example,dc=test\n"
                                    f"userquery (mail=?):departmentNumber\n{more}")
        self.begin(**settings)

    def configure(self, sections, **others):
        super().configure(sections, **others)
        self.root.write("identities.xml", '<identities version="1">\n'
                                          '  <identity name="board">eto IN "127.0.0.1.sales"</identity>\n</identities>\n')

    def directory(self):
        made = Slapd()
        self.addCleanup(made.close)
        return made

    def test_a_member_of_the_group_gets_what_others_do_not(self):
        self.begin_with(self.directory())
        self.provokes(RULE_HIT, POLICY_REFUSED, NOTIFIED)
        reply = self.client().mail(body(PHRASE), recipients=(ANN, BOB))
        self.assertRegex(reply, r"^250 ")
        messages = self.sink.wait_messages(2)
        self.assertEqual(messages[0].recipients, [ANN])
        self.assertEqual(messages[1].recipients, [SENDER])

    def test_a_stranger_alone_is_refused(self):
        self.begin_with(self.directory())
        self.provokes(RULE_HIT, POLICY_REFUSED, REFUSED)
        self.assertRegex(self.client().mail(body(PHRASE), recipients=(BOB,)), r"^554 ")
        self.assertRegex(self.client().mail(body(PHRASE), recipients=(ANN,)), r"^250 ")

    def test_a_directory_that_was_restarted_costs_nothing(self):
        directory = self.directory()
        self.begin_with(directory)
        for _ in range(3):
            self.assertRegex(self.client().mail(body(PHRASE), recipients=(ANN,)), r"^250 ")
            directory.stop()
            directory.start()

    def test_a_directory_that_answers_nothing_ends_by_its_limit(self):
        directory = self.directory()
        self.begin_with(directory, network={"LDAPQueryTimeout": 1})
        directory.freeze()
        self.provokes(RULE_HIT, POLICY_REFUSED, REFUSED, QUERY_FAILED)
        self.assertRegex(self.client().mail(body(PHRASE), recipients=(ANN,)), r"^554 ")

    def test_a_directory_that_answers_no_bind_ends_by_its_limit(self):
        directory = self.directory()
        self.begin_with(directory, more=BIND, network={"LDAPQueryTimeout": 1})
        self.assertRegex(self.client().mail(body(PHRASE), recipients=(ANN,)), r"^250 ")
        directory.freeze()
        self.provokes(RULE_HIT, POLICY_REFUSED, REFUSED, QUERY_FAILED)
        self.assertRegex(self.client().mail(body(PHRASE), recipients=(ANN,)), r"^554 ")
        directory.thaw()
        self.assertRegex(self.client().mail(body(PHRASE), recipients=(ANN,)), r"^250 ")

    def test_a_dead_directory_does_not_stop_the_one_behind_it(self):
        (port,) = free_ports(1)
        self.begin_with(self.directory(), before=f"server\nldapserver 127.1:{port}\n{BIND}")
        self.provokes(UNREACHABLE)
        self.assertRegex(self.client().mail(body(PHRASE), recipients=(ANN,)), r"^250 ")


if __name__ == "__main__":
    unittest.main()
