"""Workers are replaced under load for each of the causes there are: no client is refused, cut or left without an answer,
and each of their sessions ran once."""
import collections
import json
import os
import signal
import subprocess
import unittest

import greeter_case
import harness

LOAD, COUNTERS = os.environ.get("VELT_LOAD"), os.environ.get("VELT_COUNTERS")
RATE = 300  # new connections a second, where the machine is quick enough
CLIENTS = 16  # at once: fewer than a listening socket queues, as what is beyond that the system may drop or reset
REPLACEMENTS = greeter_case.size(4, 40)  # for each cause
LIMIT = 600  # seconds; a load that nobody ends has ended then
FORKED, COUNT, MEMORY = (10000, 54), (10000, 71), (10000, 70)


class Load:
    """velt_load's clients; .result is what they saw, once they have ended."""

    def __init__(self, port, failures):
        self.failures = failures
        self.command = [LOAD, "connect", "--to", f"{harness.SERVER}:{port}", "--rate", str(RATE), "--clients",
                        str(CLIENTS), "--seconds", str(LIMIT), "--log-failures", str(failures)]

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE, text=True)
        harness.wait_until(self.failures.exists, "the clients")  # they heed a signal from then on
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        self.result = json.loads(self.process.communicate(timeout=2 * harness.LIMIT)[0])


class Recycling(harness.DaemonCase):
    program = os.environ.get("VELT_ECHO")
    proxy = "recycled"

    def configure(self, *arguments, **more):
        """Of the sessions nothing is reported: only what the processes tell of themselves is read here."""
        super().configure(*arguments, **more)
        file = self.root.path / f"config/qxxmlconf/{self.proxy}-logging.xml"
        file.write_text(file.read_text().replace(
            "</logging>", '<events default="off"><event number="10000" switch="on"/></events></logging>'))

    def serve(self, workers=2, **process):
        self.workers = workers
        self.daemon = self.start(network={"AcceptCount": workers, "MaxConnections": 8}, process=process)
        return Load(self.port, self.root.path / "failures")

    def counters(self):
        shown = subprocess.run([COUNTERS, "--json", self.proxy], check=True, capture_output=True,
                               env={**os.environ, "VELT_ROOT": str(self.root.path)}).stdout
        return collections.Counter(json.loads(shown)["counters"])

    def wait_replaced(self, cause, count=REPLACEMENTS):
        """Waits until so many more workers have left for this reason, and as many have begun."""
        left, begun = len(self.events(*cause)), len(self.events(*FORKED))
        self.wait_event(*cause, count=left + count, limit=LIMIT)
        self.wait_event(*FORKED, count=begun + count, limit=LIMIT)

    def hang_up(self):
        """One worker leaves, and waits for nobody: the next is asked once this one's successor runs."""
        reported = len(self.events(*FORKED))
        oldest = next(event["values"]["velt_pid"] for event in self.events(*FORKED)
                      if event["values"]["velt_pid"] in self.daemon.workers())
        self.expect_end(oldest)
        os.kill(oldest, signal.SIGHUP)
        self.wait_event(*FORKED, count=reported + 1)
        self.wait_gone(oldest)

    def assert_nobody_noticed(self, load, count=0, memory=0, hangups=0):
        """No session failed, and each worker that left for a reason of its own was reported and counted."""
        self.assertEqual(set(load.result["failed"].values()), {0}, load.result)
        self.stop()
        retired, outgrown, begun = (len(self.events(*event)) for event in (COUNT, MEMORY, FORKED))
        counters = self.counters()
        self.assertEqual([counters[name] for name in ("recycle.con", "recycle.mem", "forks")],
                         [retired, outgrown, begun])
        self.assertGreaterEqual(retired, count)
        self.assertGreaterEqual(outgrown, memory)
        self.assertGreaterEqual(begun, self.workers + count + memory + hangups)
        return counters

    def assert_each_ran_once(self, load, counters):
        """By some worker, and by one alone."""
        self.assertEqual(counters["connections.queued"], load.result["sessions"])
        self.assertEqual(counters["connections.ran"], load.result["sessions"])

    def test_workers_that_leave_for_their_connection_count_lose_nothing(self):
        with self.serve(ProxyRefreshRate=RATE // 4) as load:
            self.wait_replaced(COUNT)
        self.assert_each_ran_once(load, self.assert_nobody_noticed(load, count=REPLACEMENTS))

    def test_workers_that_leave_for_their_memory_lose_nothing(self):
        with self.serve(MemoryLimit=1, MemoryLimitRate=2) as load:
            self.wait_replaced(MEMORY)
        self.assert_each_ran_once(load, self.assert_nobody_noticed(load, memory=REPLACEMENTS))

    def test_workers_that_leave_for_a_hangup_lose_nothing(self):
        with self.serve() as load:
            for _ in range(REPLACEMENTS):
                self.hang_up()
        self.assert_each_ran_once(load, self.assert_nobody_noticed(load, hangups=REPLACEMENTS))

    def test_only_worker_is_replaced_for_each_cause_and_loses_nothing(self):
        with self.serve(workers=1, ProxyRefreshRate=2 * RATE, MemoryLimit=1, MemoryLimitRate=2) as load:
            for _ in range(REPLACEMENTS):
                self.hang_up()
            self.wait_replaced(MEMORY, 1)
        self.assert_each_ran_once(load, self.assert_nobody_noticed(load, memory=1, hangups=REPLACEMENTS))

    def test_forked_workers_that_leave_for_their_connection_count_lose_nothing(self):
        with self.serve(ForkedModel=True, ProxyRefreshRate=RATE // 4) as load:
            self.wait_replaced(COUNT)
        self.assert_nobody_noticed(load, count=REPLACEMENTS)

    def test_forked_workers_that_leave_for_a_hangup_lose_nothing(self):
        with self.serve(ForkedModel=True) as load:
            for _ in range(REPLACEMENTS):
                self.hang_up()
        self.assert_nobody_noticed(load, hangups=REPLACEMENTS)


if __name__ == "__main__":
    unittest.main()
