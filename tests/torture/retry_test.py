"""A retryer while calls of the system fail in its worker: work that waits is done once calls go through again, and not
before it was noted; no descriptor is lost, and no lock that another retryer would wait for."""
import collections
import os
import pathlib
import sys
import unittest

import harness
import torture_case

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "runtime"))

import retryer_case  # noqa: E402

DEADLY = {"memory", "thread"}  # a worker does not survive to be without
MOST = 1 if harness.SANITIZED else 2  # calls of one kind that fail, each with each error, where not all do


class Retry(retryer_case.RetryerCase):
    def setUp(self):
        super().setUp()
        self.plan = torture_case.Plan()
        self.addCleanup(self.plan.close)
        for event in (retryer_case.NO_DIRECTORY, retryer_case.NO_FILE):
            self.expect(*event, at_least=0)
        self.retry(RetryInterval=1, MaxConncurrent=2)
        self.wait_worker()
        self.number = 0
        self.files = []

    def launch(self, options=("-d",), arguments=(), environment=None):
        return super().launch(options, arguments, {**(environment or {}), **self.plan.environment})

    def work(self):
        """Three files: one that succeeds at once, one that rests before, and one that stays as it is before."""
        self.number += 1
        return [self.put(f"{name}{self.number}", *words) for name, words in
                (("once", ["done"]), ("rests", ["done", "later"]), ("stays", ["done", "again"]))]

    def walked(self, worker):
        """Whether a walk of this worker has ended since the plan was armed: it then waits for the next one."""
        return self.plan.calls()["poll"] > 0 or not self.root.runs(worker)

    def verdict_of(self, injection):
        """Whether the worker has come through. What becomes of the work is judged at the end: it may take some walks."""
        [worker] = self.wait_worker()
        self.plan.write(*injection, process=worker, armed=True)
        self.files += self.work()
        harness.wait_until(lambda: self.walked(worker), f"a walk with {injection}")
        self.plan.arm(False)
        if self.root.runs(worker):
            return "right"
        self._expected.replaced()
        return "the worker has died"

    def not_done(self):
        """Files that have gone without a note that their work was done."""
        done = {note.id for note in self.journal() if note.what == "done"}
        return sorted({file.stem for file in self.files} - done)

    def calls_of(self):
        [worker] = self.wait_worker()
        self.plan.write(process=worker, armed=True)
        for file in self.work():
            harness.wait_until(lambda: not file.exists(), "work that is done")
        calls = self.plan.calls()
        self.plan.arm(False)
        return calls

    def torture(self, without, dies=False):
        calls = {kind: count for kind, count in self.calls_of().items() if kind not in without}
        print(f"\n  calls: {calls}", end="", flush=True)
        before = len(harness.descriptors(self.workers()[0]))
        verdicts = {injection: self.verdict_of(injection) for injection in torture_case.injections(calls, MOST)}
        counts = collections.Counter((injection.kind, verdict) for injection, verdict in verdicts.items())
        print("".join(f"\n  {kind} {verdict}: {count}" for (kind, verdict), count in counts.items()), end="", flush=True)
        harness.wait_until(lambda: not any(map(os.path.exists, self.files)), "the end of all work", 2 * harness.LIMIT)
        self.assertEqual(self.not_done(), [])
        if not dies:
            self.assertEqual({str(one): verdict for one, verdict in verdicts.items() if verdict != "right"}, {})
            [worker] = self.wait_worker()
            harness.wait_until(lambda: len(harness.descriptors(worker)) <= before, "no descriptor too many")

    def test_work_is_done_once_calls_go_through_again(self):
        self.torture(without=DEADLY)

    @unittest.skipIf("memory" in torture_case.UNFIT, "a sanitizer has memory of its own")
    def test_work_is_done_by_the_next_worker_where_memory_runs_out(self):
        self.expect(10000, 54)
        self.torture(without=set(torture_case.KINDS) - {"memory"}, dies=True)


if __name__ == "__main__":
    unittest.main()
