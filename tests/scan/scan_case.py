"""What the tests of velt-scan share: a configuration, files, and the tool run over them."""
import json
import os
import pathlib
import subprocess
import tempfile
import time
import unittest
import zipfile

MIB = 1 << 20
TOOL = os.environ["VELT_SCAN"]
SOURCE = pathlib.Path(__file__).resolve().parents[2]
# The test file of the trade, put together here so that no scanner takes the tree for it.
VIRUS = rb"X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR" + b"-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"
ACTIONS = "<actions>" + "".join(f"<action>{one}</action>" for one in ("LOG", "REPLACE", "DENY")) + "</actions>"


def zipped(entries, method=zipfile.ZIP_DEFLATED):
    """A zip archive of {name: content}."""
    with tempfile.SpooledTemporaryFile() as file:
        with zipfile.ZipFile(file, "w", method) as archive:
            for name, content in entries.items():
                archive.writestr(zipfile.ZipInfo(name), content, method)  # the same in every run
        file.seek(0)
        return file.read()


class Scan:
    """What one process has said: a verdict for each file, the totals, its exit status, its time and its memory."""

    def __init__(self, arguments):
        begin = time.monotonic()
        with tempfile.TemporaryFile("w+") as said:
            process = subprocess.Popen([TOOL, "--json", *map(str, arguments)], stdin=subprocess.DEVNULL, stdout=said)
            _, status, used = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            said.seek(0)
            lines = [json.loads(line) for line in said]
        self.seconds = time.monotonic() - begin
        self.status = process.returncode
        self.peak = used.ru_maxrss * 1024  # bytes
        self.totals = lines.pop() if lines else {}
        self.verdicts = {pathlib.Path(one["file"]).name: one for one in lines}


class ScanCase(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="velt-scan-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.policy("")

    def policy(self, settings):
        """The inside of the policy "content"."""
        self.write("config/qxxmlconf/rules.xml", f'<rules><policy name="content">{ACTIONS}{settings}</policy></rules>')

    def write(self, name, content):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        return path

    def scan(self, *files, output=None):
        """Paths, or {name: content} of files that are written first."""
        paths = []
        for one in files:
            made = [self.write(f"in/{name}", content) for name, content in one.items()] if isinstance(one, dict) else [one]
            paths += made
        where = ("--output", output) if output else ()
        return Scan(["--root", self.folder, *where, "--", *paths])
