"""The process harness itself: what it knows of each process, how it stops them, and what it does not let pass."""
import os
import signal
import subprocess
import sys
import unittest

import echo_case
import harness

MODELS = {"threaded": {}, "forked": {"network": {"MaxConnections": 4}, "process": {"ForkedModel": True}}}


def parent(pid):
    return harness.process_fields(pid)[1]


class Roles(echo_case.EchoCase):
    def in_each_model(self, options):
        """Yields with a client that has been served, and leaves no daemon behind."""
        for name, sections in MODELS.items():
            with self.subTest(name):
                self.start(options=options, **sections)
                with self.connect() as client:
                    self.assertEqual(client.ask("in"), "in")
                    yield name
                self.finish()

    def test_foreground(self):
        for model in self.in_each_model(("-d",)):
            self.assertEqual(self.monitor(), self.daemons[0].pid)
            self.assertIsNone(self.supervisor())
            self.assert_tree(model, {self.monitor()})

    def test_service(self):
        for model in self.in_each_model(()):
            self.assertEqual(self.daemons[0].wait(), 0)
            self.assertEqual(parent(self.monitor()), self.supervisor())
            self.assert_tree(model, {self.supervisor(), self.monitor()})

    def assert_tree(self, model, above):
        [worker] = self.workers()
        children = self.connection_children()
        self.assertEqual(parent(worker), self.monitor())
        self.assertEqual([parent(child) for child in children], [worker] if model == "forked" else [])
        self.assertEqual(set(self.root.processes()), {*above, worker, *children})

    def test_worker_that_has_gone_is_none_and_its_replacement_is(self):
        self.start(network={"AcceptCount": 2})
        before = self.wait_worker(2)
        killed = self.kill_worker(before[1])
        self.assertEqual(killed, before[1])
        self.assertNotIn(killed, self.wait_worker(2))
        self.assertEqual(self.workers()[0], before[0])

    def test_monitor_is_the_latest(self):
        self.start(options=())
        supervisor = self.supervisor()
        killed = self.kill_monitor()
        self.wait_event(10000, 54, count=2)
        self.assertNotEqual(self.monitor(), killed)
        self.assertEqual(parent(self.monitor()), supervisor)
        self.assertEqual(self.supervisor(), supervisor)


class Ends(echo_case.EchoCase):
    def test_terminate_ends_that_process_and_no_other(self):
        self.start(network={"AcceptCount": 2})
        first, second = self.workers()
        self.terminate(first)
        self.assertIn(second, self.wait_worker(2))
        self.terminate(self.monitor())
        self.wait_all_gone()

    def test_service_that_a_test_leaves_running_is_stopped(self):
        self.start(options=())
        self.finish()
        self.assertEqual(self.root.processes(), [])

    def test_service_that_is_just_started_again_is_stopped_too(self):
        self.start(options=())
        self.kill_monitor()
        self.stop_service()
        self.assertEqual(self.root.processes(), [])

    def test_session_runs_to_its_end_when_the_service_stops(self):
        self.start(options=())
        with self.connect() as client:
            self.assertEqual(client.ask("before"), "before")
            os.kill(self.supervisor(), signal.SIGKILL)
            monitor = self.monitor()
            os.kill(monitor, signal.SIGHUP)
            self.wait_gone(monitor)
            self.assertEqual(client.ask("after"), "after")
        self.stop_service()


class Looks(echo_case.EchoCase):
    def test_descriptors_and_memory_of_a_process(self):
        self.start()
        [worker] = self.workers()
        with self.connect() as first:
            first.ask("in")
            before = harness.descriptors(worker)
            with self.connect() as second:
                second.ask("in")
                more = {number: target for number, target in harness.descriptors(worker).items() if number not in before}
        self.assertEqual([target.split(":")[0] for target in more.values()], ["socket"])
        self.assertGreater(harness.resident_kib(worker), 1000)
        self.assertEqual((harness.descriptors(0), harness.resident_kib(0)), ({}, None))

    def test_zombie_of_a_gateway_is_seen_and_that_of_the_test_is_not(self):
        with subprocess.Popen("true & exec sleep 100", shell=True,
                              env={**os.environ, "VELT_ROOT": str(self.root.path)}) as keeper:
            try:
                [zombie] = harness.wait_until(self.zombies, "a zombie")
                self.assertEqual(parent(zombie), keeper.pid)
            finally:
                keeper.kill()
            harness.wait_until(lambda: harness.process_fields(keeper.pid)[0] == "Z", "its end")
            self.assertEqual(self.zombies(), [])


    def test_a_process_has_not_gone_before_its_last_thread_has(self):
        """A killed one has no memory any more while its threads still hold its sockets."""
        half_gone = ("import ctypes, os, sys, threading\n"
                     "threading.Thread(target=sys.stdin.read).start()\n"
                     "ctypes.CDLL(None).syscall(ctypes.c_long(60), 0)\n")  # exit: this thread alone
        with subprocess.Popen([sys.executable, "-c", half_gone], stdin=subprocess.PIPE,
                              env={**os.environ, "VELT_ROOT": str(self.root.path)}) as process:
            harness.wait_until(lambda: self.root.runs(process.pid), "its start")
            harness.wait_until(lambda: harness.process_fields(process.pid)[0] == "Z", "the end of its first thread")
            self.assertTrue(self.root.runs(process.pid))
            self.assertIn(process.pid, self.root.processes())
            process.kill()
            self.wait_gone(process.pid)
            self.assertEqual(harness.process_fields(process.pid)[0], "Z")


