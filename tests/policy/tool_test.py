"""velt-policy asks a real directory where a condition wants to know, and says what it was told."""
import json
import os
import pathlib
import subprocess
import tempfile
import time
import unittest

import harness
from harness.basics import free_ports
from harness.directory import Slapd

TOOL = os.environ["VELT_POLICY"]
RULES = '<rules><policy name="content_in"><identity name="sales"/><identity name="rest"/></policy></rules>'
IDENTITIES = ('<identities><identity name="sales">efrom IS "boss@*" or eto IN "127.0.0.1.sales"</identity>\n'
              '<identity name="rest">eto IS "*"</identity></identities>')


class Tool(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.write("rules.xml", RULES)
        self.write("identities.xml", IDENTITIES)
        self.write("outside.txt", "NETWORK *\n")

    def write(self, name, text):
        path = self.folder / "config/qxxmlconf" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def directory(self, host):
        self.write("ldap.txt", f"server\nldapserver {host}\nbase dc=example,dc=test\n"
                               f"userquery (mail=?):departmentNumber\n")

    def slapd(self):
        made = Slapd()
        self.addCleanup(made.close)
        self.directory(made.host)
        return made

    def run_tool(self, *arguments, text=""):
        done = subprocess.run([TOOL, *arguments, self.folder], input=text, capture_output=True, text=True,
                              timeout=harness.bound(60))
        self.assertEqual(done.returncode, 0, done)
        return done

    def explain(self, recipient, sender=""):
        return self.run_tool("explain", "--from", "192.0.2.1", "--rcpt", recipient, "--sender", sender).stdout

    def test_groups_are_asked_of_the_directory(self):
        self.slapd()
        ann, bob = self.explain("ann@example.test"), self.explain("bob@example.test")
        self.assertIn("identity   sales\ngroups     of the recipient: 127.0.0.1.sales, 127.0.0.1.staff\n", ann)
        self.assertIn("identity   rest\ngroups     of the recipient: none\n", bob)

    def test_a_directory_is_asked_only_where_a_condition_wants_to_know(self):
        directory = self.slapd()
        before = directory.searches()
        self.assertNotIn("groups", self.explain("ann@example.test", "boss@example.test"))
        self.assertEqual(directory.searches(), before)

    def test_it_says_so_when_the_directory_cannot_be_asked(self):
        self.directory(f"127.0.0.1:{free_ports(1)[0]}")
        said = self.explain("ann@example.test")
        self.assertIn("identity   rest\ngroups     of the recipient: the directory could not be asked\n", said)

    def test_a_batch_asks_for_each_query(self):
        self.slapd()
        queries = [{"from": "192.0.2.1", "rcpt": f"{name}@example.test"} for name in ("ann", "bob", "ann")]
        done = self.run_tool("explain", "--batch", text="".join(json.dumps(one) + "\n" for one in queries))
        answers = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual([one["identity"] for one in answers], ["sales", "rest", "sales"])
        self.assertEqual(answers[0]["rule"]["text"], 'eto IN "127.0.0.1.sales"')

    def batch(self):
        """The tool, and a function that gives its answer to a query."""
        tool = subprocess.Popen([TOOL, "explain", "--batch", self.folder], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, bufsize=1)
        self.addCleanup(tool.wait)
        self.addCleanup(tool.stdout.close)
        self.addCleanup(tool.stdin.close)

        def ask(**query):
            tool.stdin.write(json.dumps({"from": "192.0.2.1", **query}) + "\n")
            return json.loads(tool.stdout.readline())
        return ask

    def test_a_batch_answers_each_query_when_it_comes(self):
        ask = self.batch()
        self.assertEqual(ask(sender="boss@a.test", groups=[])["identity"], "sales")
        self.assertEqual(ask(sender="", groups=[])["identity"], "rest")

    def test_a_batch_survives_the_end_of_the_directory(self):
        directory = self.slapd()
        ask = self.batch()
        self.assertEqual(ask(rcpt="ann@example.test")["identity"], "sales")
        directory.stop()
        for _ in range(3):
            self.assertEqual(ask(rcpt="ann@example.test")["identity"], "rest")
        directory.start()
        self.assertEqual(ask(rcpt="ann@example.test")["identity"], "sales")

    def test_many_queries_of_many_identities_are_answered_fast(self):
        count = 10_000 if harness.FULL else 1_000
        names = [f"customer{number}" for number in range(100)]
        self.write("rules.xml", '<rules><policy name="content_in">' + "".join(
            f'<identity name="{name}"><settings section="KORFormatScanner"><set name="MaxDepth">{number}</set></settings>'
            "</identity>" for number, name in enumerate(names)) + "</policy></rules>")
        self.write("identities.xml", "<identities>" + "".join(
            f'<identity name="{name}">eto IS "*@{name}.test" and con FROM "192.0.2.0/24"</identity>'
            for name in names) + "</identities>")
        queries = "".join(json.dumps({"from": "192.0.2.1", "rcpt": f"a@{names[number % 100]}.test",
                                      "setting": "KORFormatScanner/MaxDepth"}) + "\n" for number in range(count))
        begin = time.monotonic()
        done = self.run_tool("explain", "--batch", text=queries)
        seconds = time.monotonic() - begin
        answers = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual([one["value"] for one in answers], [str(number % 100) for number in range(count)])
        print(f"{count} queries of 100 identities: {seconds:.2f} s in all, {done.stderr.strip()}")


if __name__ == "__main__":
    unittest.main()
