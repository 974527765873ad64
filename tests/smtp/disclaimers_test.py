"""Mail that is changed on its way: disclaimers by identity, alerts in place of parts; and what two mail readers make of it."""
import email
import email.policy
import pathlib
import subprocess
import tempfile
import unittest

import harness
from scan_case import OnAFullDisk, ScanCase
from smtp_case import BOARD, CLEANED, DEFERRED, EICAR, ENGINE_FAILED, SCAN_FAILED, SPOOL_FAILED, STAFF

SIGNED, NO_TEXT, UNCHANGED = (180009, 345), (180009, 347), (180009, 346)
LARGEST = 256 * 1024  # bytes of a file where the disk is full
TEXT = "Example Ltd. For the addressee alone: grüße."
PAGE = "<hr><p>Example Ltd. For the addressee alone: gr&uuml;&szlig;e.</p>"

POLICIES = f"""
  <policy name="content" base="base">
    <actions><action>LOG</action><action>CLEAN</action><action>REPLACE</action><action>DENY</action></actions>
    <settings section="KORAVScanner">
      <set name="Action">REPLACE</set>
      <set name="AlertText">%FILENAME% was taken out (%INFECTIONS%): Vorsicht, Übel.</set>
    </settings>
    <settings section="KORInfoScanner">
      <set name="Text">{TEXT}</set>
      <set name="Html"><![CDATA[{PAGE}]]></set>
    </settings>
  </policy>
  <policy name="content_in" base="content">
    <identity name="board"><settings section="KORInfoScanner"><set name="Enabled">false</set></settings></identity>
    <identity name="sales"/>
  </policy>
  <policy name="content_out" base="content"/>
"""


def mixed(*parts, subtype="mixed"):
    made = email.message.EmailMessage(email.policy.SMTP)
    made["Content-Type"] = f"multipart/{subtype}"
    for part in parts:
        made.attach(part)
    return made


def text(content, subtype="plain", charset="utf-8", **others):
    made = email.message.EmailMessage(email.policy.SMTP)
    made.set_content(content, subtype=subtype, charset=charset, **others)
    del made["MIME-Version"]
    return made


def file(name, content):
    made = email.message.EmailMessage(email.policy.SMTP)
    made.set_content(content if isinstance(content, bytes) else content.encode(), "application", "octet-stream",
                     filename=name)
    del made["MIME-Version"]
    return made


def mail(content, preamble=None, epilogue=None):
    content["From"], content["Subject"], content["MIME-Version"] = "<alice@outside.example>", "test", "1.0"
    content.preamble, content.epilogue = preamble, epilogue
    return content.as_bytes()


def forms(cte="quoted-printable"):
    return mixed(text("Hello, grüße.\n", cte=cte), text("<html><body><p>Hello.</p></body></html>\n", "html", cte=cte),
                 subtype="alternative")


def parsed(content):
    """The message, which has to be without any defect."""
    return email.message_from_bytes(content, policy=email.policy.strict)


def tree(content):
    """Type, name and decoded content of each part, by its path."""
    found = {}

    def walk(part, path):
        leaf = not part.is_multipart()
        found[path] = (part.get_content_type(), part.get_filename(), part.get_content() if leaf else "")
        for number, inner in enumerate([] if leaf else part.iter_parts() if part.get_content_maintype() == "multipart"
                                       else part.get_payload()):
            walk(inner, f"{path}.{number}")
    walk(parsed(content), "0")
    return found


def unpacked(content):
    """The files that an unpacking program finds in the message."""
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder, "message")
        path.write_bytes(content.replace(b"\r\n", b"\n"))
        out = pathlib.Path(folder, "out")
        out.mkdir()
        subprocess.run(["munpack", "-q", "-f", "-t", "-C", str(out), str(path)], check=True, capture_output=True)
        return {one.name: one.read_bytes() for one in out.iterdir()}


