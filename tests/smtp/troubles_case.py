"""What the scenarios of trouble around a retryer share: mail that arrives in the end, and a retryer that can do nothing."""
import os
import pathlib
import time

import harness
from deferred_case import DeferredCase, message_id, numbered

WALKS = 10 if harness.FULL else 2  # that are looked at while nothing can be done
BUSY = 0.2  # of a processor, which a walk each second stays far below


def cpu_of(pids):
    """Seconds."""
    fields = [pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split() for pid in pids]
    return sum(int(one[11]) + int(one[12]) for one in fields) / os.sysconf("SC_CLK_TCK")


class TroublesCase(DeferredCase):
    def keep(self, *numbers):
        """Mails that wait, and their files."""
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        client = self.client()
        for number in numbers:
            self.assertRegex(client.mail(numbered(number)), r"^250 ")
        client.close()
        self.sink.replies = {}
        return [self.directory / name for name in self.waiting()]

    def numbers(self):
        return sorted(message_id(one.content) for one in self.sink.messages)

    def assert_arrived(self, *numbers):
        self.sink.wait_messages(len(numbers))
        self.wait_empty()
        self.assertEqual(self.numbers(), sorted(f"<{number}@outside.example>".encode() for number in numbers))

    def assert_at_rest(self, retryer, event, files=1):
        """While nothing can be done that is reported once a walk for each file, and the processor is left alone."""
        self.wait_event(*event, count=len(self.events(*event)) + files)
        before, begin, cpu = len(self.events(*event)), time.monotonic(), cpu_of(retryer.workers())
        self.wait_event(*event, count=before + files * WALKS)
        took = time.monotonic() - begin
        self.assertLess(len(self.events(*event)) - before, files * (2 * took + 3), "there is a walk each second")
        used = cpu_of(retryer.workers()) - cpu
        print(f"\n  {used:.2f} s of a processor in {took:.1f} s", end="", flush=True)
        self.assertLess(used, BUSY * (took + 1) * (10 if harness.SANITIZED else 1))

    def finding(self, event):
        return {one["values"]["smtp_finding"].split(": ")[-1] for one in self.wait_event(*event)}
