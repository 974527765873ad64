"""Scenarios in which calls of the system fail: each call of a clean run in turn, once and from then on.

A run is judged by the driver (torture.cpp): what a scenario says was done has to be there. "right" and "refused" are
well; anything else is a violation, unless the test names it as an outcome that callers are told to expect."""
import collections
import errno
import mmap
import os
import re
import struct
import subprocess
import tempfile
import unittest

import harness

# The kinds of calls in the order of FaultPlan.h, and the errors that their manual pages name. SHORT: a part goes through.
SHORT = 0
KINDS = {
    "read": (errno.EIO, errno.ECONNRESET, errno.EINTR, errno.EAGAIN, SHORT),
    "write": (errno.ENOSPC, errno.EIO, errno.EPIPE, errno.EINTR, errno.EAGAIN, SHORT),
    "poll": (errno.ENOMEM, errno.EINTR),
    "open": (errno.EMFILE, errno.EACCES, errno.EINTR),
    "accept": (errno.EMFILE, errno.ECONNABORTED, errno.EINTR, errno.EAGAIN),
    "connect": (errno.ECONNREFUSED, errno.ENETUNREACH, errno.EINTR, errno.EAGAIN),
    "fork": (errno.EAGAIN, errno.ENOMEM),
    "memory": (errno.ENOMEM,),
    "thread": (errno.EAGAIN,),
    "place": (errno.EIO, errno.EINTR),
    "close": (errno.EIO, errno.EINTR),
    "name": (errno.EIO, errno.ENOSPC, errno.EROFS),
    "lock": (errno.EAGAIN, errno.ENOLCK, errno.EINTR),
}
FROM_FIRST_LOCK = 2  # a plan that is armed so takes effect when a file is to be locked
PASSING = {errno.EINTR, errno.EAGAIN}  # no system gives these for ever
PASSING_LENGTH = 3
FOR_EVER = 2 ** 62
HEAD = "iiiiqq"

# Calls that the sanitizers' own code makes in the midst of a scenario, and memory that they do not take from here.
UNFIT = {"open", "memory"} if harness.SANITIZED else set()
LIBRARY = os.environ.get("VELT_FAULTS_LIBRARY", "")
FULL = bool(os.environ.get("FULL"))


class Plan:
    """Which calls fail: the file that the loaded library looks at."""

    def __init__(self):
        self._file = tempfile.NamedTemporaryFile(prefix="velt-faults-")
        self._file.truncate(struct.calcsize(HEAD) + 8 * len(KINDS))
        self._map = mmap.mmap(self._file.fileno(), 0)

    def close(self):
        self._map.close()
        self._file.close()

    @property
    def environment(self):
        return {"LD_PRELOAD": LIBRARY, "VELT_FAULTS": self._file.name}

    def write(self, kind="read", error=0, first=1, last=0, process=0, armed=False):
        """Counts begin anew. With `last` below `first` calls are only counted."""
        self._map[:] = struct.pack(HEAD + "q" * len(KINDS), 0, list(KINDS).index(kind), error, process, first, last,
                                   *[0] * len(KINDS))
        self.arm(armed)

    def arm(self, armed=True):
        self._map[:4] = struct.pack("i", armed)

    def calls(self):
        """So far, by kind."""
        return dict(zip(KINDS, struct.unpack_from("q" * len(KINDS), self._map, struct.calcsize(HEAD))))


class Injection(collections.namedtuple("Injection", "kind error first last")):
    def __str__(self):
        how = errno.errorcode.get(self.error, "a part")
        until = "once" if self.last == self.first else "from then on" if self.last == FOR_EVER else \
            f"{self.last - self.first + 1} times"
        return f"{self.kind} {self.first} with {how}, {until}"


def lasts_of(kind, error, first):
    """Once, and from then on; what passes by itself lasts for a few calls."""
    return first, first + PASSING_LENGTH - 1 if error in PASSING else FOR_EVER


def injections(calls, most):
    """Every call of a clean run in turn, or so many of each kind and error, evenly spread, with the first and last."""
    for kind, count in calls.items():
        if kind in UNFIT:
            continue
        most_here = count if FULL else min(most, count)
        places = sorted({1 + round(i * (count - 1) / max(most_here - 1, 1)) for i in range(most_here)})
        for error in KINDS[kind]:
            for first in places:
                for last in lasts_of(kind, error, first):
                    yield Injection(kind, error, first, last)


class Driver:
    """velt_torture, which runs scenarios by name."""

    def __init__(self, plan):
        self.plan = plan
        self._stderr = tempfile.TemporaryFile()
        self._process = subprocess.Popen([os.environ["VELT_TORTURE"]], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=self._stderr, text=True, start_new_session=True,
                                         env={**os.environ, **plan.environment})

    def close(self):
        self._process.stdin.close()
        self._process.stdout.close()
        self._process.wait()
        self._stderr.close()

    def run(self, scenario):
        self._process.stdin.write(scenario + "\n")
        self._process.stdin.flush()
        return self._process.stdout.readline().strip() or "the driver has ended: " + self._reported()

    def run_with(self, scenario, injection):
        self.plan.write(*injection)
        return self.run(scenario)

    def calls_of(self, scenario):
        """A clean run: the calls that it makes, by kind."""
        self.plan.write()
        verdict = self.run(scenario)
        if verdict != "right":
            raise AssertionError(f"{scenario} is {verdict} when nothing fails\n{self._reported()}")
        return self.plan.calls()

    def _reported(self):
        self._stderr.seek(0)
        return self._stderr.read().decode(errors="replace")[-2000:]


class TortureCase(unittest.TestCase):
    most = 3 if harness.SANITIZED else 8  # calls of one kind that fail, each with each error, where not all do
    without = {"name"}  # a file of the spool directory that cannot be removed is left for the sweep

    @classmethod
    def setUpClass(cls):
        cls.plan = Plan()
        cls.addClassCleanup(cls.plan.close)
        cls.driver = Driver(cls.plan)
        cls.addClassCleanup(cls.driver.close)

    def torture(self, *scenarios, told=(), silent=False):
        """Fails on every violation that does not match one of the patterns `told`, and where one of those never came.

        Each scenario tells of failures, but those that are `silent`."""
        for scenario in scenarios:
            calls = {kind: count for kind, count in self.driver.calls_of(scenario).items() if kind not in self.without}
            verdicts = {injection: self.driver.run_with(scenario, injection) for injection in injections(calls, self.most)}
            counts = collections.Counter(verdict.split()[0].strip(":") for verdict in verdicts.values())
            print(f"\n  {scenario}: {dict(counts)}", end="", flush=True)
            self._judge(scenario, verdicts, told)
            self.assertTrue(silent or "refused" in verdicts.values(), f"{scenario} tells of no failure")

    def _judge(self, scenario, verdicts, told):
        wrong = {str(injection): verdict for injection, verdict in verdicts.items()
                 if verdict not in ("right", "refused")}
        expected = {told_one: [text for text in map(": ".join, wrong.items()) if re.search(told_one, text)]
                    for told_one in told}
        known = {text for texts in expected.values() for text in texts}
        left = [text for text in map(": ".join, wrong.items()) if text not in known]
        self.assertFalse(left, f"{len(left)} violations in {scenario}, such as:\n" + "\n".join(left[:20]))
        for told_one, texts in expected.items():
            self.assertTrue(texts, f"{scenario} never ends as told: {told_one}")
