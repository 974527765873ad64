"""Starts daemons for tests and leaves nothing behind.

A Root is a folder that stands for the system's root; a Daemon is one gateway that runs in it, in a process session of
its own, with the settings that the test gives. Everything waits for events, for connections or for the end of a process,
each with a limit; nothing sleeps for its own sake. A test ends by checking that no process of its root is left, and
that nothing was reported but what is routine and what the test announced.

    class Mine(harness.DaemonCase):
        def test_it_answers(self):
            self.start(network={"MaxConnections": 4})
            with self.connect() as client:
                self.assertEqual(client.ask("hello"), "hello")

        def test_a_killed_worker_is_replaced(self):
            self.start()
            killed = self.kill_worker()
            self.assertNotEqual(self.wait_worker(), [killed])
"""
from harness.basics import CLIENT, COUNTED, FULL, LIMIT, SANITIZED, SERVER, bound, free_ports, settings_xml, wait_until
from harness.case import DaemonCase
from harness.client import Line
from harness.daemon import Daemon
from harness.events import ROUTINE, EventLog, event_in
from harness.processes import descriptors, process_fields, resident_kib
from harness.root import Root

__all__ = ["CLIENT", "COUNTED", "FULL", "LIMIT", "ROUTINE", "SANITIZED", "SERVER", "Daemon", "DaemonCase", "EventLog", "Line",
           "Root", "bound", "descriptors", "event_in", "free_ports", "process_fields", "resident_kib", "settings_xml", "wait_until"]
