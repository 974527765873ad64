"""A directory with very many mails that rest: how long a retryer walks through it, and what memory it takes."""
import os
import pathlib
import sys
import time
import unittest

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import greeter_case  # noqa: E402
import harness  # noqa: E402
from deferred_case import WALK, DeferredCase  # noqa: E402
from rmd_files import rmd  # noqa: E402

FILES = greeter_case.size(3000, 100000)
FIRST, LAST = 2, 5  # the walks between which memory is compared
LONGEST = harness.bound(1.5)  # seconds
PAGES_KIB = 64  # what may still be touched for the first time
QUIET = f'<events><event number="{WALK[0]}" switch="off"/></events>'


class Walks(DeferredCase):
    def fill(self):
        """Mail that was tried a moment ago."""
        self.directory.mkdir(parents=True, exist_ok=True)
        behind = time.time() - 86400
        for number in range(FILES):
            name = f"a3f0c2d4-{number}"
            path = self.directory / f"{name}.rmd"
            path.write_bytes(rmd(name, tries=1))
            os.utime(path, (behind, behind))

    def begin_quietly(self):
        self.begin(smtpretryer={"ScanInterval": 1, "RetryInterval": 3600})
        logging = self.root.path / "config/qxxmlconf/smtp-retryer-logging.xml"
        logging.write_text(logging.read_text().replace("</logging>", QUIET + "</logging>"))

    def wait_counted(self, name, count):
        """When it has come so far."""
        harness.wait_until(lambda: self.counters().get(name, 0) >= count, f"{count} of {name}", 120)
        return time.monotonic()

    def cpu_seconds(self, pid):
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
        return sum(int(ticks) for ticks in fields[11:13]) / os.sysconf("SC_CLK_TCK")

    def walk(self, number, pid):
        """(seconds, CPU seconds, KiB) of this walk."""
        begin = self.wait_counted("directory_scans", number)
        end = self.wait_counted("messages.traversed", number * FILES)
        return end - begin, self.cpu_seconds(pid), greeter_case.memory(pid)["VmRSS"]

    def test_is_short_and_takes_no_memory_for_what_is_not_due(self):
        self.begin_quietly()
        self.fill()
        retryer = self.retryer()
        (pid,) = harness.wait_until(retryer.workers, "a retryer at work")
        walks = [self.walk(number, pid) for number in range(1, LAST + 1)]
        seconds = min(walk[0] for walk in walks)
        cpu = (walks[LAST - 1][1] - walks[FIRST - 1][1]) / (LAST - FIRST)
        print(f"\nwalk through {FILES} files: {seconds:.2f} s, CPU {cpu:.2f} s; {walks[0][2]} KiB after the first, "
              f"{walks[-1][2]} KiB after {LAST}", flush=True)
        self.assertLessEqual(seconds, LONGEST)
        if not greeter_case.has_shadow(pid):
            self.assertLessEqual(walks[LAST - 1][2], walks[FIRST - 1][2] + PAGES_KIB)
        self.assertEqual(self.counters()["messages.retried"], 0)
        self.assertEqual(len(self.waiting()), FILES)


if __name__ == "__main__":
    unittest.main()
