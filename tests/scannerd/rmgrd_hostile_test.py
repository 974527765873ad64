"""Servers and clients that mean harm to the resource manager."""
import contextlib
import os
import socket
import struct
import threading
import unittest

import harness
from farm_case import ANY, CONTROL, COUNT, QUESTION, FarmCase, Handle, limited
from scannerd_case import EICAR, wide

GROWTH = 48 * 1024  # KiB
COUNTS = (2 ** 31 - 1, 2 ** 31, 2 ** 32 - 1, 2 ** 32, 2 ** 62, 2 ** 63 - 1, 2 ** 63, 2 ** 64, -1, -2 ** 63)
HEAD = b"State OK\nsize 0\noutput_in_input 1\ncached 0\ninput_modified 0\n\n"
FOUND = b"msr.sr.result\nclassname ss 12\nKORAVScannerinfecteditems sl 1\n\n\n"


class Server:
    """Takes each item, and answers each scan alike; what it says first may be without end."""

    def __init__(self, answer, endless=b""):
        self.answer, self.endless = answer, endless
        self.listener = socket.create_server((harness.SERVER, 0))
        self.port = self.listener.getsockname()[1]
        self.asked = 0
        self.thread = threading.Thread(target=self._serve)
        self.thread.start()

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self.listener.accept()
                with client, contextlib.suppress(OSError):
                    self._answer(client)

    def _answer(self, client):
        self._hear(client, EICAR)
        self.asked += 1
        while self.endless:
            client.sendall(self.endless)
        client.sendall(b"State OK\n\n")
        self._hear(client, b"get scan\n\n")
        client.sendall(self.answer)

    @staticmethod
    def _hear(client, end):
        heard = b""
        while end not in heard:
            piece = client.recv(4096)
            if not piece:
                raise OSError("gone")
            heard += piece

    def close(self):
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join(harness.LIMIT)


class Hostile(FarmCase, harness.DaemonCase):
    def begin(self, servers=()):
        self.good = Server(HEAD + FOUND)
        self.servers = [self.good, *servers]
        for server in self.servers:
            self.addCleanup(server.close)
        file = self.root.write("/servers", "".join(f"s{server.port} {harness.SERVER} {server.port}\n" for server in self.servers))
        program = os.environ["VELT_RMGRD"] if harness.SANITIZED else limited(self.root, os.environ["VELT_RMGRD"])
        self.start_manager("--probe", "1", "--slow-start", "0", "--servers", str(file), program=program)
        self.manager.wait_up(self.good)

    def assert_unharmed(self, before):
        self.assertIsNone(self.manager.process.poll(), self.manager.log())
        if not harness.SANITIZED:
            self.assertLess(harness.resident_kib(self.manager.process.pid) - before, GROWTH)
        self.assertEqual(self.handle().wait(5).port, self.good.port)

    def assert_refused(self, servers):
        """Each is looked at again and again, and gets no work."""
        before = harness.resident_kib(self.manager.process.pid)
        harness.wait_until(lambda: all(server.asked >= 3 for server in servers), "three looks")
        for server in servers:
            self.assertRegex(self.manager.last_word(server.port), r"^gets no work: ", (server.answer[:99], server.endless[:99]))
        self.assert_unharmed(before)

    def test_servers_with_numbers_without_measure_get_no_work(self):
        servers = [Server(HEAD + line + b"\n\n") for count in COUNTS
                   for line in (f"msr.sr.result\nclassname ss {count}\nKORAVScanner".encode(),
                                f"msr.sr.result\ninfectionlist {count}\n".encode() + wide("abc"),
                                f"msr.action ss {count}\nDENY".encode())]
        self.begin(servers)
        self.assert_refused(servers)

    def test_servers_with_names_without_measure_get_no_work(self):
        place = b"msr.sr.result\nproperty ."
        servers = [Server(HEAD + place + name + b" sl 1\n\n\n\n") for name in
                   (b"a<2000000000>.b", b"a." * 5000 + b"b", b"a<-1>.b", b"a<1023>.b<1023>.c<1023>.d")]
        servers += [Server(HEAD + b"msr.sr.result\n" + b"property .a<1023>.b<1023>.c sl 1\n" * 20000 + b"\n\n\n")]
        self.begin(servers)
        self.assert_refused(servers)

    def test_servers_that_never_end_get_no_work(self):
        servers = [Server(b"", endless) for endless in (b"x" * 65536, b"x " + b"y" * 65534, b"x y\n" * 16384, b"\0" * 65536,
                                                         b"\n" * 65536)]
        servers += [Server(HEAD + line * (1 + 2 ** 21 // len(line))) for line in (b"x", b"#\n", b"msr.sr.result\n\n")]
        self.begin(servers)
        self.assert_refused(servers)

    def test_questions_without_measure_are_answered_or_hung_up_on(self):
        self.begin()
        before = harness.resident_kib(self.manager.process.pid)
        numbers = (-2 ** 31, -2, -1, 0, 1, 2, 2000000000, 2 ** 31 - 1)
        for request in (*range(10), 2 ** 31, 2 ** 32 - 1):
            for opened in (None, CONTROL, ANY, 1):
                for number in numbers:
                    self.ask_anything(opened, request, number)
        self.assertEqual(self.handle(CONTROL).ask(COUNT)[0], 1, "what was announced has gone")
        self.assert_unharmed(before)

    def ask_anything(self, opened, request, number):
        if opened is None:
            other = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            other.connect(str(self.manager.path))
        else:
            other = Handle(self.manager.path, opened).socket
        with other, contextlib.suppress(OSError):
            name = b"\xff" * 32
            other.sendall(struct.pack("=I3i4sI32s", request, number, number, number, b"\xff" * 4, number & 0xFFFFFFFF, name))
            other.recv(4096, socket.MSG_DONTWAIT)

    def test_packets_of_any_size_are_hung_up_on(self):
        self.begin()
        before = harness.resident_kib(self.manager.process.pid)
        for size in (1, 4, QUESTION.size - 1, QUESTION.size + 1, 4096, 100000):
            handle = self.handle()
            handle.socket.send(b"\0" * size)
            harness.wait_until(lambda: not handle.is_open(), "a closed connection")
        self.assert_unharmed(before)


if __name__ == "__main__":
    unittest.main()
