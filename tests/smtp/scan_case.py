"""The test in which each scan of the mail gateway has one outcome, in the counters and in the events alike."""
import os
import resource
import subprocess

import harness
from smtp_case import ACCEPTED, DEFERRED, NOT_SCANNED, REFUSED, SCAN_FAILED, SmtpCase

COUNTERS = os.environ["VELT_COUNTERS"]
OUTCOMES = ("clean", "acted", "failed", "null")


class ScanCase(SmtpCase):
    def counters(self, prefix):
        """Those whose names begin so, by the rest of their names."""
        shown = subprocess.run([COUNTERS, self.proxy], capture_output=True, text=True, check=True,
                               env={**os.environ, "VELT_ROOT": str(self.root.path)}).stdout
        found = (line.split() for line in shown.splitlines() if line.startswith(prefix))
        return {name[len(prefix):]: int(number) for name, number in found}

    def counted(self):
        """The scans so far, by outcome, and "asked"."""
        numbers = self.counters("smtp.scans.")
        return {name: numbers.get(name, 0) for name in ("asked", *OUTCOMES)}

    def told(self):
        """The same of the messages' events."""
        sums = dict.fromkeys(OUTCOMES, 0)
        for event in (ACCEPTED, REFUSED, DEFERRED):
            for one in self.events(*event):
                for name, number in (one["values"].get("smtp_scans") or {}).items():
                    sums[name] += number
        return sums

    def assert_conserved(self, lost=0, **expected):
        """Exactly these outcomes, and so many scans that ended with their process."""
        expected = {**dict.fromkeys(OUTCOMES, 0), **expected}
        counted = self.counted()
        self.assertEqual(counted, {"asked": sum(expected.values()) + lost, **expected})
        harness.wait_until(lambda: self.told() == expected, f"events of {expected}, not {self.told()}")
        self.assertEqual(len(self.events(*SCAN_FAILED)), expected["failed"])
        self.assertEqual(len(self.events(*NOT_SCANNED)), expected["null"])
        for one in self.events(*ACCEPTED):
            self.assertFalse({"failed", "null"} & set(one["values"]["smtp_scans"]), "passed unscanned")
        self.assertEqual(len(self.sink.messages), len(self.events(*ACCEPTED)))


class OnAFullDisk:
    """Before another case: no file of the gateway may grow beyond the largest, as if the disk were full."""

    largest = None  # bytes

    def launch(self, options=("-d",), arguments=(), environment=None):
        old = resource.getrlimit(resource.RLIMIT_FSIZE)
        resource.setrlimit(resource.RLIMIT_FSIZE, (self.largest, old[1]))
        try:
            return super().launch(options, arguments, environment)
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, old)
