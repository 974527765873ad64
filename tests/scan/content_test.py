"""Real content: the test virus in each of its wrappings is found, and what unpacks to more than anybody can hold ends by
the limits, in little time and memory."""
import base64
import gzip
import pathlib
import quopri
import subprocess
import sys
import tempfile
import unittest

import bombs
import harness
from mails import HEAD, attached, encoded, in_message, parts
from scan_case import MIB, VIRUS, ScanCase, zipped

UTF16 = "A text in UTF-16: \u0a0d\u2d2d, \u00e9\u00e8.\r\n".encode("utf-16")
WIDE = b"Content-Type: text/plain; charset=utf-16\r\n"
IN_BASE64 = encoded(b"base64", base64.encodebytes(VIRUS))


class Wrappings(ScanCase):
    WRAPPED = {
        "plain": VIRUS,
        "body": HEAD + b"\r\n" + VIRUS + b"\r\n",
        "base64": HEAD + IN_BASE64,
        "base64_without_line_ends": HEAD + encoded(b"base64", base64.b64encode(VIRUS)),
        "base64_in_crumbs": HEAD + encoded(b"base64", b"\r\n".join(base64.b64encode(VIRUS)[i:i + 1] for i in range(92))),
        "quoted_printable": HEAD + encoded(b"quoted-printable", quopri.encodestring(VIRUS)),
        "quoted_printable_whole": HEAD + encoded(b"quoted-printable", b"".join(b"=%02X" % one for one in VIRUS)),
        "attachment": attached(VIRUS, "virus.com"),
        "zip": zipped({"virus.com": VIRUS}),
        "zip_in_mail": attached(zipped({"folder/virus.com": VIRUS}), "a.zip"),
        "zip_in_zip_in_mail": attached(zipped({"a.zip": zipped({"virus.com": VIRUS})}), "b.zip"),
        "gzip_in_mail": attached(gzip.compress(VIRUS), "a.gz"),
        "mail_in_mail": in_message(attached(VIRUS)),
        "mail_in_mail_in_mail": in_message(in_message(parts(IN_BASE64))),
        "mail_in_zip_in_mail": attached(zipped({"a.eml": attached(VIRUS)}), "a.zip"),
        "mail_in_base64": HEAD + encoded(b"base64", base64.encodebytes(attached(VIRUS)),
                                         b"Content-Type: message/rfc822\r\n"),
        "behind_utf16_in_base64": parts(encoded(b"base64", base64.encodebytes(UTF16), WIDE), IN_BASE64),
        "behind_utf16_as_it_is": parts(encoded(b"binary", UTF16, WIDE), IN_BASE64),
        "behind_utf16_of_odd_length": parts(encoded(b"8bit", UTF16[:-1], WIDE), IN_BASE64),
        "without_an_end": parts(IN_BASE64).removesuffix(b"--cut--\r\n"),
    }

    def test_the_virus_is_found_in_each(self):
        scan = self.scan(self.WRAPPED)
        self.assertEqual(scan.status, 1)
        for name in self.WRAPPED:
            with self.subTest(name):
                verdict = scan.verdicts[name]
                self.assertEqual((verdict["verdict"], verdict["action"], verdict["errors"]), ("found", "DENY", []))
                self.assertIn("EICAR-Test-File", verdict["findings"][0]["names"])
                self.assertFalse(verdict["fallback"])

    def test_the_same_without_the_virus_is_clean(self):
        def innocent(content):
            return content.replace(VIRUS, b"nothing").replace(base64.b64encode(VIRUS), base64.b64encode(b"nothing"))
        names = ("body", "base64_without_line_ends", "attachment", "behind_utf16_as_it_is", "mail_in_mail")
        files = {name: self.WRAPPED[name] for name in names if name != "behind_utf16_as_it_is"}
        files = {name: innocent(content) for name, content in files.items()}
        files["attachment"], files["mail_in_mail"] = attached(b"nothing"), in_message(attached(b"nothing"))
        files["utf16"] = parts(encoded(b"binary", UTF16, WIDE))
        scan = self.scan(files)
        self.assertEqual((scan.status, scan.totals["clean"]), (0, len(files)), scan.verdicts)

    def test_the_place_is_told(self):
        verdict = self.scan({"mail": in_message(self.WRAPPED["zip_in_mail"])}).verdicts["mail"]
        self.assertEqual(verdict["components"], [["Message", "Part", "Message", "Part:a.zip", "Entry:folder/virus.com"]])


class Bombs(ScanCase):
    SECONDS, MEMORY = 2, 256 * MIB

    @classmethod
    def setUpClass(cls):
        # Not made here: the memory of a process that begins another one counts for that one, too.
        folder = tempfile.TemporaryDirectory(prefix="velt-bombs-")
        cls.addClassCleanup(folder.cleanup)
        cls.bombs = pathlib.Path(folder.name)
        subprocess.run([sys.executable, "-B", bombs.__file__, cls.bombs], check=True)

    def of_bomb(self, name):
        return self.of_file(self.bombs / name)

    def of_file(self, file):
        scan = self.scan(file)
        print(f"{file.name}: {file.stat().st_size} bytes, {scan.seconds:.2f} s, {scan.peak / MIB:.0f} MiB", flush=True)
        self.assertLess(scan.seconds, harness.bound(self.SECONDS))
        if not harness.SANITIZED and not harness.COUNTED:  # which have memory of their own
            self.assertLess(scan.peak, self.MEMORY)
        return scan.verdicts[file.name]

    def test_each_ends_by_a_limit(self):
        for name in bombs.BOMBS:
            with self.subTest(name):
                verdict = self.of_bomb(name)
                self.assertEqual((verdict["verdict"], verdict["action"], verdict["errors"]), ("found", "DENY", []))
                self.assertIn(verdict["findings"][0]["limit"], ("SIZE", "DEPTH"))
                self.assertTrue(verdict["fallback"])

    def test_what_many_entries_share_is_looked_at_once(self):
        self.assertEqual(self.of_bomb("one_for_many")["verdict"], "clean")
        self.assertEqual(self.of_bomb("one_virus_for_many")["verdict"], "found")

    def test_a_virus_behind_a_bomb_is_found(self):
        self.policy('<settings section="KORFormatScanner"><set name="OnLimit">LOG</set></settings>')
        packed = base64.encodebytes((self.bombs / "gzip").read_bytes())
        verdict = self.of_file(self.write("behind", parts(encoded(b"base64", packed), b"\r\n" + VIRUS)))
        self.assertEqual(verdict["action"], "DENY")
        self.assertEqual({one["limit"] for one in verdict["findings"]}, {None, "SIZE"})


if __name__ == "__main__":
    unittest.main()
