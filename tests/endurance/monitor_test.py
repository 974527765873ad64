"""A service whose monitor or supervisor is killed under load."""
import contextlib
import os
import signal
import time
import unittest

import greeter_case
import harness

MONITORS = greeter_case.size(4, 60)
WORKERS = 2
HELD = 12  # sessions that are open when a monitor is killed
BACK = harness.bound(2.0)  # seconds until a new client is answered again


class Service(greeter_case.GreeterCase):
    def start_service(self, **sections):
        self.forked = sections.get("process", {}).get("ForkedModel", False)
        sections["network"] = {"AcceptCount": WORKERS, "MaxConnections": 64}
        launcher = self.start(options=(), **sections)
        self.assertEqual(launcher.wait(), 0)
        self.supervisor = greeter_case.parent_of(self.monitor())
        self.addCleanup(self.end_service)

    def end_service(self):
        """The supervisor first, so that nothing is started again."""
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.supervisor, signal.SIGKILL)
        for monitor in set(self.monitors()) & set(self.root.processes()):
            os.kill(monitor, signal.SIGHUP)

    def monitor(self):
        return self.monitors()[-1]

    def worker_of(self, client):
        return client.parent if self.forked else client.process

    def answered_by(self, workers):
        """When one of these workers has answered a new client; None when it was somebody else."""
        client = self.try_greeted()
        if client is None:
            return None
        client.close()
        return client.answered if self.worker_of(client) in workers else None

    def workers_of(self, monitor):
        return [worker for worker in self.reported()[-2 * WORKERS:]
                if (greeter_case.stat(worker) or ("", 0))[1] == monitor]

    # --- the monitor ---

    def test_threaded_service_is_back_after_its_monitor_was_killed(self):
        self.kill_monitors(process={"PermThreads": 32})

    def test_forked_service_is_back_after_its_monitor_was_killed(self):
        self.kill_monitors(process={"ForkedModel": True})

    def kill_monitors(self, **sections):
        self.start_service(**sections)
        gaps = []
        with self.sessions(forked=self.forked) as load:
            for _ in range(MONITORS):
                load.wait_more()
                gaps.append(self.kill_monitor())
            load.wait_more()
        self.assert_lost_in_gaps(load, gaps)
        self.assertEqual(self.events(10001, 60), [])
        self.report(kills=MONITORS, sessions=load.done, refused_or_cut_meanwhile=len(load.failed),
                    back=greeter_case.distribution([end - begin for begin, end in gaps]))

    def kill_monitor(self):
        """(when the monitor was killed, when the next one's worker has answered)"""
        monitor = self.monitor()
        workers = self.workers_of(monitor)
        held = [self.greeted() for _ in range(HELD)]
        supervisor_open = greeter_case.descriptors(self.supervisor)
        self.expect_end(monitor)
        killed = time.monotonic()
        os.kill(monitor, signal.SIGKILL)
        harness.wait_until(lambda: self.monitor() != monitor, "the next monitor")
        back = harness.wait_until(lambda: self.answered_by(self.workers_of(self.monitor())), "a new client's answer")
        self.assertLess(back - killed, BACK)
        self.assert_go_on(held)
        for worker in workers:
            self.wait_gone(worker)
        self.assertEqual(greeter_case.descriptors(self.supervisor), supervisor_open)
        greeter_case.wait_for_no_zombie_of([self.supervisor])
        return killed, back

    def assert_go_on(self, clients):
        """To their own end."""
        for number, client in enumerate(clients):
            self.assertEqual(client.ask(f"still here {number}"), f"still here {number}")
        for client in clients:
            client.close()

    def assert_lost_in_gaps(self, load, gaps):
        """Between two services a client may find nobody; whoever was greeted is served to the end."""
        for lost in load.failed:
            self.assertIsNone(lost["greeting"], lost)
            self.assertIn(lost["failed"], ("refused", "reset", "cut"), lost)
            self.assertTrue(any(begin <= lost["end"] and lost["begin"] <= end for begin, end in gaps), lost)

    # --- the supervisor ---

    def test_service_goes_on_without_its_supervisor_until_the_monitor_hangs_up(self):
        self.start_service()
        monitor = self.monitor()
        with self.sessions() as load:
            load.wait_more()
            os.kill(self.supervisor, signal.SIGKILL)
            self.wait_gone(self.supervisor)
            load.wait_more()
            self.replace_a_worker(monitor)
            load.wait_more()
        self.assertEqual([one for one in load.failed if one["failed"] == "refused"], [])
        with self.greeted() as client:
            os.kill(monitor, signal.SIGHUP)
            self.wait_gone(monitor)
            harness.wait_until(self.refused, "closed ports")
            self.assertEqual(client.ask("to the end"), "to the end")
        self.wait_all_gone()
        self.assertEqual(len(self.monitors()), 1)

    def replace_a_worker(self, monitor):
        started = len(self.reported())
        self.kill_worker(self.workers_of(monitor)[0])
        harness.wait_until(lambda: len(self.reported()) > started, "a replacement")
        harness.wait_until(lambda: self.answered_by(self.reported()[-1:]), "its answer")

    def refused(self):
        try:
            harness.Line(self.port).close()
        except ConnectionRefusedError:
            return True
        except OSError:
            pass
        return False


if __name__ == "__main__":
    unittest.main()