class DisclaimerCase(ScanCase):
    def configure(self, sections, **others):
        rules = ('<rules version="1">\n  <policy name="base">\n' + harness.settings_xml(sections) + "\n  </policy>\n" +
                 POLICIES + "</rules>\n")
        super().configure(sections, rules=rules, **others)

    def passed(self, content, recipient=STAFF):
        """What the recipient gets of this message."""
        before = len(self.sink.messages)
        self.assertRegex(self.client().mail(content, [recipient]), r"^250 ")
        return self.content_of(self.sink.wait_messages(before + 1)[-1])

    def changed(self, content, recipient=STAFF):
        """The parts that are different on arrival: what they are then."""
        before, after = tree(content), tree(self.passed(content, recipient))
        self.assertEqual(list(before), list(after))
        return {path: part for path, part in after.items() if part != before[path]}


class Disclaimers(DisclaimerCase):
    def test_each_recipient_gets_what_the_identity_has_and_the_infected_file_goes_nowhere(self):
        self.begin()
        self.provokes(CLEANED)
        binary = bytes(range(256)) * 3
        content = mail(mixed(forms(), file("eicar.com", EICAR), file("a.bin", binary)), "A preamble.\r\n", "An epilogue.\r\n")
        self.assertRegex(self.client().mail(content, [STAFF, BOARD]), r"^250 ")
        arrived = {one.recipients[0]: self.content_of(one) for one in self.sink.wait_messages(2)}
        alert = ("text/plain", "eicar.com.txt", "eicar.com was taken out (EICAR-Test-File): Vorsicht, Übel.")
        before = tree(content)
        for recipient, texts in ((STAFF, ["0.0.0", "0.0.1"]), (BOARD, [])):
            after = tree(arrived[recipient])
            self.assertEqual([path for path in after if after[path] != before[path]], [*texts, "0.1"])
            self.assertEqual((*after["0.1"][:2], after["0.1"][2].rstrip()), alert)
            self.assertIn(b"\r\nA preamble.\r\n", arrived[recipient])
            self.assertTrue(arrived[recipient].endswith(b"--\r\nAn epilogue.\r\n"))
            files = unpacked(arrived[recipient])
            self.assertEqual(files["a.bin"], binary)
            self.assertEqual(files["eicar.com.txt"].decode().rstrip(), alert[2])
            self.assertNotIn("eicar.com", files)
        plain, page = tree(arrived[STAFF])["0.0.0"][2], tree(arrived[STAFF])["0.0.1"][2]
        self.assertEqual(plain.replace("\r\n", "\n"), f"Hello, grüße.\n\n{TEXT}\n")
        self.assertIn(PAGE, page)
        self.assertLess(page.index(PAGE), page.index("</body>"))
        self.assert_conserved_twice()
        self.assertEqual(self.counters("smtp.disclaimers.")["added"], 1)

    def assert_conserved_twice(self):
        self.assertEqual(self.counted(), {"asked": 2, "clean": 0, "acted": 2, "failed": 0, "null": 0})

    def test_a_disclaimer_is_no_finding(self):
        self.begin()
        self.changed(mail(text("Hello.\n")))
        self.assert_conserved(clean=1)
        self.assertEqual(self.counters("smtp.disclaimers.")["added"], 1)

    def test_signed_mail_arrives_as_it_was_and_the_log_says_so(self):
        self.begin()
        self.provokes(SIGNED)
        signature = file("signature.asc", "-----BEGIN PGP SIGNATURE-----\n")
        contents = [mail(mixed(text("Hello.\n"), signature, subtype="signed")),
                    mail(text("-----BEGIN PGP SIGNED MESSAGE-----\n\nHello.\n", cte="7bit")),
                    mail(file("smime.p7m", "secret"))]
        for content in contents:
            self.assertEqual(self.passed(content), content)
        told = [one["values"]["description"] for one in self.noted(SIGNED, len(contents))]
        self.assertEqual(told, ["left alone: signed mail", "left alone: PGP", "left alone: S/MIME"])
        self.assert_conserved(clean=len(contents))

    def test_an_answer_does_not_get_it_again(self):
        self.begin()
        first = self.passed(mail(mixed(forms(), subtype="mixed")))
        self.assertEqual(self.passed(first), first)
        quoted = mail(text("Yes.\n\n> " + TEXT.replace(" ", "\n> ") + "\n"))
        self.assertEqual(self.passed(quoted), quoted)
        self.assertEqual(self.counters("smtp.disclaimers.")["added"], 1)

    def test_mail_without_a_text_stays_as_it_is(self):
        self.begin()
        self.provokes(NO_TEXT)
        content = mail(mixed(file("a.bin", b"1"), file("b.txt", b"2")))
        self.assertEqual(self.passed(content), content)
        self.noted(NO_TEXT)

    def test_texts_of_every_charset_and_encoding_are_read_with_it(self):
        self.begin()
        for charset in ("us-ascii", "utf-8", "iso-8859-1", "iso-8859-5", "windows-1252", "koi8-r", "shift_jis"):
            words = "Hello.\n" if charset == "us-ascii" else "Привет.\n" if charset in ("iso-8859-5", "koi8-r") else "Hello!\n"
            for cte in ("7bit" if charset == "us-ascii" else "quoted-printable", "base64"):
                with self.subTest(charset=charset, cte=cte):
                    found = self.changed(mail(mixed(text(words, charset=charset, cte=cte), file("a", b"x"))))
                    self.assertEqual(list(found), ["0.0"])
                    self.assertEqual(found["0.0"][2].replace("\r\n", "\n"), f"{words}\n{TEXT}\n")

    def test_a_message_inside_loses_its_infected_part_and_keeps_its_text(self):
        self.begin()
        self.provokes(CLEANED)
        inner = email.message_from_bytes(mail(mixed(text("Inside.\n"), file("e.com", EICAR))), policy=email.policy.SMTP)
        wrapped = email.message.EmailMessage(email.policy.SMTP)
        wrapped.set_content(inner)
        del wrapped["MIME-Version"]
        found = self.changed(mail(mixed(text("Outside.\n"), wrapped)))
        self.assertEqual(list(found), ["0.0", "0.1.0.1"])
        self.assertEqual(found["0.1.0.1"][1], "e.com.txt")

    def test_a_mail_that_is_infected_itself_becomes_the_alert(self):
        self.begin()
        self.provokes(CLEANED, UNCHANGED, NO_TEXT)
        for content in (mail(text(EICAR + "\n")), mail(file("e.com", EICAR))):
            message = parsed(self.passed(content))
            self.assertEqual((message["Subject"], message.get_content_type()), ("test", "text/plain"))
            self.assertIn("was taken out (EICAR-Test-File)", message.get_content())
            self.assertNotIn("Example Ltd", message.get_content())


class FullDisk(OnAFullDisk, DisclaimerCase):
    largest = LARGEST

    def test_a_mail_that_cannot_be_written_with_it_is_deferred(self):
        self.begin(scanning={"MaxScanMem": 16})
        self.provokes(DEFERRED, SCAN_FAILED, SPOOL_FAILED, ENGINE_FAILED)
        client, answers = self.client(), []
        for size in range(LARGEST - 800, LARGEST + 1, 40):
            head = b"Subject: test\r\n\r\n"
            lines, tail = divmod(size - len(head), 72)
            answers.append(client.mail(head + (b"z" * 70 + b"\r\n") * lines + b"z" * tail + b"\r\n")[:9])
        self.assertEqual(sorted(set(answers)), ["250 2.0.0", "451 4.7.1", "452 4.3.1"])
        self.assert_conserved(clean=answers.count("250 2.0.0"), failed=answers.count("451 4.7.1"))
        for stored in self.sink.messages:
            self.assertIn(TEXT, email.message_from_bytes(stored.content, policy=email.policy.default).get_content())


if __name__ == "__main__":
    unittest.main()
