"""Workers that die at once, for as long as something is wrong: the monitor replaces them without a pause, hears a hangup
all the same, and serves as soon as workers live."""
import signal
import time
import unittest

import greeter_case
import harness

SECONDS = greeter_case.size(3, 60)
STOP = harness.bound(1.0)  # seconds from the hangup to the monitor's end
PIPES = 2  # the monitor's ends for one worker
PAGES_KIB = 64  # what a process may still touch for the first time


class Mortal(greeter_case.GreeterCase):
    def test_single_worker_that_dies_at_once(self):
        self.die_and_stop(1)

    def test_eight_workers_that_die_at_once(self):
        self.die_and_stop(8)

    def test_workers_that_die_of_a_fault(self):
        self.die_and_stop(2, VELT_WORKERS_FAULT="1")

    def test_forked_workers_that_die_at_once(self):
        self.die_and_stop(4, process={"ForkedModel": True})

    def test_clients_are_served_as_soon_as_workers_live(self):
        self.start_dying(8, process={"PermThreads": 16})  # the first worker to live may get all who wait
        waiting = [self.connect() for _ in range(8)]
        self.wrong.unlink()
        client = harness.wait_until(self.try_greeted, "an answer", limit=STOP)
        self.assertEqual(client.ask("well"), "well")
        for early in waiting:
            self.assertIsNotNone(early.read())
        harness.wait_until(lambda: len(self.daemon.workers()) == 8, "eight workers that live")
        for one in (client, *waiting):
            one.close()
        self.hang_up()

    def start_dying(self, workers, process=None, **environment):
        self.wrong = self.root.write("/wrong", "")
        self.configure(self.settings(network={"AcceptCount": workers, "MaxConnections": 16}, process=process or {}))
        self.expect(10000, 54)  # without end
        self.daemon = self.launch(environment={"VELT_WORKERS_DIE": str(self.wrong), **environment})
        self.wait_dead(10 * workers)

    def die_and_stop(self, workers, **how):
        self.start_dying(workers, **how)
        memory = greeter_case.memory(self.daemon.pid)["VmRSS"]
        begun, others, pipes = time.monotonic(), set(), 0
        dead = len(self.reported())
        while time.monotonic() < begun + SECONDS:
            self.wait_dead(workers)
            files = greeter_case.descriptors(self.daemon.pid)
            pipes = max(pipes, files.count("pipe"))
            others.add(tuple(file for file in files if file != "pipe"))
        rate = (len(self.reported()) - dead) / (time.monotonic() - begun)
        self.assertEqual(len(others), 1)
        self.assertLessEqual(pipes, PIPES * workers + 2)  # two of a pair that is just being made
        grown = greeter_case.memory(self.daemon.pid)["VmRSS"] - memory
        if not greeter_case.has_shadow(self.daemon.pid):
            self.assertLessEqual(grown, PAGES_KIB)
        self.report(deaths_a_second=round(rate), most_pipes=pipes, grown=f"{grown} KiB",
                    stopped_after=f"{self.hang_up() * 1000:.1f} ms")

    def wait_dead(self, more):
        """Until another so many workers have begun, and as many have ended."""
        wanted = len(self.reported()) + more
        harness.wait_until(lambda: len(self.reported()) >= wanted, f"{more} more workers")

    def hang_up(self):
        """The seconds until the monitor has ended."""
        asked = time.monotonic()
        self.daemon.signal(signal.SIGHUP)
        harness.wait_until(lambda: self.daemon.process.poll() is not None, "the monitor's end")
        took = time.monotonic() - asked
        self.assertLess(took, STOP)
        self.assertEqual(self.daemon.wait(), 0)
        self.wait_all_gone()
        return took


if __name__ == "__main__":
    unittest.main()
