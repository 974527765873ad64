"""The end of a scanner daemon, and of its workers: what is in hand is brought to its end, and nobody gets half a verdict."""
import os
import signal
import threading
import unittest

import harness
from scannerd_case import EICAR, SWEPT, ScannerdCase, mail, scan, set_up


class Draining(ScannerdCase):
    def test_an_item_in_hand_is_scanned_before_the_daemon_ends(self):
        daemon = self.begin()
        client = self.client()
        self.assertEqual(client.state(set_up(mail(EICAR))), "OK")
        daemon.signal(signal.SIGHUP)
        harness.wait_until(self.nobody_listens, "a closed port")
        self.assertTrue(client.verdict(scan()).triggered)
        self.assertTrue(client.verdict(scan("board")).triggered)
        client.send(b"get stasis\n\n")
        self.assertTrue(client.is_closed(), "it is not kept for an item that nobody would scan")
        self.wait_all_gone()

    def test_a_parked_connection_holds_nothing_up(self):
        daemon = self.begin(scannerd={"ParkTimeout": 3600, "IdleTimeout": 3600})
        parked, fresh = self.client(), self.client()
        parked.item(mail())
        self.assertEqual(parked.state(b"get stasis\n\n"), "OK")
        daemon.signal(signal.SIGHUP)
        self.assertTrue(parked.is_closed())
        self.assertTrue(fresh.is_closed())
        self.wait_all_gone()

    def test_a_parked_connection_makes_room_for_a_client(self):
        self.begin(scannerd={"ParkTimeout": 3600}, network={"MaxConnections": 3}, process={"PermThreads": 1})
        parked = []
        for _ in range(3):  # one after the other: of two that come at once the pool may see one thread idle for both
            client = self.client()
            client.item(mail())
            self.assertEqual(client.state(b"get stasis\n\n"), "OK")
            parked.append(client)
        self.assertEqual(parked[1].state(b"get wakeup\n\n"), "OK")
        self.assertTrue(self.client().item(mail(EICAR)).triggered)
        self.assertTrue(parked[0].is_closed(), "the one that waited longest")
        self.assertTrue(parked[1].item(mail(EICAR)).triggered)
        self.assertEqual(parked[2].state(b"get wakeup\n\n"), "OK")
        self.assertEqual(self.counters()["parked.ended"], 1)

    def test_a_connection_that_is_parked_makes_room_for_a_client_that_waits_already(self):
        self.begin(scannerd={"ParkTimeout": 3600}, network={"MaxConnections": 1}, process={"PermThreads": 1})
        busy = self.client()
        busy.item(mail())
        waiting = self.client()
        waiting.send(set_up(mail(EICAR)))
        harness.wait_until(lambda: self.all_counters()["connections.queued"] == 2, "a client that waits for a thread")
        busy.send(b"get stasis\n\n")
        self.assertEqual(waiting.read_headers()["State"], "OK")
        self.assertTrue(waiting.verdict(scan()).triggered)
        self.assertTrue(busy.is_closed())
        self.assertEqual(self.counters()["parked.ended"], 1)

    def test_no_connection_is_ended_for_a_client_that_finds_a_thread(self):
        self.begin(scannerd={"ParkTimeout": 3600}, network={"MaxConnections": 1}, process={"PermThreads": 4})
        parked = [self.client() for _ in range(4)]
        for client in parked:
            client.item(mail())
            self.assertEqual(client.state(b"get stasis\n\n"), "OK")
        for client in parked:
            self.assertEqual(client.state(b"get wakeup\n\n"), "OK")
        self.assertEqual(self.counters()["parked.ended"], 0)

    def test_a_worker_that_drains_has_a_successor(self):
        self.begin()
        client = self.client()
        self.assertEqual(client.state(set_up(mail(EICAR))), "OK")
        (old,) = self.workers()
        self.expect_end(old)
        self._end_in_order(old)
        self.assertTrue(self.client().item(mail(EICAR)).triggered, "the new one scans")
        self.assertTrue(client.verdict(scan()).triggered, "and the old one, what it has begun")
        client.close()
        self.wait_gone(old)

    def _end_in_order(self, worker):
        os.kill(worker, signal.SIGHUP)
        harness.wait_until(lambda: len(self.workers()) == 2, "a successor")

    def nobody_listens(self):
        try:
            self.client().close()
        except ConnectionRefusedError:
            return True
        return False


class Killed(ScannerdCase):
    def test_a_killed_worker_leaves_no_verdict_and_has_a_successor(self):
        self.begin()
        client = self.client()
        self.assertEqual(client.state(set_up(mail(EICAR))), "OK")
        killed = self.kill_worker()
        self.assertTrue(client.is_closed())
        harness.wait_until(lambda: self.workers() not in ([], [killed]), "a successor")
        self.assertTrue(self.client().item(mail(EICAR)).triggered)

    def test_what_killed_workers_left_is_removed_an_hour_later(self):
        old = self.spooled(b"old", "scannerd/old.in")
        os.utime(old, (0, 0))
        young = self.spooled(b"young", "scannerd/young.in")
        self.begin()
        self.wait_event(*SWEPT)
        self.assertEqual((old.exists(), young.exists()), (False, True))

    def test_many_clients_at_once_each_get_their_own_verdict(self):
        self.begin(network={"AcceptCount": 2, "MaxConnections": 8})
        wrong = []

        def run(number):
            client = self.client()
            for turn in range(20):
                found = (number + turn) % 2 == 0
                if client.item(mail(EICAR) if found else mail()).triggered != found:
                    wrong.append((number, turn))
                if client.state(b"get stasis\n\n") != "OK" or client.state(b"get wakeup\n\n") != "OK":
                    wrong.append((number, turn, "not kept"))
            client.close()
        threads = [threading.Thread(target=run, args=(number,)) for number in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(harness.LIMIT)
        self.assertEqual(wrong, [])
        self.assertEqual(self.counters()["items"], 160)


if __name__ == "__main__":
    unittest.main()
