"""What each signal does to each process, as the table of docs/operating.md has it."""
import contextlib
import os
import pathlib
import signal
import unittest

import echo_case
import harness

ENDINGS = (signal.SIGTERM, signal.SIGINT, signal.SIGKILL)


def fields(pid):
    """Of /proc/PID/stat: parent, process group and session."""
    rest = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return int(rest[1]), int(rest[2]), int(rest[3])


def parent(pid):
    return fields(pid)[0]


class Service(echo_case.EchoCase):
    """Without -d: the launcher is gone, and the tree is found by its worker."""

    def start_service(self):
        self.service = self.start(options=())
        self.worker = self.events(10000, 54)[-1]["values"]["velt_pid"]
        self.monitor = parent(self.worker)
        self.supervisor = parent(self.monitor)
        self.addCleanup(self.end_service)

    def end_service(self):
        """From the top: whoever runs a little longer would start again what has ended below."""
        for pid in (self.supervisor, *self.service.monitors(), *self.root.processes()):
            with contextlib.suppress(ProcessLookupError):  # a worker ends by itself when its monitor has gone
                if pid in self.root.processes():
                    os.kill(pid, signal.SIGKILL)

    def assert_served(self):
        with self.connect() as client:
            self.assertEqual(client.ask("served"), "served")

    def test_supervisor_and_monitor_share_a_group_and_the_worker_has_its_own(self):
        self.start_service()
        self.assertEqual(fields(self.supervisor)[1:], (self.supervisor, self.supervisor))
        self.assertEqual(fields(self.monitor)[1:], (self.supervisor, self.supervisor))
        harness.wait_until(lambda: fields(self.worker)[1:] == (self.worker, self.worker), "a session of the worker's own")

    def test_service_runs_on_without_its_supervisor(self):
        for number in (signal.SIGHUP, *ENDINGS):
            with self.subTest(number):
                self.start_service()
                os.kill(self.supervisor, number)
                self.wait_gone(self.supervisor)
                self.assert_served()
                os.kill(self.monitor, signal.SIGHUP)
                self.wait_all_gone()
                self.finish()

    def test_monitor_that_ends_is_started_again(self):
        for number in (signal.SIGHUP, *ENDINGS):
            with self.subTest(number):
                self.start_service()
                self.expect_end(self.monitor)
                os.kill(self.monitor, number)
                self.wait_gone(self.monitor)
                fresh = self.wait_event(10000, 54, count=2)[-1]["values"]["velt_pid"]
                self.assertNotEqual(parent(fresh), self.monitor)
                self.assertEqual(parent(parent(fresh)), self.supervisor)
                self.assert_served()
                self.end_service()
                self.finish()


class Foreground(echo_case.EchoCase):
    def test_connection_ends_with_its_session_and_no_other(self):
        for number in ENDINGS:
            with self.subTest(number):
                daemon = self.start(network={"MaxConnections": 3}, process={"ForkedModel": True})
                with self.connect() as first:
                    first.ask("in")
                    (child,) = set(self.root.processes()) - {daemon.pid, *daemon.workers()}
                    self.assertEqual(fields(child)[1:], (child, child))
                    with self.connect() as second:
                        second.ask("in")
                        os.kill(child, number)
                        self.assertTrue(first.closed_by_peer())
                        self.assertEqual(second.ask("on"), "on")
                self.finish()

    def test_connection_does_not_notice_a_hangup_or_a_child_s_end(self):
        daemon = self.start(network={"MaxConnections": 3}, process={"ForkedModel": True})
        with self.connect() as client:
            client.ask("in")
            (child,) = set(self.root.processes()) - {daemon.pid, *daemon.workers()}
            for number in (signal.SIGHUP, signal.SIGCHLD, signal.SIGPIPE, signal.SIGXFSZ):
                os.kill(child, number)
                self.assertEqual(client.ask("on"), "on")

    def test_nobody_ends_for_signals_that_are_ignored(self):
        daemon = self.start()
        with self.connect() as client:
            client.ask("in")
            for pid in (daemon.pid, daemon.workers()[0]):
                for number in (signal.SIGCHLD, signal.SIGPIPE, signal.SIGXFSZ):
                    os.kill(pid, number)
                    self.assertEqual(client.ask("on"), "on")
            self.assertEqual(len(self.events(10000, 54)), 1)
            self.assertIsNone(daemon.process.poll())

    def test_forked_worker_stands_in_the_monitors_group(self):
        daemon = self.start(network={"MaxConnections": 3}, process={"ForkedModel": True})
        self.assertEqual(fields(daemon.workers()[0])[1], daemon.pid)

    def test_threaded_worker_that_is_ended_takes_its_sessions_and_is_replaced(self):
        daemon = self.start()
        for count, number in enumerate(ENDINGS, 2):
            with self.connect() as client:
                client.ask("in")
                os.kill(daemon.workers()[0], number)
                self.assertTrue(client.closed_by_peer())
            self.wait_event(10000, 54, count=count)
        with self.connect() as client:
            self.assertEqual(client.ask("next"), "next")

    def test_monitor_that_is_ended_lets_its_workers_finish(self):
        for number in ENDINGS:
            with self.subTest(number):
                daemon = self.start()
                with self.connect() as client:
                    client.ask("in")
                    daemon.signal(number)
                    self.assertEqual(daemon.wait(), -number)
                    self.assertEqual(client.ask("on"), "on")
                self.finish()


if __name__ == "__main__":
    unittest.main()
