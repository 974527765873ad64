"""In what order a gateway starts, as its events tell it, and which of its processes measure themselves."""
import os
import socket
import unittest

import echo_case
import harness

PORT_TAKEN, STARTS, USER_UNKNOWN, WORKER = (10001, 60), (10000, 46), (10000, 56), (10000, 54)


def least_open_port():
    """The first port that everybody may open."""
    with open("/proc/sys/net/ipv4/ip_unprivileged_port_start") as start:
        return int(start.read())


def free_port_below(limit):
    for port in range(limit - 1, limit - 200, -1):
        with socket.socket() as probe:
            try:
                probe.bind((harness.SERVER, port))
                return port
            except OSError:
                continue
    raise unittest.SkipTest("no port of the system's own is free")


class Order(echo_case.EchoCase):
    def test_ports_come_before_the_start_is_told_then_the_identity_then_the_workers(self):
        with socket.create_server((harness.SERVER, 0)) as taken:
            settings = self.settings(process={"UserId": "nobody-of-this-name"})
            settings["network"]["BindPorts"] = [taken.getsockname()[1], self.port]
            self.configure(settings)
            self.expect(*PORT_TAKEN)
            self.expect(*USER_UNKNOWN)
            self.launch()
            self.wait_event(*WORKER)
        told = [(event["event"], event["reason"]) for event in self.events()]
        self.assertEqual([one for one in told if one in (PORT_TAKEN, STARTS, USER_UNKNOWN, WORKER)],
                         [PORT_TAKEN, STARTS, USER_UNKNOWN, WORKER])

    @unittest.skipUnless(os.getuid() == 0, "only root can change its identity")
    def test_port_of_the_system_is_open_though_the_workers_have_no_right_to_it(self):
        if least_open_port() == 0:
            self.skipTest("everybody may open every port")
        settings = self.settings(process={"UserId": "65534", "GroupId": "65533"})
        settings["network"]["BindPorts"] = self.ports = [free_port_below(least_open_port())]
        self.configure(settings)
        daemon = self.launch()
        self.wait_event(*WORKER)
        self.assertEqual(self.events(*PORT_TAKEN), [])
        self.assertEqual(os.stat(f"/proc/{daemon.workers()[0]}").st_uid, 65534)
        with self.connect() as client:
            self.assertEqual(client.ask("hello"), "hello")

    def test_single_process_tells_its_start_on_standard_error_only_in_the_foreground(self):
        for options in (("-d", "-p"), ("-p", "-d"), ("-p",)):
            with self.subTest(options):
                self.configure(self.settings())
                daemon = self.launch(options=options)
                self.assertEqual(daemon.wait(), 0)
                self.assertEqual(len(self.events(*STARTS)), 1)
                self.assertEqual("10000:46" in daemon.stderr(), "-d" in options)
                self.events_path.unlink()


class Measured(echo_case.EchoCase):
    """A limit of 1 kB and a look at it each second: whoever measures itself is above it."""

    LIMITS = {"MemoryLimit": 1, "MemoryLimitRate": 1}

    def test_processes_of_the_forked_model_have_no_clock_and_are_never_measured(self):
        self.start(network={"MaxConnections": 3}, process={"ForkedModel": True, **self.LIMITS})
        with self.connect() as client:
            self.assertEqual(client.ask("in"), "in")
            with self.assertRaises(AssertionError):
                self.wait_event(10000, 70, limit=3)
            self.assertEqual(client.ask("on"), "on")
        self.assertEqual(len(self.events(*WORKER)), 1)

    def test_worker_of_the_forked_model_that_runs_its_sessions_itself_has_a_clock(self):
        self.start(network={"MaxConnections": 1}, process={"ForkedModel": True, **self.LIMITS})
        self.wait_event(10000, 70)


if __name__ == "__main__":
    unittest.main()
