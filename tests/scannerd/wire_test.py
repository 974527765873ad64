"""A mail gateway and scanner daemons with a wire between them that counts, and that breaks."""
import os
import re
import select
import socket
import subprocess
import threading
import unittest

import harness
from mail_farm_case import LOST, REMOTE, SCANNED, MailFarmCase
from smtp_case import (DEFERRED, EICAR, NOTIFIED, PHRASE, POLICY_REFUSED, REFUSED, RULE_HIT, SCAN_FAILED, VIRUS, body,
                       with_attachment)

EXCHANGE_FAILED, LACKING, SCAN_REFUSED = LOST[1:]
IDENTITIES = ["board", "sales", "staff", "lab", "shop", "yard"]  # and those without one
POLICY = "".join(f'\n    <identity name="{name}"/>' for name in IDENTITIES if name not in ("board", "sales"))


class Wire:
    """Joins each of its clients with a scanner daemon. `asked` and `answered` are what the two said, on all connections.
    `fault` is (who speaks, behind what, how): "reset", "half close" or "short"; the wire breaks so once."""

    def __init__(self, address, scanner):
        self.address, self.scanner = address, scanner
        self.asked, self.answered, self.connections, self.fault = bytearray(), bytearray(), 0, None
        self.listener = socket.create_server((address, 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def _accept(self):
        while True:
            try:
                client = self.listener.accept()[0]
            except OSError:
                return
            self.connections += 1
            threading.Thread(target=self._carry, args=(client,), daemon=True).start()

    def _carry(self, client):
        with client, socket.create_connection((self.scanner.address, self.scanner.port)) as daemon:
            for one in (client, daemon):
                one.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            ways = {client: (daemon, self.asked, "client"), daemon: (client, self.answered, "daemon")}
            try:
                while ways:
                    for one in select.select(list(ways), [], [])[0]:
                        other, said, speaker = ways[one]
                        data = one.recv(65536)
                        if not data:
                            other.shutdown(socket.SHUT_WR)
                            del ways[one]
                            continue
                        said += data
                        if not self._break(client, one, other, data, speaker):
                            return
            except OSError:
                pass

    def _break(self, client, one, other, data, speaker):
        """Carries the data, or breaks within it. False: the connection is over."""
        fault = self.fault
        at = data.find(fault[1]) if fault and fault[0] == speaker else -1
        if at < 0:
            other.sendall(data)
            return True
        self.fault = None
        at += len(fault[1])
        other.sendall(data[:at])
        if fault[2] == "short":
            other.sendall(data[at + 8:])
            return True
        if fault[2] == "reset":
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        else:
            other.shutdown(socket.SHUT_WR)
        return False


class WiredFarm(MailFarmCase):
    def begin_wired(self):
        self.begin_manager()
        self.scanners = []
        self.wire = Wire(REMOTE, self.add_scanner(harness.SERVER))
        self.addCleanup(self.wire.close)
        self.offer(1, self.wire)
        self.begin(scanning={"LSServerWaitTime": 3})

    def configure(self, sections, **others):
        super().configure(sections, **others)
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        text = rules.read_text()
        self.assertIn('<identity name="sales"/>', text)
        rules.write_text(text.replace('<identity name="sales"/>', '<identity name="sales"/>' + POLICY))
        self.root.write("identities.xml", '<identities version="1">\n' + "".join(
            f'  <identity name="{name}">eto IS "*@{name}.*"</identity>\n' for name in IDENTITIES) + "</identities>\n")

    def counted(self, name):
        shown = subprocess.run([os.environ["VELT_COUNTERS"], self.proxy], capture_output=True, text=True, check=True,
                               env={**os.environ, "VELT_ROOT": str(self.root.path)}).stdout
        found = re.search(rf"^{re.escape(name)} +(\d+)$", shown, re.MULTILINE)
        return int(found[1]) if found else 0

    def mail(self, *message):
        """The reply to one message of a client of its own."""
        client = self.client()
        reply = client.mail(*message)
        client.close()
        return reply

    def test_the_content_of_a_mail_for_seven_identities_crosses_the_wire_once(self):
        self.begin_wired()
        self.provokes(RULE_HIT, POLICY_REFUSED, NOTIFIED)
        mark = "a line that stands in the mail once"
        content = body("x\r\n" * 20000 + mark + "\r\n" + PHRASE)
        recipients = [f"r{i}@{IDENTITIES[i % 7]}.inside.example" if i % 7 < 6 else f"r{i}@inside.example" for i in range(50)]
        self.assertEqual(len(recipients), 50)
        self.assertRegex(self.mail(content, recipients), r"^250 ")
        passed, report = self.sink.wait_messages(2)
        board = [one for one in recipients if "@board." in one]
        self.assertEqual(sorted(passed.recipients), sorted(board), "the board alone may have the phrase")
        asked, answered = bytes(self.wire.asked), bytes(self.wire.answered)
        self.assertEqual(self.wire.connections, 1)
        self.assertEqual(asked.count(b"get setup_scan\n"), 1)
        self.assertEqual(asked.count(mark.encode()), 1)
        self.assertEqual(asked.count(b"get scan\n"), 7)
        self.assertEqual(sorted(re.findall(rb"identity (\S+)\n", asked)), sorted(name.encode() for name in IDENTITIES))
        self.assertEqual(answered.count(b"State OK\nsize "), 7)
        self.assertEqual(answered.count(b"msr.triggered sl 1\n"), 6)
        size = int(re.search(rb"\nsize (\d+)\n", asked)[1])
        self.assertGreater(size, len(content))
        self.assertLess(len(asked), size + 2000)
        self.assertLess(len(answered), 10000, "the daemon leaves the content where it is")
        self.stop_scanners()
        self.assertEqual(self.scanners[0].items(), 1)
        (scanned,) = self.scanners[0].root.log.named(*SCANNED)
        self.assertEqual(int(scanned["values"]["scannerd_scans"]), 7)

    def test_a_wire_that_breaks_passes_no_mail(self):
        """Each break: a mail that waits with its sender, one event of the wire, one of the gateway and one counter."""
        self.begin_wired()
        for event in (EXCHANGE_FAILED, LACKING, SCAN_REFUSED, SCAN_FAILED, DEFERRED, VIRUS, REFUSED, POLICY_REFUSED):
            self.expect(*event, at_least=0)
        places = {("client", b"get setup_scan\nproto"): EXCHANGE_FAILED, ("client", b"Subject: te"): EXCHANGE_FAILED,
                  ("client", b"get sc"): EXCHANGE_FAILED, ("daemon", b"output_in"): None,
                  ("daemon", b"msr.modi"): None, ("daemon", b"infectionlist 15\nE"): None}
        failures = 0
        for (speaker, behind), reason in places.items():
            for how in ("reset", "half close", "short"):
                if (how, behind) == ("short", b"Subject: te"):
                    continue  # the daemon waits for the rest
                failures += 1
                what = f"{how} behind {behind!r}"
                self.wire.fault = (speaker, behind, how)
                self.assertRegex(self.mail(with_attachment(EICAR)), r"^451 4\.7\.1 ", what)
                self.assertIsNone(self.wire.fault, what)
                self.assertEqual(self.counted("scanner.conn.failures"), failures, what)
                harness.wait_until(lambda: len(self.events(*SCAN_FAILED)) == failures, f"one event: {what}")
                lost = [len(self.events(*event)) for event in (EXCHANGE_FAILED, LACKING, SCAN_REFUSED)]
                self.assertEqual(sum(lost), failures, what)
        self.assertRegex(self.mail(with_attachment(EICAR)), r"^554 5\.7\.1 .*EICAR")
        self.assertEqual(self.sink.messages, [])


if __name__ == "__main__":
    unittest.main()
