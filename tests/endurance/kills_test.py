"""Workers are killed under load, one after the other: only what was theirs is lost."""
import os
import random
import signal
import time
import unittest
from typing import NamedTuple

import greeter_case
import harness

KILLS = greeter_case.size(60, 1000)
SETTLED = greeter_case.size(20, 100)  # kills after which the monitor has all the memory it needs
WORKERS = 3
PAGES_KIB = 16  # what a process may still touch for the first time; a leak of 20 bytes a kill is more
BOUND = harness.bound(0.25)  # seconds from a kill to the replacement's first answer


class Kill(NamedTuple):
    worker: int
    sent: float  # the signal
    ended: float  # the worker has ended by now: its replacement is there
    answered: float  # the replacement, for the first time


class Kills(greeter_case.GreeterCase):
    def test_kills_of_threaded_workers_end_their_own_sessions_only(self):
        lost = self.kill_workers(forked=False, process={"PermThreads": 16})
        self.assertGreater(len(lost), KILLS)

    def test_kills_of_forked_workers_end_no_session_that_had_begun(self):
        lost = self.kill_workers(forked=True, process={"ForkedModel": True})
        self.assertEqual([one for one in lost if one["greeting"]], [])

    def kill_workers(self, forked, process):
        self.daemon = self.start(network={"AcceptCount": WORKERS, "MaxConnections": 64}, process=process)
        self.kills = []
        self.living = list(self.reported())
        self.open_before = self.monitor_at_rest()
        self.worker_before = self.descriptors_after_a_client()
        with self.sessions(forked=forked) as load:
            load.wait_first(self.daemon.workers())
            choice = random.Random(KILLS)
            for number in range(KILLS):
                load.wait_more()
                self.kill_one(load, choice.choice(self.living))
                if number + 1 == SETTLED:
                    self.settled = greeter_case.memory(self.daemon.pid)
        self.assert_lost_with_their_worker(load)
        self.assert_replaced_in_time()
        self.assert_nothing_left()
        self.report(kills=KILLS, sessions=load.done, lost=len(load.failed),
                    replaced=greeter_case.distribution(self.delays()))
        return load.failed

    def kill_one(self, load, worker):
        """The others stand still from before the kill until the replacement has answered: that it serves is then seen
        at the first client, who would otherwise most likely be another worker's."""
        self.living.remove(worker)
        wanted = len(self.reported()) + 1
        with greeter_case.held(self.living):
            self.expect_end(worker)
            sent = time.monotonic()
            os.kill(worker, signal.SIGKILL)
            harness.wait_until(lambda: len(self.reported()) == wanted, f"the replacement of {worker}")
            ended = time.monotonic()
            self.living.append(self.reported()[-1])
            answered = harness.wait_until(lambda: self.first_answer(load, self.living[-1], sent), "its first answer")
        self.kills.append(Kill(worker, sent, ended, answered))

    def first_answer(self, load, worker, since):
        """When this worker has first answered. The number may have been another worker's before."""
        if load.first.get(worker, 0) > since:
            return load.first[worker]
        probe = self.try_greeted(limit=BOUND / 3)  # the system tries a connect that met a full queue again after 1 s
        if probe is None:
            return None
        probe.close()
        return probe.answered if worker in (probe.process, probe.parent) else None

    def delays(self):
        return [kill.answered - kill.sent for kill in self.kills]

    def assert_lost_with_their_worker(self, load):
        """Each lost session was its worker's, or nobody's yet when some worker was killed."""
        for lost in load.failed:
            self.assertIn(lost["failed"], ("reset", "cut"), lost)
            self.assertNotEqual(lost["stage"], "connect", lost)
            kills = [kill for kill in self.kills if not lost["greeting"] or kill.worker == lost["greeting"][0]]
            self.assertTrue(any(lost["begin"] <= kill.ended and kill.sent <= lost["end"] for kill in kills), lost)

    def assert_replaced_in_time(self):
        self.assertLess(max(self.delays()), BOUND)

    def assert_nothing_left(self):
        harness.wait_until(lambda: len(self.root.processes()) == WORKERS + 1, "the end of all but the last workers")
        greeter_case.wait_for_no_zombie_of(self.root.processes())
        self.assertEqual(self.monitor_at_rest(), self.open_before)
        self.assertEqual(self.quiet_descriptors(), self.worker_before)
        self.assert_monitor_has_not_grown()

    def monitor_at_rest(self):
        """Its descriptors when it has closed the ends that are the workers'. A worker may report its start before that."""
        harness.wait_until(lambda: greeter_case.descriptors(self.daemon.pid).count("pipe") == 2 * WORKERS, "two pipes a worker")
        return greeter_case.descriptors(self.daemon.pid)

    def assert_monitor_has_not_grown(self):
        if greeter_case.has_shadow(self.daemon.pid):
            return
        now = greeter_case.memory(self.daemon.pid)
        for key in ("VmRSS", "VmData"):
            self.assertLessEqual(now[key], self.settled[key] + PAGES_KIB, key)
        self.report(monitor=f"{self.settled['VmRSS']} KiB after {SETTLED} kills, {now['VmRSS']} KiB at the end")

    def descriptors_after_a_client(self):
        """Of workers that have begun to serve: one that was just forked has not opened all yet."""
        answered = set()
        while not answered >= set(self.daemon.workers()):
            with self.greeted() as client:
                answered |= {client.process, client.parent}
        harness.wait_until(lambda: len(self.quiet_descriptors()) == 1, "workers without a session")
        return self.quiet_descriptors()

    def quiet_descriptors(self):
        return {tuple(greeter_case.descriptors(worker)) for worker in self.daemon.workers()}


if __name__ == "__main__":
    unittest.main()
