"""What the scenarios of the last call share: processes that die in a call that changes what is on disk, and what has to be
true whichever call it was."""
import collections
import itertools
import os
import pathlib
import re
import signal
import struct
import time
from typing import NamedTuple

import harness
import smtp_case
from deferred_case import GIVEN_UP, RESENT, DeferredCase, message_id
from lost_writes import calls_in
from smtp_case import SENDER, STAFF

LIBRARY, CLOCK = (os.environ.get(f"VELT_{what}_CALLS_LIBRARY", "") for what in ("FILE", "CLOCK"))
INSTEAD, IN_PART, BEHIND, FAILS, HOLDS = range(5)  # where in its call a process dies; or the call fails, at once or later
DORA = "dora@inside.example"
SWEPT, DEFERRED_SWEPT, CLIENT_GONE, WORKER = (60000, 17), (60000, 27), (60000, 14), (10000, 54)
ONE_PASS = ("-p", "-s", "retryer", "-t", "smtp")
NEVER = 1 << 40  # a call that nobody comes to
LATER = 7300  # seconds, after which what was left unfinished is old
LARGE = smtp_case.body("".join(f".{number} {'x' * 900}\r\n" for number in range(7)))  # on disk, where it is spooled


class Arrived(NamedTuple):
    recipients: list
    content: bytes

    @property
    def reports(self):
        return self.recipients == [SENDER]


class CrashCase(DeferredCase):
    def setUp(self):
        super().setUp()
        self.plan, self.clock = self.root.path / "file-calls", self.root.path / "clock-calls"
        self.record = self.root.path / "recorded-calls"
        self.plan.write_bytes(bytes(24))
        self.clock.write_bytes(bytes(16))
        for event in (RESENT, GIVEN_UP, SWEPT, DEFERRED_SWEPT, CLIENT_GONE, WORKER):
            self.expect(*event, at_least=0)

    @property
    def dying(self):
        return {"LD_PRELOAD": LIBRARY, "VELT_FILE_CALLS": str(self.plan)}

    @property
    def recorded(self):
        return {"LD_PRELOAD": LIBRARY, "VELT_FILE_CALLS_RECORD": str(self.record)}

    @property
    def with_clock(self):
        return {"LD_PRELOAD": CLOCK, "VELT_CLOCK_CALLS": str(self.clock)}

    def begin(self, **more):
        return super().begin(scanning={"MaxScanMem": 4}, **more)

    # --- the last call ---

    def arm(self, call, manner=INSTEAD):
        with open(self.plan, "r+b") as file:
            file.write(struct.pack("qqq", call, 0, manner))

    def was_hit(self):
        """False: fewer calls were made, and nobody will be hit any more."""
        at, _, _ = struct.unpack("qqq", self.plan.read_bytes())
        self.arm(0)
        return at == 0

    def calls_of(self, act):
        """How many calls it makes."""
        self.arm(NEVER)
        act()
        _, made, _ = struct.unpack("qqq", self.plan.read_bytes())
        self.arm(0)
        return made

    def wait_held(self, process):
        """It stands still in its call; go_on() lets the call fail."""
        stat = pathlib.Path(f"/proc/{process}/stat")
        harness.wait_until(lambda: stat.read_text().rsplit(")", 1)[1].split()[0] == "T", "a process that stands still")
        return process

    @staticmethod
    def go_on(process):
        os.kill(process, signal.SIGCONT)

    def each_call(self, act, manners=(INSTEAD, IN_PART, BEHIND) if harness.FULL else (INSTEAD, IN_PART)):
        """act() with the first call as the one that is hit, with the second, and so on until none is, in each of these
        manners. The number of calls."""
        for manner in manners:
            for call in itertools.count(1):
                self.arm(call, manner)
                with self.subTest(call=call, manner=manner):
                    act()
                if not self.was_hit():
                    break
            print(f"\n  {call - 1} calls", end="", flush=True)
        return call - 1

    # --- the folder ---

    def kept(self, recipients=(STAFF,), content=LARGE):
        """What the folder has in it when one mail waits, and nobody works on it."""
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        client = self.client()
        self.assertRegex(client.mail(content, recipients), r"^250 ")
        client.close()
        self.sink.replies = {}
        self.stop(self.gateway)
        self.wait_all_gone()
        return self.files()

    def files(self, directory=None):
        return {path.name: path.read_bytes() for path in (directory or self.directory).iterdir()}

    def lay(self, files, directory=None):
        """Exactly these."""
        directory = directory or self.directory
        for path in directory.iterdir():
            path.unlink()
        for name, content in files.items():
            (directory / name).write_bytes(content)
            (directory / name).chmod(0o600)

    def one_pass(self, environment=None):
        passing = self.retryer(ONE_PASS, environment=environment)
        passing.wait()
        self.daemons.remove(passing)

    def later(self):
        """The environment of processes that begin when what was left unfinished is old."""
        self.clock.write_bytes(struct.pack("qq", LATER, int(time.time()) + 1))
        return self.with_clock

    def recover(self):
        """The next start, once what was left unfinished is old; until nothing waits."""
        environment = self.later()
        for _ in range(4):
            self.one_pass(environment)
            if not self.files():
                break
        self.clock.write_bytes(bytes(16))

    # --- what is promised ---

    def mark(self):
        """What arrives from now on is counted."""
        self._messages, self._resent = len(self.sink.messages), len(self.events(*RESENT))

    def judge(self, owed, told=(), before=(), acknowledged=True):
        """Those `owed` have the mail once, or once more for each second copy that was counted. The sender was told of
        those that he is to be `told` of, by one and the same notification, whose second copies are counted, too. Nothing is left."""
        arrived = [*before, *(Arrived(one.recipients, one.content) for one in self.sink.messages[self._messages:])]
        resent = len(self.events(*RESENT)) - self._resent
        reports = [one for one in arrived if one.reports]
        copies = collections.Counter(name for one in arrived if not one.reports for name in one.recipients)
        for name in owed:
            self.assertIn(copies[name], range(int(acknowledged), 2 + resent), f"copies for {name}, {resent} counted")
        self.assertEqual(set(copies) - set(owed), set())
        self.assertEqual(len({one.content for one in arrived if not one.reports}), min(1, sum(copies.values())))
        self.assertEqual(len({message_id(one.content) for one in reports}), int(bool(told)))
        self.assertLessEqual(len(reports), int(bool(told)) + resent, f"notifications, {resent} counted")
        for one in reports:
            self.assertEqual(re.findall(rb"Final-Recipient: rfc822; (.*)\r", one.content), [name.encode() for name in told])
        self.assertEqual(self.files(), {})
        self.assertEqual(self.left_in_spool(), [])

    def calls(self):
        """Those that were recorded."""
        return calls_in(self.record.read_bytes())

    def left_in_spool(self):
        return [str(path) for path in (self.root.path / "scandir").rglob("*") if path.is_file()]
