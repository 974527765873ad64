"""The resource manager with real scanner daemons: who is offered, when, and how much each gets."""
import collections
import pathlib
import resource
import signal
import time
import unittest

import harness
from farm_case import AGAIN, CONTROL, COUNT, FarmCase

PROBE = 1  # seconds between two looks
SLOW = 10 if harness.SANITIZED or harness.COUNTED else 3  # seconds of a slow start


class Managed(FarmCase, harness.DaemonCase):
    def begin(self, count, *options, slow_start=0, **settings):
        self.start_manager("--probe", str(PROBE), "--slow-start", str(slow_start), *options)
        scanners = self.start_scanners(count, **settings)
        self.manager.wait_up(*scanners)
        return scanners

    def occupied(self, handles):
        """How many of these are at each port."""
        return collections.Counter(handle.offer.port for handle in handles)

    def occupy(self, count, seconds=0):
        handles = []
        for _ in range(count):
            handle = self.handle()
            handle.offer = handle.wait(seconds)
            handles.append(handle)
        return handles

    def generation(self):
        (handle,) = self.occupy(1)
        handle.close()
        return handle.offer.generation

    def test_daemons_are_offered_by_their_load_until_they_are_full(self):
        scanners = self.begin(3, connections=7)
        self.assertEqual(self.handle(CONTROL).ask(COUNT)[0], 3)
        handles = self.occupy(12)
        held = self.occupied(handles)
        self.assertEqual(set(held), {scanner.port for scanner in scanners}, held)
        self.assertLessEqual(max(held.values()) - min(held.values()), 3, held)
        handles += self.occupy(6)
        self.assertEqual(set(self.occupied(handles).values()), {6}, "each takes all but one, which is the probe's")
        (late,) = self.occupy(1)
        self.assertEqual((late.offer.resource, late.offer.error), (-1, AGAIN))

        copy = handles[7].socket.dup()
        handles[7].close()
        self.assertEqual(self.occupy(1)[0].offer.resource, -1, "the copy holds it")
        copy.close()
        self.assertEqual(late.wait(5).port, handles[7].offer.port, "it ends with the last close")
        self.assertEqual(self.handle(handles[0].offer.resource).name(), "scannerd")

    def test_a_daemon_that_is_killed_is_gone_at_once_and_comes_back_as_another(self):
        first, second = self.begin(2)
        before = self.generation()
        handles = {handle.offer.port: handle for handle in self.occupy(8)}
        resources = {port: self.handle(handle.offer.resource) for port, handle in handles.items()}
        first.kill()
        harness.wait_until(lambda: not resources[first.port].is_open(), "the end of the server's handle")
        self.assertTrue(resources[second.port].is_open())
        self.assertEqual(set(self.occupied(self.occupy(4))), {second.port})
        between = self.generation()
        first.start()
        self.manager.wait_up(first, second)
        self.assertIn(first.port, self.occupied(self.occupy(8)))
        self.assertEqual(len({before, between, self.generation()}), 3, "each list has a number of its own")

    def test_a_manager_that_is_killed_is_told_again_of_all(self):
        scanners = self.begin(2)
        before = self.generation()
        for number in (signal.SIGKILL, signal.SIGTERM):
            self.manager.end(number)
            self.manager.start()
            began = time.monotonic()
            self.manager.wait_up(*scanners)
            print(f"told again after {time.monotonic() - began:.2f} s")
            self.assertNotEqual(self.generation(), before)
        for scanner in scanners:
            self.assertEqual(len(scanner.root.log.named(60100, 9)), 3)

    def test_a_daemon_that_came_up_gets_its_share_by_and_by(self):
        (old,) = self.begin(1, slow_start=SLOW)
        began = time.monotonic()
        (young,) = self.start_scanners(1)
        young.stop()
        harness.wait_until(lambda: time.monotonic() > began + SLOW, "the whole share of the first")
        young.start()
        self.manager.wait_up(young)
        held = self.occupied(self.occupy(8))
        self.assertGreater(held[old.port], held[young.port] + 2, held)

    @unittest.skipIf(harness.SANITIZED, "whose memory has no limit")
    def test_a_daemon_that_nobody_could_look_at_is_looked_at_later(self):
        self.start_manager("--probe", str(PROBE))
        manager = self.manager.process.pid
        resource.prlimit(manager, resource.RLIMIT_AS, (self.addresses_of(manager) + 256 * 1024, resource.RLIM_INFINITY))
        (scanner,) = self.start_scanners(1)
        word = "gets no work: cannot be probed, as no thread can be started"
        harness.wait_until(lambda: self.manager.last_word(scanner.port) == word, word)
        resource.prlimit(manager, resource.RLIMIT_AS, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        self.manager.wait_up(scanner)

    def addresses_of(self, pid):
        """In bytes."""
        return int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[0]) * resource.getpagesize()

    def test_a_daemon_that_stops_finding_the_test_file_gets_no_work_until_it_does(self):
        blind, other = self.begin(2)
        self.assertTrue(blind.finds_test_file())
        for finds, word in ((False, "gets no work: does not find the test file"), (True, "is up")):
            blind.finds(finds)
            harness.wait_until(lambda: blind.finds_test_file() == finds, "a changed policy")
            began = time.monotonic()
            harness.wait_until(lambda: self.manager.last_word(blind.port) == word, word)
            took = time.monotonic() - began
            print(f"{word!r} after {took:.2f} s")
            self.assertLess(took, harness.bound(PROBE + 0.5))
            self.assertEqual(blind.port in self.occupied(self.occupy(8)), finds)
            self.assertTrue(self.manager.is_up(other))


if __name__ == "__main__":
    unittest.main()
