"""The dissector for Wireshark, on what a client and a real scanner daemon have said to each other."""
import json
import os
import pathlib
import shutil
import struct
import subprocess
import unittest

from scannerd_case import EICAR, ScannerdCase, mail, scan, set_up

DISSECTOR = pathlib.Path(__file__).resolve().parents[2] / "tools/wireshark/velt-scan.lua"


class Capture:
    """A file of one TCP connection, in segments of at most so many bytes."""
    CLIENT, SERVER = (b"\x0a\0\0\1", 40000), (b"\x0a\0\0\2", 40001)

    def __init__(self, path, segment):
        self.path, self.segment, self.sequence = path, segment, {self.CLIENT: 1, self.SERVER: 1}
        self.records = [struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101)]  # packets that begin with IP

    def say(self, speaker, data):
        other = self.SERVER if speaker == self.CLIENT else self.CLIENT
        for at in range(0, len(data), self.segment):
            piece = data[at:at + self.segment]
            tcp = struct.pack(">HHIIBBHHH", speaker[1], other[1], self.sequence[speaker], self.sequence[other], 0x50, 0x18,
                              65535, 0, 0)
            ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(piece), 0, 0, 64, 6, 0, speaker[0], other[0])
            packet = ip + tcp + piece
            self.records.append(struct.pack("<IIII", len(self.records), 0, len(packet), len(packet)) + packet)
            self.sequence[speaker] += len(piece)

    def write(self):
        self.path.write_bytes(b"".join(self.records))


@unittest.skipUnless(shutil.which("tshark"), "tshark is not installed: apt-get install tshark")
class Dissector(ScannerdCase):
    def said(self):
        """One connection: three scans of one item, a rest, and another item that is asked about."""
        self.begin()
        client, said = self.client(), []
        answered = client.file

        class Tee:
            def __init__(self):
                self.data = b""

            def __getattr__(self, name):
                return getattr(answered, name)

            def readline(self):
                line = answered.readline()
                self.data += line
                return line

            def read(self, count):
                data = answered.read(count)
                self.data += data
                return data

        client.file = tee = Tee()

        def ask(data, read):
            client.send(data)
            tee.data = b""
            result = read()
            said.append((data, tee.data))
            return result

        infected = b"Subject: a\r\n\r\n" + EICAR + b"\r\n"
        section = b"scan_properties.SIZE_LIMIT sl 42\nscan_properties.NAME ss 2\n" + "hé".encode("utf-32-le")
        ask(set_up(infected, section=section), client.read_headers)
        self.assertTrue(ask(scan("staff"), client.verdict).triggered)
        self.assertTrue(ask(scan(), client.verdict).triggered)
        ask(b"get stasis\n\n", client.read_headers)
        ask(b"get wakeup\n\n", client.read_headers)
        ask(set_up(mail("x" * 5000), policy="counting"), client.read_headers)
        self.assertEqual(ask(scan("staff", attributes=True), client.read_headers), {"State": "Attributes"})
        self.assertFalse(ask(b"conattr.OTHER sl 1\n\r\n", client.verdict).triggered)
        client.close()
        return said

    def dissected(self, said, segment):
        """What tshark makes of it: all values of each field, in their order."""
        path = self.root.path / f"{segment}.pcap"
        capture = Capture(path, segment)
        for asked, answered in said:
            capture.say(Capture.CLIENT, asked)
            capture.say(Capture.SERVER, answered)
        capture.write()
        fields = ("request", "state", "size", "policy", "identity", "connattr", "section", "property", "triggered", "action",
                  "class", "infections", "broken", "output_in_input")
        command = ["tshark", "-X", f"lua_script:{DISSECTOR}", "-r", str(path), "-2", "-Y", "veltscan", "-T", "json"]
        command += [word for name in fields for word in ("-e", f"veltscan.{name}")]
        run = subprocess.run(command, capture_output=True, text=True, check=True, env={**os.environ, "HOME": str(self.root.path)})
        self.assertNotIn("Lua", run.stderr)
        found = {name: [] for name in fields}
        for packet in json.loads(run.stdout):
            for name, values in packet["_source"]["layers"].items():
                found[name.removeprefix("veltscan.")] += values
        return found

    def test_a_conversation_is_shown_as_it_was_had_however_it_was_cut(self):
        said = self.said()
        for segment in (60000, 1000, 100, 16):
            found = self.dissected(said, segment)
            with self.subTest(segment=segment):
                self.assertEqual(found["request"], ["setup_scan", "scan", "scan", "stasis", "wakeup", "setup_scan", "scan"])
                self.assertEqual(found["state"], ["OK", "OK", "OK", "OK", "OK", "OK", "Attributes", "OK"])
                self.assertEqual(found["policy"], ["content_in", "counting"])
                self.assertEqual(found["identity"], ["staff", "staff"])
                self.assertEqual(found["connattr"], ["1"])
                self.assertEqual(found["triggered"], ["1", "1", "0"])
                self.assertEqual(found["action"], ["DENY", "DENY"])
                self.assertIn("KORAVScanner", found["class"])
                self.assertEqual([text.strip() for text in found["infections"]], ["EICAR-Test-File"] * 2)
                self.assertEqual(found["section"], ["scan_properties", "properties", "properties", "scan_properties",
                                                    "conattr", "properties"])
                self.assertEqual(found["property"][:2],
                                 ["scan_properties.SIZE_LIMIT sl 42", "scan_properties.NAME ss 2 hé"])
                self.assertIn("conattr.OTHER sl 1", found["property"])
                self.assertEqual(found["broken"], [])


if __name__ == "__main__":
    unittest.main()
