"""A service whose monitor is killed: its workers leave, and the next one comes up on the same ports."""
import unittest

import echo_case
import harness


class Restart(echo_case.EchoCase):
    def start_service(self, **sections):
        self.assertEqual(self.start(options=(), **sections).wait(), 0)

    def test_next_service_serves_while_a_session_of_the_killed_one_runs_on(self):
        self.start_service()
        with self.connect() as old:
            self.assertEqual(old.ask("before"), "before")
            self.kill_monitor()
            self.wait_event(10000, 46, count=2)
            with harness.wait_until(self.answered, "an answer of the next service", harness.bound(2)) as new:
                self.assertEqual(new.ask("new"), "new")
            self.assertEqual(old.ask("after"), "after")

    def test_forked_worker_with_no_room_left_gives_its_ports_up(self):
        self.start_service(network={"MaxConnections": 2}, process={"ForkedModel": True})
        with self.connect() as first, self.connect() as second:
            self.assertEqual(first.ask("one"), "one")
            self.assertEqual(second.ask("two"), "two")
            self.kill_monitor()
            self.wait_event(10000, 46, count=2)
            with harness.wait_until(self.answered, "an answer of the next service", harness.bound(2)) as new:
                self.assertEqual(new.ask("new"), "new")
            self.assertEqual(first.ask("on"), "on")
            self.assertEqual(second.ask("on"), "on")

    def answered(self):
        """A client that the next service has answered; None while nobody listens or the old worker is on its way out."""
        try:
            client = self.connect()
            client.socket.settimeout(0.5)
            if client.ask("there?") != "there?":
                return None
            client.socket.settimeout(harness.LIMIT)
            return client
        except OSError:
            return None


if __name__ == "__main__":
    unittest.main()
