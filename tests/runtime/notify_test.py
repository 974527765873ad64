"""What a service manager hears: ready when a worker accepts and not before, stopping when the monitor leaves."""
import os
import signal
import socket
import struct
import unittest

import echo_case
import harness


class ServiceManager:
    """The other end of NOTIFY_SOCKET. Keeps each message with the process that sent it."""

    def __init__(self, address):
        self.messages = []
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
        self.socket.settimeout(harness.LIMIT)
        self.socket.bind(address)

    def close(self):
        self.socket.close()

    def next(self):
        """The next message as {name: value}, with the sender's number under "pid"."""
        text, ancillary, _, _ = self.socket.recvmsg(4096, socket.CMSG_SPACE(struct.calcsize("3i")))
        message = dict(line.split("=", 1) for line in text.decode().splitlines())
        message["pid"] = struct.unpack("3i", ancillary[0][2])[0]
        self.messages.append(message)
        return message

    def until(self, name):
        """The first message from now on that has this name."""
        while True:
            message = self.next()
            if name in message:
                return message

    def rest(self):
        """What was sent and not looked at."""
        self.socket.setblocking(False)
        found = []
        try:
            while True:
                found.append(self.next())
        except BlockingIOError:
            return found


class Notify(echo_case.EchoCase):
    def listen(self, abstract=False):
        path = str(self.root.path / "notify")
        manager = ServiceManager("\0" + path if abstract else path)
        self.addCleanup(manager.close)
        self.environment = {"NOTIFY_SOCKET": "@" + path if abstract else path}
        return manager

    def launch_with(self, **sections):
        settings = self.settings(**sections)
        self.configure(settings)
        return self.launch(environment=self.environment)

    def assert_served_when_ready(self, manager, **sections):
        """READY comes from a worker, and whoever connects at that moment is served."""
        daemon = self.launch_with(**sections)
        ready = manager.until("READY")
        with self.connect() as client:
            self.assertEqual(client.ask("at once"), "at once")
        self.assertEqual(ready["READY"], "1")
        self.assertIn(ready["pid"], daemon.workers())
        self.assertIn(f"{harness.SERVER}:{self.port}", ready["STATUS"])
        self.assertIn(f"monitor {daemon.pid}", ready["STATUS"])
        self.assertIn(f"worker {ready['pid']}", ready["STATUS"])
        return daemon

    def test_ready_is_told_by_the_worker_that_serves_threaded(self):
        self.assert_served_when_ready(self.listen())

    def test_ready_is_told_by_the_worker_that_serves_forked(self):
        self.assert_served_when_ready(self.listen(), network={"MaxConnections": 4}, process={"ForkedModel": True})

    def test_ready_reaches_an_abstract_socket(self):
        self.assert_served_when_ready(self.listen(abstract=True))

    def test_no_port_is_not_ready_and_a_free_port_is(self):
        for model in (False, True):
            with self.subTest(forked=model):
                manager = self.listen()
                with socket.socket() as taken:
                    taken.bind((harness.SERVER, 0))
                    taken.listen()
                    settings = self.settings(process={"ForkedModel": model})
                    settings["network"]["BindPorts"] = self.ports = [taken.getsockname()[1]]
                    self.configure(settings)
                    self.launch(environment=self.environment)
                    message = manager.next()
                    self.assertIn("No port is open", message["STATUS"])
                    self.assertEqual(len(self.wait_event(10001, 60)), 1)
                    self.finish()
                    manager.rest()
                    self.assertEqual([told for told in manager.messages if "READY" in told], [])
                manager.close()
                os.unlink(self.root.path / "notify")
        self.assert_served_when_ready(self.listen())

    def test_one_open_port_of_two_is_ready_and_the_status_names_only_that(self):
        manager = self.listen()
        with socket.socket() as taken:
            taken.bind((harness.SERVER, 0))
            taken.listen()
            busy = taken.getsockname()[1]
            settings = self.settings(1)
            settings["network"]["BindPorts"] = [busy, self.port]
            self.configure(settings)
            self.launch(environment=self.environment)
            ready = manager.until("READY")
            self.wait_event(10001, 60)
            self.assertIn(f":{self.port}", ready["STATUS"])
            self.assertNotIn(f":{busy}", ready["STATUS"])

    def test_replacement_tells_its_number(self):
        manager = self.listen()
        self.launch_with()
        first = manager.until("READY")
        self.kill_worker(first["pid"])
        second = manager.until("READY")
        self.assertNotEqual(second["pid"], first["pid"])
        self.assertIn(f"worker {second['pid']}", second["STATUS"])

    def test_retryer_is_ready_when_it_walks(self):
        self.program = os.environ["VELT_KEEPER"]
        manager = self.listen()
        (self.root.path / "deferred/smtp").mkdir(parents=True)
        self.configure(self.settings())
        daemon = self.launch(("-d", "-s", "retryer", "-t", "smtp"), environment=self.environment)
        ready = manager.until("READY")
        self.assertIn(ready["pid"], daemon.workers())
        self.assertIn(f"{self.root.path}/deferred/smtp/;", ready["STATUS"])
        self.assertIn(f"monitor {daemon.pid}", ready["STATUS"])

    def test_hangup_of_the_monitor_is_told_and_that_of_a_worker_is_not(self):
        manager = self.listen()
        daemon = self.launch_with()
        worker = manager.until("READY")["pid"]
        self.expect_end(worker)
        os.kill(worker, signal.SIGHUP)
        manager.until("READY")
        daemon.signal(signal.SIGHUP)
        self.assertEqual(manager.until("STOPPING")["pid"], daemon.pid)
        self.stop()
        manager.rest()
        self.assertEqual([told["pid"] for told in manager.messages if "STOPPING" in told], [daemon.pid])

    def test_manager_that_is_not_there_delays_nothing(self):
        self.environment = {"NOTIFY_SOCKET": str(self.root.path / "nobody")}
        self.launch_with()
        self.wait_event(10000, 54)
        with self.connect() as client:
            self.assertEqual(client.ask("served"), "served")


if __name__ == "__main__":
    unittest.main()
