"""What "systemctl reload" does: every worker is replaced, one after the other, and nobody notices."""
import os
import subprocess
import unittest

import echo_case
import harness

SCRIPT = os.environ.get("VELT_REPLACE_WORKERS")


class Reload(echo_case.EchoCase):
    def reload(self, daemon):
        subprocess.run([SCRIPT, str(daemon.pid)], check=True, timeout=harness.LIMIT)

    def assert_replaced_under_load(self, **sections):
        daemon = self.start(**sections)
        workers = int(sections["network"]["AcceptCount"])
        before = daemon.workers()
        with self.connect() as old, echo_case.Load(self.port) as load:
            self.assertEqual(old.ask("before"), "before")
            load.wait_done(10)
            self.reload(daemon)
            self.wait_event(10000, 54, count=2 * workers)
            load.wait_done(10)
            self.assertEqual(old.ask("after"), "after")
        self.assertEqual(load.errors, [])
        harness.wait_until(lambda: len(daemon.workers()) == workers, "the old workers' end")
        self.assertEqual(set(before) & set(daemon.workers()), set())
        self.assertIsNone(daemon.process.poll())

    def test_every_worker_is_replaced_and_no_session_is_lost(self):
        self.assert_replaced_under_load(network={"AcceptCount": 3, "MaxConnections": 8})

    def test_every_worker_of_the_forked_model_is_replaced_and_no_session_is_lost(self):
        self.assert_replaced_under_load(network={"AcceptCount": 2, "MaxConnections": 8}, process={"ForkedModel": True})

    def test_worker_that_still_drains_is_left_alone_by_the_next_reload(self):
        daemon = self.start(network={"AcceptCount": 3, "MaxConnections": 8})
        order = daemon.workers()
        with self.connect() as keeps_a_worker:  # its worker drains for as long as this session lasts
            self.assertEqual(keeps_a_worker.ask("one"), "one")
            self.reload(daemon)
            harness.wait_until(lambda: len(daemon.workers()) == 4, "three new workers and one that drains")
            self.reload(daemon)
            self.wait_event(10000, 54, count=9)
            self.assertEqual(keeps_a_worker.ask("two"), "two")
        harness.wait_until(lambda: len(daemon.workers()) == 3, "three workers")
        self.assertEqual(set(order) & set(daemon.workers()), set())

    def test_monitor_that_is_gone_is_a_failure(self):
        daemon = self.start()
        self.stop()
        result = subprocess.run([SCRIPT, str(daemon.pid)], capture_output=True, timeout=harness.LIMIT)
        self.assertEqual(result.returncode, 1)


if __name__ == "__main__":
    unittest.main()
