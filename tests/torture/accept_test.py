"""A gateway that accepts clients while calls of the system fail in its worker.

The client says all its lines, and has its answers or is cut off; whatever failed, the next client is served, and by the
same worker unless there was no memory or no thread, which a worker does not survive."""
import collections
import contextlib
import os
import socket
import time
import unittest

import harness
import torture_case

LINES = "".join(f"{number} {'x' * 40 * number}\r\n" for number in range(15)).encode()
WHILE_FAILING = 1.0  # seconds that a client waits before calls go through again
DEADLY = {"memory", "thread"}
BUSY = 4  # clients; more than a worker has threads by then
MOST = 4 if harness.SANITIZED else 6  # calls of one kind that fail, each with each error, where not all do


class Client:
    """Says all its lines at once, and takes what comes."""

    def __init__(self, port):
        self._socket = socket.create_connection((harness.SERVER, port), harness.LIMIT, (harness.CLIENT, 0))
        with contextlib.suppress(OSError):  # cut off already
            self._socket.sendall(LINES)
            self._socket.shutdown(socket.SHUT_WR)
        self._got = b""

    def close(self):
        self._socket.close()

    def ends_within(self, limit):
        """Takes what comes for so many seconds; true where the other side has ended."""
        deadline = time.monotonic() + limit
        while (left := deadline - time.monotonic()) > 0:
            self._socket.settimeout(left)
            try:
                block = self._socket.recv(65536)
            except TimeoutError:
                return False
            except ConnectionError:
                return True
            if not block:
                return True
            self._got += block
        return False

    def verdict(self):
        if self._got == LINES:
            return "right"
        return "refused" if LINES.startswith(self._got) else f"false: {len(self._got)} bytes that were not sent so"


class Accept(harness.DaemonCase):
    program = os.environ.get("VELT_ECHO")
    proxy = "echo"
    refusal_is_death = DEADLY  # where it is, the worker may still be on its way out when its client has been cut off

    def setUp(self):
        super().setUp()
        self.plan = torture_case.Plan()
        self.addCleanup(self.plan.close)

    def start_gateway(self, **process):
        self.configure(self.settings(network={"MaxConnections": 8, "PermThreads": 1, "Timeout": 5}, process=process))
        self.launch(environment=self.plan.environment)
        self.wait_worker()
        self.serve()

    def serve(self):
        """The next client that comes has all its answers."""
        harness.wait_until(lambda: self.converse() == "right", "a client that is served")

    def converse(self, patience=WHILE_FAILING):
        """Calls go through again when the client has been waiting for so long."""
        client = Client(self.port)
        try:
            ended = client.ends_within(patience)
            self.plan.arm(False)
            return client.verdict() if ended or client.ends_within(harness.LIMIT) else "hung"
        finally:
            client.close()

    def calls_of_session(self, worker):
        self.plan.write(process=worker, armed=True)
        self.assertEqual(self.converse(harness.LIMIT), "right", "when nothing fails")
        return self.plan.calls()

    def descriptors_of(self, worker):
        return len(harness.descriptors(worker))

    def verdict_of(self, injection):
        [worker] = self.wait_worker()
        before = self.descriptors_of(worker)
        self.plan.write(*injection, process=worker, armed=True)
        verdict = self.converse()
        if verdict == "refused" and injection.kind in self.refusal_is_death:
            harness.wait_until(lambda: not self.root.runs(worker), f"the worker's end by {injection}")
        self.serve()
        if not self.root.runs(worker):
            self._expected.replaced()
            return verdict if injection.kind in DEADLY else "the worker has died"
        harness.wait_until(lambda: self.descriptors_of(worker) <= before, f"no descriptor left by {injection}")
        return verdict

    def torture(self, kinds, told=()):
        """Answers are false with the kinds `told`, and with each of them; nothing else is not well."""
        [worker] = self.wait_worker()
        calls = {kind: count for kind, count in self.calls_of_session(worker).items() if kind in kinds}
        for kind in kinds:
            self.assertTrue(calls[kind], f"a session makes no call of {kind}")
        verdicts = {injection: self.verdict_of(injection) for injection in torture_case.injections(calls, MOST)}
        counts = collections.Counter((injection.kind, verdict.split(":")[0]) for injection, verdict in verdicts.items())
        print("".join(f"\n  {kind} {verdict}: {count}" for (kind, verdict), count in counts.items()), end="", flush=True)
        wrong = {injection: verdict for injection, verdict in verdicts.items() if verdict not in ("right", "refused")}
        left = [f"{injection}: {verdict}" for injection, verdict in wrong.items()
                if injection.kind not in told or not verdict.startswith("false")]
        self.assertFalse(left, "violations:\n" + "\n".join(left))
        self.assertEqual({injection.kind for injection in wrong}, set(told))


class Threaded(Accept):
    def setUp(self):
        super().setUp()
        self.start_gateway()

    def test_session_is_whole_or_cut_off_when_its_calls_fail(self):
        self.torture(["accept", "read", "write", "close"])

    def test_answer_whose_wait_fails_is_missing_and_the_session_goes_on(self):
        """The gateway sends by PutLine, which counts a line as sent whose wait failed."""
        self.torture(["poll"], told=["poll"])

    @unittest.skipIf("memory" in torture_case.UNFIT, "a sanitizer has memory of its own")
    def test_worker_without_memory_dies_and_another_one_serves(self):
        self.torture(["memory"])


class Forked(Accept):
    refusal_is_death = ()  # the process of the session is what dies

    def setUp(self):
        super().setUp()
        self.start_gateway(ForkedModel=True)

    def test_session_is_whole_or_cut_off_when_its_calls_fail(self):
        self.torture(["accept", "read", "write", "fork", "close"])

    def test_answer_whose_wait_fails_is_missing_and_the_session_goes_on(self):
        self.torture(["poll"], told=["poll"])

    @unittest.skipIf("memory" in torture_case.UNFIT, "a sanitizer has memory of its own")
    def test_process_without_memory_dies_and_another_one_serves(self):
        self.torture(["memory"])


class Threads(Accept):
    def test_worker_that_cannot_start_a_thread_dies_and_another_one_serves(self):
        """All threads that a worker has are busy: the next session needs another."""
        self.start_gateway()
        for injection in torture_case.injections({"thread": 1}, MOST):
            [worker] = self.wait_worker()
            for _ in range(BUSY):
                self.assertEqual(self.connect().ask("busy"), "busy")
            self.assertEqual(self.verdict_of(injection), "refused")


if __name__ == "__main__":
    unittest.main()
