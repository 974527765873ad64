"""What the scenarios of velt-queue share: a gateway that holds mail, and the tool beside it."""
import json
import os
import re
import subprocess

from crash_case import CrashCase
from deferred_case import NO_FILE, QUARANTINED, RELEASED
from smtp_case import PHRASE, RULE_HIT, body

TOOL = os.environ["VELT_QUEUE"]


class QueueCase(CrashCase):
    phrase = "QUARANTINE"
    COUNT = 24

    def command(self, *words):
        return [TOOL, "--root", str(self.root.path), *words]

    def queue(self, *words, status=0, environment=None):
        """What it says in JSON."""
        done = subprocess.run(self.command("--json", *words), capture_output=True, text=True, check=False,
                              env={**os.environ, **(environment or {})})
        self.assertEqual(done.returncode, status, done)
        return [json.loads(line) for line in done.stdout.splitlines()]

    def queue_that(self, environment, *words):
        """The tool with its calls watched, whatever becomes of it."""
        subprocess.run(self.command(*words), env={**os.environ, **environment, "VELT_ROOT": str(self.root.path)},
                       check=False, capture_output=True)

    def hold(self, content=None):
        before = set(self.held())
        client = self.client()
        self.assertRegex(client.mail(content or body(PHRASE)), r"^250 ")
        client.close()
        (name,) = set(self.held()) - before
        return name.removesuffix(".rmd")

    def assert_delivered_once_by_two_tools_and_two_retryers(self):
        self.begin()
        self.provokes(RULE_HIT, QUARANTINED, RELEASED)
        self.expect(*NO_FILE, at_least=0)
        for number in range(self.COUNT):
            self.hold(f"Subject: {number}\r\n\r\n{PHRASE}\r\n".encode())
        self.retryer()
        self.retryer(name="smtp-retryer2")
        both = [subprocess.Popen(self.command("--json", "release", "--all"), stdout=subprocess.PIPE, text=True)
                for _ in range(2)]
        done = [json.loads(line)["id"] for one in both for line in one.communicate()[0].splitlines()
                if json.loads(line)["done"]]
        self.assertEqual((len(done), len(set(done))), (self.COUNT, self.COUNT))
        self.sink.wait_messages(self.COUNT)
        self.wait_empty()
        subjects = sorted(int(re.search(rb"Subject: (\d+)", one.content)[1]) for one in self.sink.messages)
        self.assertEqual(subjects, list(range(self.COUNT)))
        self.assertEqual(self.held(), [])
