"""Five hundred mails of every shape: what is planted in them is found, each in its context, and nothing else; and where
a part is replaced, every other one stays as it was."""
import email
import os
import unittest
from xml.sax.saxutils import quoteattr

import corpus
from scan_case import ScanCase

SEED = int(os.environ.get("SEED", 20261122))
COUNT = 500
ALERT = "Taken out."


def rules():
    return "".join(f'<rule name="{corpus.rule(context, phrase)}" where="{context}" match={quoteattr(phrase)} action="LOG"/>'
                   for context in corpus.CONTEXTS for phrase in corpus.NUMBERS)


def leaves(content):
    """{number: fields and body} of the parts that have one, and how many have none."""
    known, others = {}, []
    def walk(part):
        if part.is_multipart():
            for one in part.get_payload():
                walk(one)
            return
        shown = (part.items(), part.get_payload())
        if part["X-Part"] and part.get_content_maintype() != "message":
            known[int(part["X-Part"])] = shown
        else:
            others.append(shown)
    walk(email.message_from_bytes(content))
    return known, others


class Corpus(ScanCase):
    def setUp(self):
        super().setUp()
        self.mails = corpus.mails(SEED, COUNT)
        self.policy(f'<settings section="KORContentScanner">{rules()}</settings>'
                    f'<settings section="KORAVScanner"><set name="Action">REPLACE</set><set name="AlertText">{ALERT}</set>'
                    "</settings>")
        (self.folder / "out").mkdir()
        self.result = self.scan({mail.name: mail.content for mail in self.mails}, output=self.folder / "out")
        print(f"{COUNT} mails, {sum(mail.parts for mail in self.mails)} parts, "
              f"{sum(len(mail.planted) for mail in self.mails)} phrases, {sum(mail.infections for mail in self.mails)} viruses: "
              f"{self.result.seconds:.2f} s", flush=True)

    def output(self, mail):
        return (self.folder / "out" / mail.name).read_bytes()

    def check_found(self, mail):
        verdict = self.result.verdicts[mail.name]
        self.assertEqual(verdict["errors"], [])
        names = {"KORContentScanner": set(), "KORAVScanner": set()}
        for finding in verdict["findings"]:
            names.setdefault(finding["engine"], set()).update(finding["names"] or [finding["text"]])
        phrases = names.pop("KORContentScanner")
        self.assertEqual(mail.planted - phrases, set(), "are not found")
        self.assertEqual(phrases - mail.planted - mail.maybe, set(), "are not there")
        self.assertEqual(names.pop("KORAVScanner"), {"EICAR-Test-File"} if mail.infections else set())
        self.assertEqual(names, {}, "nothing else is found")
        if not (mail.zipped and mail.unended):
            self.assertEqual(verdict["rewritten"], bool(mail.infections))

    def check_output(self, mail):
        if self.result.verdicts[mail.name]["action"] == "DENY":
            self.assertFalse((self.folder / "out" / mail.name).exists())
            return
        if not mail.infections:
            self.assertEqual(self.output(mail), mail.content)
            return
        before, _ = leaves(mail.content)
        after, others = leaves(self.output(mail))
        # A message whose only part was replaced has its fields still.
        alerts = [number for number, (_, payload) in after.items() if ALERT in payload]
        self.assertTrue(alerts or any(ALERT in payload for _, payload in others))
        for number in alerts:
            del after[number]
        self.assertEqual(set(before) - set(after), mail.infected & set(before))
        self.assertEqual(after, {number: part for number, part in before.items() if number in after})
        self.assertNotIn(b"EICAR", self.output(mail))

    def check_cleaned(self):
        """Once more, nothing but phrases is found in what was made."""
        made = [self.folder / "out" / mail.name for mail in self.mails if self.result.verdicts[mail.name]["rewritten"]]
        for name, verdict in self.scan(*made).verdicts.items():
            with self.subTest(name):
                self.assertEqual(verdict["errors"], [])
                self.assertLessEqual({finding["engine"] for finding in verdict["findings"]}, {"KORContentScanner"})

    def test_what_is_planted_is_found_and_what_is_clean_stays(self):
        self.assertEqual(len(self.result.verdicts), COUNT)
        for mail in self.mails:
            with self.subTest(mail.name):
                self.check_found(mail)
                self.check_output(mail)
        self.check_cleaned()


if __name__ == "__main__":
    unittest.main()
