"""Processes that cannot be made: by a limit of the user that the gateway runs as, and by calls that fail as told."""
import contextlib
import errno
import os
import signal
import subprocess
import time
import unittest

import greeter_case
import harness

FAILING = os.environ.get("VELT_FAILING_FORK")
STOP = harness.bound(1.0)  # seconds from the hangup to the monitor's end


class ForksCase(greeter_case.GreeterCase):
    def launch_with(self, options, environment=None, **sections):
        self.configure(self.settings(**sections))
        return self.launch(options, environment=environment)

    def assert_launcher_fails(self, launcher):
        launcher.endings.add(255)
        self.assertEqual(launcher.wait(), 255)
        self.assert_reported(51)
        self.assertEqual(self.monitors(), [])

    def assert_reported(self, reason, count=1):
        """So many failures, each with the system's error."""
        found = self.wait_event(10000, reason, count=count)
        self.assertEqual(len(found), count)
        for event in found:
            self.assertEqual(event["values"]["velt_error"], {"velt_os_error": errno.EAGAIN})
        return found

    def kill_and_wait(self, worker, alive):
        """Until so many workers live."""
        self.kill_worker(worker)
        harness.wait_until(lambda: len(self.daemon.workers()) == alive, f"{alive} workers")

    def assert_serves(self):
        with harness.wait_until(self.try_greeted, "an answer") as client:
            self.assertEqual(client.ask("served"), "served")
            return client

    def assert_stops(self):
        asked = time.monotonic()
        self.daemon.signal(signal.SIGHUP)
        self.assertEqual(self.daemon.wait(), 0)
        self.assertLess(time.monotonic() - asked, STOP)
        self.wait_all_gone()


@unittest.skipUnless(os.geteuid() == 0, "only root becomes another user")
class Limit(ForksCase):
    """RLIMIT_NPROC counts every process and thread of a user: forked workers have one thread each, and the user is
    nobody else's."""

    def setUp(self):
        super().setUp()
        self.user = 50000 + os.getpid() % 10000

    def as_user(self, *command):
        return "setpriv", f"--reuid={self.user}", f"--regid={self.user}", "--clear-groups", *command

    def start_as_user(self, most, options, **sections):
        for file in (self.root.path, *self.root.path.rglob("*")):
            os.chown(file, self.user, self.user)
        start = " ".join(self.as_user("prlimit", f"--nproc={most}", str(self.program)))
        self.program = self.root.write("/limited", f'#!/bin/sh\nexec {start} "$@"\n')
        self.program.chmod(0o755)
        return self.launch_with(options, **sections)

    @contextlib.contextmanager
    def places_taken(self, count):
        """By other processes of the user."""
        with contextlib.ExitStack() as others:
            for _ in range(count):
                other = others.enter_context(subprocess.Popen(self.as_user("sh", "-c", "echo in; exec cat"),
                                                              stdin=subprocess.PIPE, stdout=subprocess.PIPE))
                other.stdout.readline()
            yield

    @unittest.skipIf("address" in harness.SANITIZED, "the search for leaks needs a thread, and fails instead")
    def test_launcher_that_cannot_fork_reports_and_fails(self):
        self.assert_launcher_fails(self.start_as_user(1, ()))

    def test_worker_that_cannot_be_forked_is_reported_and_its_place_lost(self):
        with self.places_taken(8):
            self.daemon = self.start_as_user(11, ("-d",), network={"AcceptCount": 3, "MaxConnections": 8},
                                             process={"ForkedModel": True})
            [failed] = self.assert_reported(59)
            self.assertEqual(failed["pid"], self.daemon.pid)
            self.wait_worker(2)
            with self.connect() as client:
                self.assertTrue(client.closed_by_peer())  # no place is left for its session either
        self.assert_serves()
        for _ in range(3):
            self.kill_and_wait(self.daemon.workers()[0], alive=2)
            self.assert_serves()
        self.assert_reported(59)
        self.assert_stops()


@unittest.skipUnless(FAILING, "there is no library that makes fork fail")
class Failing(ForksCase):
    """The calls of fork are counted along the line of descent: in a service the launcher's is the first, the
    supervisor's the second, and those of the monitor follow; in the foreground the monitor's come first."""

    def start_failing(self, calls, options, **sections):
        return self.launch_with(options, environment={"LD_PRELOAD": FAILING, "VELT_FORKS_FAIL": calls}, **sections)

    def test_launcher_that_cannot_fork_reports_and_fails(self):
        self.assert_launcher_fails(self.start_failing("1", ()))

    def test_launcher_without_a_log_fails_in_silence(self):
        launcher = self.start_failing("1", ("-n",))
        launcher.endings.add(255)
        self.assertEqual(launcher.wait(), 255)
        self.assertEqual(self.events(), [])

    def test_supervisor_that_cannot_fork_runs_the_service_itself(self):
        launcher = self.start_failing("2", ())
        self.assertEqual(launcher.wait(), 0)
        client = self.assert_serves()
        [service] = self.wait_event(10000, 52)
        self.assertEqual(self.monitors(), [service["values"]["velt_pid"]])
        self.assertEqual(client.parent, self.monitors()[0])
        self.assertEqual(sorted(self.root.processes()), sorted([client.process, client.parent]))
        os.kill(client.parent, signal.SIGHUP)
        self.wait_all_gone()  # nobody starts it again
        self.assertEqual(len(self.monitors()), 1)

    def test_service_that_could_fork_has_a_supervisor_of_its_own(self):
        launcher = self.start_failing("", ())
        self.assertEqual(launcher.wait(), 0)
        self.assert_serves()
        [service] = self.wait_event(10000, 52)
        supervisor = service["values"]["velt_pid"]
        self.assertEqual(greeter_case.parent_of(self.monitors()[0]), supervisor)
        self.assertEqual(greeter_case.descriptors(supervisor), ["/dev/null"] * 3)
        self.assertEqual(self.daemons[0].supervisor(), supervisor)
        self.stop_service()

    def test_failure_ends_the_round_and_costs_one_place(self):
        """The workers after the one that failed come with the next wake-up of the monitor."""
        self.daemon = self.start_failing("2", ("-d",), network={"AcceptCount": 3})
        self.assert_reported(59)
        self.wait_worker(1)
        self.assert_serves()
        for _ in range(3):
            self.kill_and_wait(self.daemon.workers()[0], alive=2)
            self.assert_serves()
        self.assert_reported(59)
        self.assert_stops()

    def test_last_worker_that_cannot_be_replaced_leaves_a_monitor_that_stops(self):
        self.daemon = self.start_failing("2", ("-d",))
        self.assert_serves()
        self.kill_worker()
        self.assert_reported(59)
        self.assertEqual(self.daemon.workers(), [])
        self.assert_stops()

    def test_connection_that_cannot_be_forked_is_closed_and_nothing_is_reported(self):
        self.start_failing("2", ("-d",), network={"MaxConnections": 4}, process={"ForkedModel": True})
        harness.wait_until(self.reported, "a worker")
        with self.connect() as client:
            self.assertTrue(client.closed_by_peer())
        self.assert_serves()
        self.assertEqual([event for event in self.events(10000) if event["reason"] in (51, 59)], [])


if __name__ == "__main__":
    unittest.main()
