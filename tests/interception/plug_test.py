"""A gateway that joins the clients of intercepted sessions to their servers: neither of the two can tell, but by time."""
import os
import socket
import threading
import unittest

import harness
import net_case
from harness import network
from net_case import MAIL, NetCase
from smtp_case import EICAR, with_attachment

BULK = 12 << 20  # bytes each way at once


class Swapper:
    """A server in its own namespace that sends what it gets, from the first byte on, and a few bytes of its own first."""

    def __init__(self, namespace):
        with namespace.entered():
            self.listener = socket.create_server((network.SERVER_ADDRESS, 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self._run)
        self.thread.start()

    def _run(self):
        client, _ = self.listener.accept()
        with client:
            client.sendall(b"hello")
            while block := client.recv(1 << 20):
                client.sendall(block)

    def close(self):
        self.thread.join()
        self.listener.close()


class Common:
    program = os.environ["VELT_PLUGGED"]

    def test_client_and_server_talk_as_if_nobody_stood_between(self):
        self.begin_between()
        client = self.client()
        self.assertTrue(client.greeting.startswith("220 sink"), client.greeting)
        virus = with_attachment(EICAR)
        self.assertRegex(client.mail(virus), r"^250 ")
        self.assertEqual(self.sink.wait_messages(1)[0].content, virus)
        self.assertEqual(self.sink.peers, [network.CLIENT_ADDRESS])
        self.assertEqual(self.session()["connection_type"], "Transparent")

    def test_bulk_passes_both_ways_at_once_unchanged(self):
        self.begin_between()
        server = Swapper(self.networks.server)
        self.addCleanup(server.close)
        self.networks.load(net_case.rules_of(self.mode, self.port, (MAIL, server.port)))
        content = os.urandom(1 << 20) * (BULK >> 20)
        with self.networks.client.connect(network.SERVER_ADDRESS, server.port) as client:
            client.settimeout(harness.LIMIT)
            sender = threading.Thread(target=client.sendall, args=(content,))
            sender.start()
            received = bytearray()
            while len(received) < 5 + BULK:
                block = client.recv(1 << 20)
                self.assertTrue(block, "the end came early")
                received += block
            sender.join()
        self.assertTrue(bytes(received) == b"hello" + content)

    def test_sessions_leave_no_descriptor(self):
        self.begin_between()
        [worker] = self.workers()
        self.assertRegex(self.client().mail(), r"^250 ")
        before = len(harness.descriptors(worker))  # with one session
        clients = [self.client() for _ in range(10)]
        for client in clients:
            self.assertRegex(client.mail(), r"^250 ")
        for client in clients:
            client.close()
        harness.wait_until(lambda: len(harness.descriptors(worker)) <= before, "the descriptors of those that have left")

    def test_a_server_that_refuses_is_an_end_without_a_word(self):
        self.begin_between()
        self.sink.close()
        self.assertEqual(self.client().greeting, "")

    def test_silence_ends_the_session_without_a_word(self):
        self.begin_between(network={"Timeout": 1})
        client = self.client()
        self.assertTrue(client.greeting.startswith("220 sink"), client.greeting)
        self.assertEqual(client.read(), "")

    def test_the_end_of_the_server_is_the_end_for_the_client(self):
        self.begin_between()
        client = self.client()
        self.assertRegex(client.ask("QUIT"), r"^221 ")
        self.assertEqual(client.read(), "")

    def test_a_session_that_came_to_the_gateway_itself_leads_nowhere(self):
        self.begin_between()
        self.assertEqual(self.client(network.INNER_ADDRESS, self.port).greeting, "")
        self.assertEqual(self.session()["connection_type"], "Proxy")
        self.assertEqual(self.sink.peers, [])


class Tproxy(Common, NetCase):
    mode = "tproxy"


class Redirect(Common, NetCase):
    mode = "redirect"


if __name__ == "__main__":
    net_case.skip_where_forbidden()
    unittest.main()
