"""The greeter under test, clients that keep it busy from a process of their own, and what /proc tells of its processes."""
import contextlib
import json
import os
import pathlib
import signal
import statistics
import subprocess
import sys
import threading
import time

import harness

SCRIPT = pathlib.Path(__file__).parent / "sessions.py"


def size(daily, full):
    """How much of something is done: little in everyday runs, all of it with FULL set."""
    return full if harness.FULL else daily


# --- processes ---

def stat(pid):
    """(state, parent) of a process; None when there is none."""
    with contextlib.suppress(OSError, IndexError):
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
        return fields[0], int(fields[1])
    return None


def parent_of(pid):
    return stat(pid)[1]


def zombies_of(parents):
    """The children of these processes that have ended and were not waited for."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        facts = stat(entry.name) if entry.name.isdigit() else None
        if facts and facts[0] == "Z" and facts[1] in parents:
            found.append(int(entry.name))
    return found


def wait_for_no_zombie_of(parents):
    """A child that has ended this moment is not one: its parent has still to be woken."""
    harness.wait_until(lambda: not zombies_of(parents), f"the last child of {parents} to be waited for")


@contextlib.contextmanager
def held(pids):
    """These processes stand still meanwhile, with all of their threads."""
    try:
        for pid in pids:
            os.kill(pid, signal.SIGSTOP)
        harness.wait_until(lambda: all(map(stands_still, pids)), f"{pids} to stand still")
        yield
    finally:
        for pid in pids:
            os.kill(pid, signal.SIGCONT)


def stands_still(pid):
    threads = [f"{pid}/task/{thread}" for thread in os.listdir(f"/proc/{pid}/task")]
    return all((stat(thread) or "T")[0] == "T" for thread in threads)


def descriptors(pid):
    """What a process has open, without the numbers that differ from file to file."""
    found = []
    for entry in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(OSError):
            target = os.readlink(entry)
            found.append(target.split(":[")[0] if ":[" in target else target)
    return sorted(found)


def memory(pid):
    """{"VmRSS": KiB, "VmData": KiB, ...}"""
    lines = [line.split() for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()]
    return {words[0][:-1]: int(words[1]) for words in lines if words[0].startswith("Vm")}


def has_shadow(pid):
    """A sanitizer's process, whose memory says nothing of the program's."""
    return memory(pid)["VmSize"] > 1 << 30


def distribution(seconds):
    """A line of milliseconds: least, median, 99 in 100, most."""
    ordered = sorted(seconds)
    at = {"min": ordered[0], "median": statistics.median(ordered),
          "p99": ordered[min(len(ordered) - 1, len(ordered) * 99 // 100)], "max": ordered[-1]}
    return ", ".join(f"{name} {value * 1000:.1f} ms" for name, value in at.items())


# --- clients ---

class Sessions:
    """The clients of sessions.py, and what they have told so far."""

    def __init__(self, port, clients, lines, gap, forked):
        self.process = subprocess.Popen(
            [sys.executable, "-B", str(SCRIPT), str(port), str(clients), str(lines), str(gap),
             "forked" if forked else "threaded"], stdout=subprocess.PIPE, text=True)
        self.first = {}  # worker -> when it first answered
        self.failed = []
        self.done = 0
        self.reader = threading.Thread(target=self._read)

    def __enter__(self):
        self.reader.start()
        return self

    def __exit__(self, *_):
        self.end()

    def _read(self):
        for line in self.process.stdout:
            what = json.loads(line)
            if "first" in what:
                self.first[what["first"]] = what["at"]
            elif "failed" in what:
                self.failed.append(what)
            else:
                self.done = what["done"]

    def end(self):
        """Lets the open sessions end; what is told here is complete then."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        self.process.wait()
        self.reader.join()
        self.process.stdout.close()

    def wait_more(self, limit=harness.LIMIT):
        """Waits until more sessions have gone well."""
        before = self.done
        harness.wait_until(lambda: self.done > before, "more sessions", limit)

    def wait_first(self, workers, limit=harness.LIMIT):
        """Waits until each of these workers has answered somebody."""
        harness.wait_until(lambda: all(worker in self.first for worker in workers), f"answers of {workers}", limit)


class GreeterCase(harness.DaemonCase):
    program = os.environ.get("VELT_GREETER")
    proxy = "greeter"

    def configure(self, *arguments, **options):
        super().configure(*arguments, **options)
        self._read_to, self._starts, self._workers = 0, [], []

    def reported(self):
        """The workers that were reported as started, oldest first."""
        self._read_on()
        return self._workers

    def monitors(self):
        """The processes that were reported as serving: each start of a service has one."""
        self._read_on()
        return self._starts

    def _read_on(self):
        """Reads what came since the last time: with an event or more for each session the log grows long."""
        with contextlib.suppress(FileNotFoundError), open(self.events_path, "rb") as log:
            log.seek(self._read_to)
            whole = log.read().rpartition(b"\n")[0]
            self._read_to += len(whole) + bool(whole)
            for line in whole.split(b"\n"):
                if b"10000" in line:
                    self._take(harness.event_in(line)[0])

    def _take(self, event):
        if (event["event"], event["reason"]) == (10000, 54):
            self._workers.append(event["values"]["velt_pid"])
        if (event["event"], event["reason"]) == (10000, 46):
            self._starts.append(event["pid"])

    def sessions(self, clients=24, lines=4, gap=0.005, forked=False):
        return Sessions(self.port, clients, lines, gap, forked)

    def greeted(self, **where):
        """A client that was greeted, with the greeting as .process and .parent."""
        client = self.connect(**where)
        client.process, client.parent = map(int, client.read().split())
        return client

    def try_greeted(self, limit=min(harness.bound(0.5), 4.0)):
        """The same; None while nobody answers."""
        client = None
        try:
            client = harness.Line(self.port, limit=limit)
            client.process, client.parent = map(int, client.read().split())
            if client.ask("there?") != "there?":
                raise OSError("no answer")
            client.answered = time.monotonic()
            client.socket.settimeout(harness.LIMIT)
            self.addCleanup(client.close)
            return client
        except (OSError, AttributeError):
            if client:
                client.close()
            return None

    def report(self, **figures):
        """Prints figures, so that a gate's output shows them."""
        print(f"\n{self.id().split('.', 1)[1]}: " + "; ".join(f"{name} {value}" for name, value in figures.items()),
              flush=True)
