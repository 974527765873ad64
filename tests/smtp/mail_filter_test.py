"""Rules for the message as a whole: what they refuse, replace and only tell of, and for whom."""
import unittest

from scan_case import ScanCase
from smtp_case import (BOARD, DEFERRED, ENGINE_FAILED, MAIL_HIT, NOTIFIED, POLICY_REFUSED, REFUSED, SALES, SCAN_FAILED,
                       SENDER, STAFF, body)

RULES = """
      <set name="AlertText">%FILENAME% went: %INFECTIONS%</set>
      <rule name="crowd" recipients="2" action="DENY"/>
      <rule name="programs" attachment="*.exe" action="REPLACE"/>
      <rule name="bulk" header="Precedence" match="bulk" action="LOG"/>
"""
BOARDS = '<rule name="may have programs" attachment="*.exe" action="EFABRIC:ALLOWTHRU"/>'
STAFFS = [STAFF, "anne@inside.example", "zoe@inside.example"]


def with_program(name='"setup.exe"'):
    return (b"Subject: test\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
            b"--b\r\n\r\nSee below.\r\n--b\r\nContent-Type: application/octet-stream\r\n"
            b"Content-Disposition: attachment; filename=" + name.encode() + b"\r\n\r\nprogram\r\n--b--\r\n")


def section(inside):
    return f'<settings section="KORMailFilter">{inside}</settings>'


class MailFilter(ScanCase):
    rules = RULES

    def configure(self, sections, **others):
        super().configure(sections, **others)
        file = self.root.path / "config/qxxmlconf/rules.xml"
        text = file.read_text()
        for mark, more in (('<settings section="KORFormatScanner">', section(self.rules) + "{}"),
                           ('<identity name="board">', "{}" + section(BOARDS)),
                           ('<identity name="sales"/>',
                            '<identity name="sales">' + section('<set name="Enabled">false</set>') + "</identity>")):
            self.assertEqual(text.count(mark), 1)
            text = text.replace(mark, more.format(mark))
        file.write_text(text)

    def hits(self):
        """Identity and description of each hit that was told of."""
        return [(one["values"].get("scan_identity"), one["values"].get("description")) for one in self.events(*MAIL_HIT)]

    def assert_hits(self, *expected):
        self.noted(MAIL_HIT, len(expected))
        self.assertEqual(self.hits(), list(expected))
        for prefix in ("", "from_outside."):
            self.assertEqual(self.counters(prefix + "mail_filtering_detected"), {"": len(expected)})


class OneIdentity(MailFilter):
    def test_one_rule_refuses_one_replaces_and_one_only_tells(self):
        self.begin()
        self.provokes(MAIL_HIT, POLICY_REFUSED, REFUSED)
        client = self.client()
        self.assertRegex(client.mail(body()), r"^250 ")
        bulk = b"Precedence: bulk\r\n" + body()
        self.assertRegex(client.mail(bulk), r"^250 ")
        self.assertRegex(client.mail(with_program()), r"^250 ")
        self.assertRegex(client.mail(body(), STAFFS), r"^554 5\.7\.1 .*crowd \(3 recipients\)")
        self.assert_hits(("", "bulk"), ("", "programs: setup.exe"), ("", "crowd (3 recipients)"))
        self.assert_conserved(clean=1, acted=3)
        plain, told, replaced = self.sink.wait_messages(3)
        self.assertEqual([self.content_of(plain), self.content_of(told)], [body(), bulk])
        self.assertIn(b"setup.exe went: programs", replaced.content)
        self.assertIn(b"See below.", replaced.content)
        self.assertNotIn(b"\r\nprogram\r\n", replaced.content)
        self.assert_nothing_left()

    def test_recipients_are_those_of_the_envelope_whatever_the_header_says(self):
        self.begin()
        self.provokes(MAIL_HIT, POLICY_REFUSED, REFUSED)
        client = self.client()
        many = b"To: a@b.example, c@d.example, e@f.example\r\n" + body()
        self.assertRegex(client.mail(many, STAFFS[:2]), r"^250 ")
        self.assertRegex(client.mail(b"To: a@b.example\r\n" + body(), STAFFS), r"^554 ")
        self.assertRegex(client.mail(many), r"^250 ", "each message has recipients of its own")
        self.assert_conserved(clean=2, acted=1)

    def test_a_name_in_any_form_is_the_same_name(self):
        self.begin()
        self.provokes(MAIL_HIT)
        client = self.client()
        names = ("setup.EXE", '"=?utf-8?B?c2V0dXAuZXhl?="', '"a.txt"; filename=setup.exe',
                 '"a.txt"; filename*=utf-8\'\'setup%2Eexe', '\r\n\t"setup.exe"')
        for name in names:
            self.assertRegex(client.mail(with_program(name)), r"^250 ", name)
        for stored in self.sink.wait_messages(len(names)):
            self.assertNotIn(b"\r\nprogram\r\n", stored.content)
        self.assert_conserved(acted=len(names))


class ThreeIdentities(MailFilter):
    def test_each_gets_the_outcome_of_its_own_rules(self):
        self.begin()
        self.provokes(MAIL_HIT)
        self.assertRegex(self.client().mail(with_program(), [STAFF, BOARD]), r"^250 ")
        self.assertRegex(self.client().mail(with_program(), [SALES]), r"^250 ")
        contents = {one.recipients[0]: one.content for one in self.sink.wait_messages(3)}
        self.assertNotIn(b"\r\nprogram\r\n", contents[STAFF])
        for whole in (BOARD, SALES):
            self.assertTrue(contents[whole].endswith(with_program()), whole)
        self.assert_hits(("", "programs: setup.exe"))
        self.assertEqual(self.counted(), {"asked": 3, "clean": 2, "acted": 1, "failed": 0, "null": 0})

    def test_the_whole_envelope_counts_for_each(self):
        self.begin()
        self.provokes(MAIL_HIT, POLICY_REFUSED)
        self.assertRegex(self.client().mail(body(), [STAFF, BOARD, SALES]), r"^250 ")
        mail, report = self.sink.wait_messages(2)
        self.assertEqual((mail.recipients, report.recipients), ([SALES], [SENDER]))
        self.noted(NOTIFIED)
        self.assertEqual(sorted(self.hits()), [("", "crowd (3 recipients)"), ("board", "crowd (3 recipients)")])


class BrokenRule(MailFilter):
    rules = '<rule name="programs" attachment="regex:(" action="DENY"/>'

    def test_nothing_passes_and_the_report_names_the_rule(self):
        self.begin()
        self.provokes(ENGINE_FAILED, SCAN_FAILED, DEFERRED)
        self.assertRegex(self.client().mail(), r"^451 4\.7\.1 ")
        values = self.noted(ENGINE_FAILED)[0]["values"]
        self.assertEqual(values["error_id"], 105)
        self.assertRegex(values["description"], r'rules\.xml:\d+:\d+: rule "programs": Missing close parenthesis')
        self.assertRegex(self.client().mail(recipients=[SALES]), r"^250 ")
        self.assert_conserved(failed=1, clean=1)


if __name__ == "__main__":
    unittest.main()
