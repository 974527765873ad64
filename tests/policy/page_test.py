"""What docs/policy.md shows is what velt-policy says, and it finds no fault with the samples. With UPDATE=1 the page is
brought up to date."""
import os
import pathlib
import re
import shlex
import subprocess
import tempfile
import time
import unittest

import forms

PAGE = forms.ROOT / "docs/policy.md"
FILE = re.compile(r"^`(example/[^`]*)`:\n\n```\w+\n(.*?)^```$", re.M | re.S)
TALK = re.compile(r"^<!-- at (\d+) -->\n```console\n\$ (velt-policy [^\n]*)\n(.*?)^```$", re.M | re.S)


class Page(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="velt-page-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.text = PAGE.read_text()
        for name, content in FILE.findall(self.text):
            (self.folder / name).parent.mkdir(parents=True, exist_ok=True)
            (self.folder / name).write_text(content)

    def said(self, hour, command):
        """The tool's own words, in a time zone in which it is this hour."""
        _, *words = shlex.split(command)
        zone = f"HERE{(time.gmtime().tm_hour - int(hour)) % 24}"
        done = subprocess.run([os.environ["VELT_POLICY"], *words], cwd=self.folder, env={**os.environ, "TZ": zone},
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertIn(done.returncode, (0, 1), done.stdout)
        return done.stdout

    def test_each_example_is_what_the_tool_says(self):
        talks = TALK.findall(self.text)
        self.assertEqual(len(talks), self.text.count("```console"))
        for hour, command, shown in talks:
            with self.subTest(command=command, hour=hour):
                self.assertEqual(shown, self.said(hour, command))

    def update(self):
        def fresh(talk):
            return f"<!-- at {talk[1]} -->\n```console\n$ {talk[2]}\n{self.said(talk[1], talk[2])}```"
        PAGE.write_text(TALK.sub(fresh, self.text))

    def test_settings_events_and_links_are_there(self):
        pages = {name: (forms.ROOT / "docs" / name).read_text() for name in ("settings.md", "events.md")}
        for setting in re.findall(r"`([A-Z][a-z]\w*[A-Z]\w*)`", re.sub(r"```.*?```", "", self.text, flags=re.S)):
            self.assertRegex(pages["settings.md"], rf"(?m)^\| `{setting}` ")
        for event in re.findall(r"\b\d{5}:\d+\b", self.text):
            self.assertRegex(pages["events.md"], rf"(?m)^\| {event} ")
        for link in re.findall(r"\]\(([^)#]+)", self.text):
            self.assertTrue((PAGE.parent / link).exists(), link)


class Samples(unittest.TestCase):
    """As they are shipped."""

    def test_nothing_is_to_be_found_fault_with(self):
        samples = sorted(path for path in forms.SAMPLES.iterdir() if path.is_dir())
        self.assertEqual([path.name for path in samples], ["provider", "small-office", "transparent"])
        for sample in samples:
            for names in ((), ("--product", "velt", "--proxy", "smtp")):
                done = subprocess.run([os.environ["VELT_POLICY"], "check", sample, *names], stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, text=True, check=False)
                self.assertEqual((done.returncode, done.stdout), (0, ""), sample.name)


if __name__ == "__main__":
    if os.environ.get("UPDATE"):
        page = Page()
        page.setUp()
        page.update()
        page.doCleanups()
    else:
        unittest.main()
