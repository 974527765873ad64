"""The mail gateway while calls of the system fail in its worker: a mail that the client may forget has arrived whole,
and none arrives in part."""
import collections
import os
import pathlib
import sys
import threading
import unittest

import harness
import torture_case

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import smtp_case  # noqa: E402

DEADLY = {"memory", "thread"}  # a worker does not survive to be without
UNREADY = {*DEADLY, "name"}  # a spool file that cannot be removed is left for the sweep
WHILE_FAILING = 1.0  # seconds after which calls go through again
MOST = 2 if harness.SANITIZED else 4  # calls of one kind that fail, each with each error, where not all do
SMALL = smtp_case.body("".join(f".{number} {'y' * number}\r\n" for number in range(50)))
LARGE = smtp_case.body("".join(f".{number} {'x' * (number % 70)}\r\n" for number in range(200)))  # on disk


class Gateway(smtp_case.SmtpCase):
    def setUp(self):
        super().setUp()
        self.plan = torture_case.Plan()
        self.addCleanup(self.plan.close)
        self.begin(smtp={f"Upstream{stage}Timeout": 3 for stage in ("Greeting", "Command", "Data", "Block", "Final")},
                   scanning={"MaxScanMem": 4})
        self.died = False  # a worker, whose spool files the next start of the gateway removes
        for number in (10002, 12000, 60000, 180007):  # failures, as they come
            self.expect(number, at_least=0)
        self.serve()

    def launch(self, options=("-d",), arguments=(), environment=None):
        return super().launch(options, arguments, {**(environment or {}), **self.plan.environment})

    def reply_to(self, content):
        """The reply to the mail; "" where the gateway has closed. Calls go through again after a while."""
        passing = threading.Timer(WHILE_FAILING, self.plan.arm, (False,))
        passing.start()
        try:
            return self.talk(content)
        except ConnectionError:
            return ""
        finally:
            passing.cancel()
            passing.join()
            self.plan.arm(False)

    def talk(self, content):
        client = smtp_case.Client(self.port)
        try:
            return client.mail(content) if client.greeting.startswith("220") else client.greeting
        finally:
            client.close()

    def serve(self, content=SMALL):
        harness.wait_until(lambda: self.verdict_of_mail(content) == "right", "a mail that is taken")

    def verdict_of_mail(self, content):
        before = len(self.sink.messages)
        reply = self.reply_to(content)
        arrived = [self.content_of(stored) for stored in self.sink.messages[before:]]
        if any(one != content for one in arrived):
            return "false: a part has arrived"
        if not reply.startswith("250"):
            return "refused"
        return "right" if len(arrived) == 1 else f"false: taken, and arrived {len(arrived)} times"

    def verdict_of(self, injection, content):
        [worker] = self.wait_worker()
        before = len(harness.descriptors(worker))
        self.plan.write(*injection, process=worker, armed=True)
        verdict = self.verdict_of_mail(content)
        self.serve()
        if not self.root.runs(worker):
            self._expected.replaced()
            self.died = True
            return verdict if injection.kind in DEADLY else "the worker has died"
        harness.wait_until(lambda: len(harness.descriptors(worker)) <= before, f"no descriptor left by {injection}")
        return verdict

    def calls_of(self, content):
        [worker] = self.wait_worker()
        self.plan.write(process=worker, armed=True)
        self.assertEqual(self.verdict_of_mail(content), "right", "when nothing fails")
        return self.plan.calls()

    def torture(self, content, without):
        calls = {kind: count for kind, count in self.calls_of(content).items() if kind not in without}
        print(f"\n  calls: {calls}", end="", flush=True)
        verdicts = {injection: self.verdict_of(injection, content)
                    for injection in torture_case.injections(calls, MOST)}
        counts = collections.Counter((injection.kind, verdict) for injection, verdict in verdicts.items())
        print("".join(f"\n  {kind} {verdict}: {count}" for (kind, verdict), count in counts.items()), end="", flush=True)
        wrong = [f"{injection}: {verdict}" for injection, verdict in verdicts.items()
                 if verdict not in ("right", "refused")]
        self.assertFalse(wrong, "violations:\n" + "\n".join(wrong))
        self.assertIn("refused", verdicts.values())
        if not self.died:
            self.assert_nothing_left()

    def test_small_mail_that_is_taken_has_arrived_whole(self):
        self.torture(SMALL, without=UNREADY)

    def test_large_mail_that_is_taken_has_arrived_whole(self):
        self.torture(LARGE, without=UNREADY)

    @unittest.skipIf("memory" in torture_case.UNFIT, "a sanitizer has memory of its own")
    def test_mail_that_is_taken_has_arrived_whole_where_memory_runs_out(self):
        self.torture(LARGE, without=set(torture_case.KINDS) - {"memory"})


if __name__ == "__main__":
    unittest.main()
