"""Clients that mean harm to the scanner daemon, and networks that cut them off."""
import contextlib
import socket
import struct
import unittest

import harness
from farm_case import limited
from scannerd_case import (EICAR, GONE, REFUSED, SILENT, TOO_LARGE, TOO_MANY_NAMES, ScannerdCase, mail, scan, set_up, wide)

GROWTH = 48 * 1024  # KiB; a sanitizer's memory is not the daemon's
COUNTS = (2 ** 31 - 1, 2 ** 31, 2 ** 32 - 1, 2 ** 32, 2 ** 62, 2 ** 63 - 1, 2 ** 63, 2 ** 64)


class Hostile(ScannerdCase):
    def begin(self, **sections):
        if not harness.SANITIZED:
            self.program = limited(self.root, self.program)
        daemon = super().begin(**sections)
        self.expect(*REFUSED, at_least=0)
        self.expect(*GONE, at_least=0)
        self.expect(*TOO_LARGE, at_least=0)
        client = self.client()
        client.item(mail(EICAR))  # the engines are loaded
        client.close()
        return daemon

    def assert_still_scans(self):
        self.assertTrue(self.client().item(mail(EICAR)).triggered)
        self.assertFalse(self.client().item(mail()).triggered)

    def pour(self, piece, times):
        """Sends as long as the daemon takes it."""
        client = self.client()
        with contextlib.suppress(OSError):
            for _ in range(times):
                client.send(piece)
        with contextlib.suppress(OSError):
            client.socket.shutdown(socket.SHUT_WR)
            client.is_closed()

    def assert_bounded(self, worker, before):
        self.assertEqual(self.workers(), [worker])
        if not harness.SANITIZED:
            self.assertLess(harness.resident_kib(worker) - before, GROWTH)

    def test_lines_without_end_take_no_memory(self):
        self.begin()
        (worker,) = self.workers()
        before = harness.resident_kib(worker)
        for piece in (b"x" * 65536, b"x " + b"y" * 65534, b"x y\n" * 16384, b"\0" * 65536):
            self.pour(piece, 512)
        self.pour(set_up(size=5)[:-2] + b"scan_properties.A ss 9223372036854775807\n", 1)
        for head in (b"scan_properties." + b"a." * 5000 + b"b sl 1\n", b"scan_properties.a<2000000000>.b sl 1\n",
                     b"scan_properties.A sl 1\n", b"#\n"):
            client = self.client()
            with contextlib.suppress(OSError):
                client.send(set_up(size=5)[:-2])
                for _ in range(64):
                    client.send(head * (1 + 65536 // len(head)))
            client.close()
        self.assert_bounded(worker, before)
        self.assert_still_scans()

    def test_a_string_without_measure_is_read_as_far_as_a_section_goes(self):
        self.begin()
        (worker,) = self.workers()
        before = harness.resident_kib(worker)
        for kind in ("ss", "ms"):
            for count in COUNTS:
                head = set_up(size=5)[:-2] + f"scan_properties.A {kind} {count}\n".encode()
                client = self.client()
                client.send(head + wide("abc"))
                client.socket.shutdown(socket.SHUT_WR)
                self.assertTrue(client.is_closed(), (kind, count))
                client.close()
            client = self.client()
            self.assertEqual(client.state(head + b"x" * (1024 * 1024)), "DENIED")
            client.close()
        self.assert_bounded(worker, before)
        self.assert_still_scans()

    def test_a_number_without_measure_is_a_number(self):
        self.begin()
        for kind in ("sl", "ml", "sb", "ss", "ms"):
            for count in (*(-count for count in COUNTS), *(COUNTS if kind[1] != "s" else ())):
                client = self.client()
                self.assertEqual(client.state(set_up(mail(), section=f"scan_properties.A {kind} {count}\n".encode())), "OK",
                                 (kind, count))
                client.close()
        self.assert_still_scans()

    def test_attributes_without_measure_are_held_to_their_limits(self):
        self.begin()
        (worker,) = self.workers()
        before = harness.resident_kib(worker)
        for section in (b"conattr.a<2000000000>.b sl 1\n" * 20000, b"conattr." + b"a." * 5000 + b"b sl 1\n",
                        b"conattr.A ss -1\n"):
            client = self.client()
            self.assertEqual(client.state(set_up(mail(EICAR), policy="counting")), "OK")
            self.assertEqual(client.state(scan(attributes=True)), "Attributes")
            self.assertTrue(client.verdict(section + b"\r\n").triggered)
            client.close()
        for count in COUNTS:
            client = self.client()
            client.state(set_up(mail(EICAR), policy="counting"))
            self.assertEqual(client.state(scan(attributes=True)), "Attributes")
            client.send(f"conattr.A ss {count}\n".encode())
            client.socket.shutdown(socket.SHUT_WR)
            self.assertTrue(client.is_closed(), count)
            client.close()
        self.assert_bounded(worker, before)

    def test_properties_beyond_measure_are_held_to_their_limits(self):
        self.begin()
        (worker,) = self.workers()
        before = harness.resident_kib(worker)
        sections = [b"scan_properties.a<2000000000>.b sl 1\n" * 20000, b"scan_properties.a<1023>.b sl 1\n" * 1000,
                    b"scan_properties." + b"a." * 5000 + b"b sl 1\n", b"scan_properties.A ss -1\n", b"scan_properties.A\n",
                    b"scan_properties.A xx 1\n", b"scan_properties.A ms 1\n" + wide("a") * 1]
        for section in sections:
            client = self.client()
            self.assertEqual(client.state(set_up(mail(EICAR), section=section)), "OK")
            self.assertTrue(client.verdict(scan()).triggered)
            client.close()
        self.assert_bounded(worker, before)

    def test_names_without_end_are_forgotten_with_their_process(self):
        self.begin()
        (worker,) = self.workers()
        before = harness.resident_kib(worker)
        self.expect(*TOO_MANY_NAMES)
        self.expect_end(worker)
        taken = 0
        while taken < 1000 and self.name_is_taken(f"{taken} " + "x" * 8000):
            taken += 1
        self.assertGreater(taken, 100)
        if not harness.SANITIZED:
            self.assertLess(harness.resident_kib(worker) - before, GROWTH)
        harness.wait_until(lambda: self.workers() not in ([], [worker]), "a successor")
        self.wait_gone(worker)
        self.assert_still_scans()
        self.assertTrue(self.name_is_taken("another one"))

    def name_is_taken(self, name):
        client = self.client()
        state = client.state(set_up(mail(), policy=name))
        client.close()
        return state == "OK"

    def test_numbers_without_measure_are_refused(self):
        self.begin()
        for size in (-1, 2 ** 32, 2 ** 31 * 4, 2 ** 63 - 1, 2 ** 63, 2 ** 64, 10 ** 40, -2 ** 63, "0x10", "", "1 2"):
            client = self.client()
            self.assertEqual(client.state(set_up(mail(), size=size)), "DENIED", size)
            client.close()
        self.assert_still_scans()

    def test_a_connection_cut_at_any_byte_gets_no_verdict(self):
        self.begin()
        recorded = set_up(mail(EICAR), section=b"scan_properties.NAME ss 3\n" + wide("abc")) + scan("board")
        for cut in range(len(recorded)):
            client = self.client()
            client.send(recorded[:cut])
            if cut % 2:
                client.socket.shutdown(socket.SHUT_WR)
                said = client.file.read()
                self.assertIn(said, (b"", b"State OK\n\n"), cut)
            else:
                client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            client.close()
        self.assert_nothing_left()
        self.assert_still_scans()

    def test_every_flipped_bit_gets_an_answer_or_none(self):
        self.begin()
        recorded = set_up(mail(EICAR), policy="counting") + scan()
        for place in range(0, len(recorded)):
            flipped = bytearray(recorded)
            flipped[place] ^= 1 << (place % 8)
            client = self.client()
            client.send(bytes(flipped))
            client.socket.shutdown(socket.SHUT_WR)
            with contextlib.suppress(OSError):
                client.file.read()
            client.close()
        self.assert_nothing_left()
        self.assert_still_scans()

    def test_a_client_that_drips_has_its_time(self):
        self.begin(scannerd={"RequestTimeout": 1})
        client = self.client()
        client.socket.settimeout(0.1)
        for _ in range(200):
            try:
                client.send(b"g")
                if client.socket.recv(1) == b"":
                    break
            except TimeoutError:
                continue
            except OSError:
                break
        else:
            self.fail("the daemon listens for ever")
        self.wait_event(*SILENT)

    def test_a_client_that_falls_silent_in_its_content_has_its_time(self):
        self.begin(scannerd={"DataTimeout": 1})
        client = self.client()
        client.send(set_up(mail())[:-3])
        self.assertTrue(client.is_closed())
        self.wait_event(*SILENT)
        self.assert_nothing_left()

    def test_silent_clients_go_without_a_word(self):
        self.begin(scannerd={"IdleTimeout": 1})
        self.assertTrue(self.client().is_closed())


if __name__ == "__main__":
    unittest.main()
