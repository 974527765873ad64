"""Workers that come and go under load: hangup, death, recycling, a monitor that dies."""
import os
import signal
import unittest

import echo_case
import harness


class Workers(echo_case.EchoCase):
    def test_hangup_under_load_cuts_no_session(self):
        daemon = self.start(process={"PermThreads": 8})
        sessions = [self.connect() for _ in range(6)]
        for number, client in enumerate(sessions):
            self.assertEqual(client.ask(f"before {number}"), f"before {number}")
        daemon.signal(signal.SIGHUP)
        self.assertEqual(daemon.wait(), 0)
        for number, client in enumerate(sessions):
            self.assertEqual(client.ask(f"after {number}"), f"after {number}")
            client.close()
        self.wait_all_gone()
        with self.assertRaises(ConnectionRefusedError):
            self.connect()

    def test_hangup_of_a_worker_under_load_cuts_no_session_and_refuses_none(self):
        daemon = self.start(network={"MaxConnections": 8})
        with echo_case.Load(self.port) as load:
            load.wait_done(20)
            worker = daemon.workers()[0]
            os.kill(worker, signal.SIGHUP)
            self.wait_event(10000, 54, count=2)
            self.wait_gone(worker)
            load.wait_done(20)
        self.assertEqual(load.errors, [])

    def test_killed_worker_is_replaced_and_the_listener_never_refuses(self):
        daemon = self.start(network={"AcceptCount": 2, "MaxConnections": 8})
        for death in range(3):
            with echo_case.Load(self.port) as load:
                load.wait_done(10)
                worker = daemon.workers()[0]
                os.kill(worker, signal.SIGKILL)
                self.wait_event(10000, 54, count=3 + death)
                probes = [self.connect() for _ in range(10)]
                for probe in probes:
                    probe.close()
            refused = [error for error in load.errors if "Refused" in error]
            self.assertEqual(refused, [])
            harness.wait_until(lambda: len(daemon.workers()) == 2, "two workers")
        with self.connect() as client:
            self.assertEqual(client.ask("well"), "well")

    def test_workers_of_a_dead_monitor_drain_and_leave(self):
        daemon = self.start(network={"AcceptCount": 2, "MaxConnections": 8})
        with self.connect() as client:
            self.assertEqual(client.ask("before"), "before")
            daemon.signal(signal.SIGKILL)
            daemon.wait()
            harness.wait_until(self._refused, "closed ports")
            self.assertEqual(client.ask("after"), "after")
        self.wait_all_gone()

    def test_worker_retires_after_the_sixth_connection_when_five_are_its_share(self):
        self.start(process={"ProxyRefreshRate": 5})
        for number in range(6):
            with self.connect() as client:
                self.assertEqual(client.ask(f"session {number}"), f"session {number}")
        retired = self.wait_event(10000, 71)[0]
        self.assertEqual(retired["values"]["velt_max_connections"], 6)
        self.assertEqual(retired["pid"], self.events(10000, 54)[0]["values"]["velt_pid"])
        self.wait_event(10000, 54, count=2)
        with self.connect() as client:
            self.assertEqual(client.ask("next worker"), "next worker")

    def test_recycling_under_load_cuts_no_session_and_refuses_none(self):
        self.start(network={"MaxConnections": 8}, process={"ProxyRefreshRate": 20})
        with echo_case.Load(self.port) as load:
            self.wait_event(10000, 71, count=2)
            load.wait_done(10)
        self.assertEqual(load.errors, [])

    def test_worker_above_its_memory_limit_is_replaced_and_cuts_no_session(self):
        self.start(network={"MaxConnections": 8}, process={"MemoryLimit": 1, "MemoryLimitRate": 1})
        with echo_case.Load(self.port) as load:
            self.wait_event(10000, 70, count=2)
            load.wait_done(10)
        self.assertEqual(load.errors, [])
        first = self.events(10000, 54)[0]["values"]["velt_pid"]
        retired = harness.wait_until(lambda: [one for one in self.events(10000, 70) if one["pid"] == first],
                                     "what the first worker says at its end")[0]
        self.assertEqual(retired["values"]["velt_memory_size_limit"], 1)
        self.assertGreater(retired["values"]["velt_memory_size"], 1)

    def test_session_of_a_retiring_worker_runs_on_beside_its_replacement(self):
        self.start(network={"MaxConnections": 8}, process={"ProxyRefreshRate": 1})
        with self.connect() as old:
            self.assertEqual(old.ask("one"), "one")
            with self.connect() as second:
                self.assertEqual(second.ask("two"), "two")
            self.wait_event(10000, 71)
            self.wait_event(10000, 54, count=2)
            with self.connect() as new:
                self.assertEqual(new.ask("three"), "three")
            self.assertEqual(old.ask("still here"), "still here")

    def test_no_client_waits_in_one_worker_while_another_has_a_free_thread(self):
        self.start(network={"AcceptCount": 3, "MaxConnections": 8}, process={"PermThreads": 8})
        self.wait_until_all_accept()
        clients = [self.connect() for _ in range(12)]
        for number, client in enumerate(clients):
            self.assertEqual(client.ask(f"client {number}"), f"client {number}")

    def wait_until_all_accept(self):
        """Until each worker has served somebody: it reports its start before it accepts."""
        def all_served():
            with self.connect() as client:
                self.assertEqual(client.ask("who"), "who")
            return {event["pid"] for event in self.events(10003, 68)} >= set(self.workers())
        harness.wait_until(all_served, "a session of each worker")

    def _refused(self):
        try:
            self.connect().close()
        except ConnectionRefusedError:
            return True
        except OSError:
            return False
        return False


