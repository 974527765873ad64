"""What docs/velt-scan.md shows is what velt-scan says. With UPDATE=1 its manual is brought up to date."""
import base64
import os
import pathlib
import re
import subprocess
import unittest

from scan_case import SOURCE, TOOL, VIRUS, ScanCase, zipped

PAGE = SOURCE / "docs/velt-scan.md"
FILE = re.compile(r"`(example/[^`]*)`:\n\n```\w+\n(.*?)^```$", re.M | re.S)
TALK = re.compile(r"^```console\n(.*?)^```$", re.M | re.S)
MANUAL = re.compile(r"(?<=^```text\n)(.*?)(?=^```$)", re.M | re.S)


def manual():
    return subprocess.run([TOOL, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout


def without_times(text):
    return re.sub(r"[\d.]+ ms", "- ms", text)


class Page(ScanCase):
    def setUp(self):
        super().setUp()
        self.text = PAGE.read_text()
        for name, content in FILE.findall(self.text):
            self.write(name, content)
        mail = b"From: a@example.test\nMIME-Version: 1.0\n"
        self.write("clean.eml", mail + b"Subject: lunch\n\nAt noon?\n")
        self.write("prize.eml", mail + b"Subject: You have won\nContent-Type: multipart/mixed; boundary=cut\n\n"
                   b"--cut\n\nLook.\n--cut\nContent-Type: application/zip; name=prize.zip\n"
                   b"Content-Transfer-Encoding: base64\n\n" + base64.encodebytes(zipped({"prize.com": VIRUS})) + b"\n--cut--\n")

    def said(self, command):
        done = subprocess.run(command, shell=True, cwd=self.folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, check=False, env={**os.environ, "PATH": f"{pathlib.Path(TOOL).parent}:/usr/bin:/bin"})
        return done.stdout

    def test_each_example_is_what_the_tool_says(self):
        talks = TALK.findall(self.text)
        self.assertEqual(len(talks), 3)
        for talk in talks:
            told = ""
            for command in re.findall(r"^\$ (.*)$", talk, re.M):
                told += f"$ {command}\n" + self.said(command)
            self.assertEqual(without_times(talk), without_times(told))

    def test_the_manual_is_the_tools_own(self):
        self.assertEqual(MANUAL.findall(self.text), [manual()])

    def test_links_are_there(self):
        for link in re.findall(r"\]\(([^)#]+)", self.text):
            self.assertTrue((PAGE.parent / link).exists(), link)


if __name__ == "__main__":
    if os.environ.get("UPDATE"):
        PAGE.write_text(MANUAL.sub(lambda _: manual(), PAGE.read_text()))
    unittest.main()