class Following(unittest.TestCase):
    def setUp(self):
        self.root = harness.Root()
        self.addCleanup(self.root.remove)

    def append(self, text):
        with open(self.root.log.path, "a") as file:
            file.write(text)

    def test_log_is_read_as_it_grows_at_every_cut(self):
        lines = '{"event":1,"reason":2}\n{"event":1,"reason":3}\n{"event":4}\n'
        self.assertEqual(self.root.log.read(), [])
        for cut in range(len(lines) + 1):
            self.append(lines[:cut])
            self.assertEqual(len(self.root.log.read()), lines[:cut].count("\n"))
            self.append(lines[cut:])
            self.assertEqual(len(self.root.log.read()), 3)
            self.assertEqual([len(self.root.log.named(*name)) for name in ((1,), (1, 2), (1, 3), (4,), (5,))],
                             [2, 1, 1, 1, 0])
            self.root.log.forget()

    def test_record_that_was_cut_short_costs_no_other(self):
        record = '{"time":"t","event":1,"reason":2,"values":{"text":"{\\"time\\":"}}'
        for cut in range(1, len(record) + 1):
            self.append(record[:cut] + record + "\n")
            self.assertEqual(len(self.root.log.named(1, 2)), 1)
            self.assertEqual(self.root.log.torn, 1)
            self.root.log.forget()


class Judgement(unittest.TestCase):
    """Runs tests that have to fail, and those beside them that must not."""

    def outcome(self, body):
        """What the failures of a test with this body say; "" when it has passed."""
        case = type("Case", (echo_case.EchoCase,), {"test": body})("test")
        result = unittest.TestResult()
        case.run(result)
        self.assertEqual(result.testsRun, 1)
        return "\n".join(text for _, text in result.failures + result.errors)

    def assert_fails(self, body, text):
        self.assertIn(text, self.outcome(body))

    def assert_passes(self, body):
        self.assertEqual(self.outcome(body), "")

    @staticmethod
    def start_with_unknown_user(case):
        case.start(process={"UserId": "nobody-of-this-name"})

    def test_event_that_nobody_announced(self):
        self.assert_fails(self.start_with_unknown_user, "not expected: ")
        self.assert_fails(self.start_with_unknown_user, '"reason": 56')

    def test_event_that_was_announced_or_awaited(self):
        def announced(case):
            case.expect(10000, 56)
            self.start_with_unknown_user(case)

        def awaited(case):
            self.start_with_unknown_user(case)
            case.wait_event(10000, 56)
        self.assert_passes(announced)
        self.assert_passes(awaited)

    def test_other_event_than_the_one_announced(self):
        def other(case):
            case.expect(10000, 57, at_least=0)
            self.start_with_unknown_user(case)
        self.assert_fails(other, '"reason": 56')

    def test_announced_event_that_did_not_come(self):
        def quiet(case):
            case.expect(10000, 56)
            case.start()
        self.assert_fails(quiet, "announced, and reported 0 times: 10000:56")

    def test_worker_that_dies_unasked(self):
        def dies(case):
            case.start()
            os.kill(case.workers()[0], signal.SIGKILL)
            harness.wait_until(lambda: len(case.events(10000, 54)) == 2, "the replacement")
        self.assert_fails(dies, '"reason": 54')

    def test_worker_that_the_test_ends_is_replaced_once(self):
        def asked(case):
            case.start()
            case.kill_worker()
            case.wait_worker()

        def once_more(case):
            asked(case)
            os.kill(case.workers()[0], signal.SIGKILL)
            harness.wait_until(lambda: len(case.events(10000, 54)) == 3, "the replacement")
        self.assert_passes(asked)
        self.assert_fails(once_more, '"reason": 54')

    def test_monitor_that_dies_unasked(self):
        def dies(case):
            case.start(options=())
            os.kill(case.monitor(), signal.SIGKILL)
            harness.wait_until(lambda: len(case.events(10000, 54)) == 2, "the next service")
        self.assert_fails(dies, '"reason": 46')

    def test_retired_workers_are_replaced_by_as_many(self):
        def retires(case):
            case.start(process={"ProxyRefreshRate": 1})
            for _ in range(2):
                with case.connect() as client:
                    client.ask("in")
            case.wait_event(10000, 71)
            harness.wait_until(lambda: len(case.events(10000, 54)) == 2, "the replacement")
        self.assert_passes(retires)

    def test_process_that_is_left_behind(self):
        def leaves(case):
            left = subprocess.Popen(["sleep", "100"], env={**os.environ, "VELT_ROOT": str(case.root.path)})
            case.addCleanup(left.wait)  # after the harness has ended it
            harness.wait_until(lambda: case.root.runs(left.pid), "the environment of what was started")
            case.finish()
        limit, harness.case.LEFT_LIMIT = harness.case.LEFT_LIMIT, 0.2
        self.addCleanup(setattr, harness.case, "LEFT_LIMIT", limit)
        self.assert_fails(leaves, "processes were left behind")


if __name__ == "__main__":
    unittest.main()