class Forked(echo_case.EchoCase):
    def start_forked(self, children, **process):
        return self.start(network={"MaxConnections": children}, process={"ForkedModel": True, **process})

    def test_each_connection_runs_in_a_process_of_its_own(self):
        daemon = self.start_forked(3)
        with self.connect() as first, self.connect() as second:
            self.assertEqual(first.ask("one"), "one")
            self.assertEqual(second.ask("two"), "two")
            self.assertEqual(len(self.root.processes()), 4)
        harness.wait_until(lambda: len(self.root.processes()) == 2, "the end of the connection processes")
        self.assertEqual(len(daemon.workers()), 1)

    def test_fourth_connection_of_three_waits_for_an_end(self):
        self.start_forked(3)
        clients = [self.connect() for _ in range(3)]
        for client in clients:
            self.assertEqual(client.ask("in"), "in")
        fourth = self.connect()
        fourth.send("waiting")
        fourth.socket.settimeout(0.5)
        with self.assertRaises(TimeoutError):
            fourth.socket.recv(1, 2)  # a look that takes no byte
        fourth.socket.settimeout(harness.LIMIT)
        clients.pop().close()
        self.assertEqual(fourth.socket.recv(100), b"waiting\r\n")
        for client in (*clients, fourth):
            client.close()

    def test_one_connection_at_a_time_runs_in_the_accepting_process(self):
        daemon = self.start_forked(1)
        with self.connect() as client:
            self.assertEqual(client.ask("alone"), "alone")
            self.assertEqual(len(self.root.processes()), 2)
            self.assertEqual(len(daemon.workers()), 1)

    def test_connections_of_processes_count_for_the_worker_that_accepted_them(self):
        daemon = self.start_forked(3, ProxyRefreshRate=2)
        worker = daemon.workers()[0]
        for number in range(3):
            self.assertEqual(self.events(10000, 71), [])
            with self.connect() as client:
                self.assertEqual(client.ask(f"session {number}"), f"session {number}")
        retired = self.wait_event(10000, 71)[0]
        self.assertEqual(retired["values"]["velt_max_connections"], 3)
        self.assertEqual(retired["pid"], worker)

    def test_connection_process_outlives_its_worker_and_does_not_delay_the_replacement(self):
        daemon = self.start_forked(3)
        with self.connect() as client:
            self.assertEqual(client.ask("before"), "before")
            os.kill(daemon.workers()[0], signal.SIGKILL)
            self.wait_event(10000, 54, count=2)
            self.assertEqual(client.ask("after"), "after")
            with self.connect() as other:
                self.assertEqual(other.ask("new worker"), "new worker")

    def test_hangup_stops_the_worker_though_all_its_children_are_busy(self):
        daemon = self.start_forked(2)
        with self.connect() as first, self.connect() as second:
            self.assertEqual(first.ask("one"), "one")
            self.assertEqual(second.ask("two"), "two")
            worker = daemon.workers()[0]
            os.kill(worker, signal.SIGHUP)
            self.wait_gone(worker)
            self.wait_event(10000, 54, count=2)
            self.assertEqual(first.ask("on"), "on")


if __name__ == "__main__":
    unittest.main()
