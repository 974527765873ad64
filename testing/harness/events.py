"""The events that daemons report: followed as they come, and judged at the end of a test."""
import collections
import json

START, WORKER = (10000, 46), (10000, 54)
RETIREMENTS = ((10000, 70), (10000, 71))
SESSIONS = 10003
RECORD = b'{"time":'  # how each line begins

# What every daemon reports when all is well. Anything else fails the test that did not announce it. Starts are counted:
# one more than the test has asked for is a process that has died.
ROUTINE = {
    START: "each daemon that is started says so",
    (10000, 52): "so does the process in the background",
    (10000, 53): "a host ends in order",
    WORKER: "each worker says so when it begins",
    (10003, 65): "a client was accepted",
    (10003, 66): "its session waits for a thread",
    (10003, 68): "its session begins, or its health request was served",
    (15004, None): "the rules chose an identity",
    (19000, 97): "a session reached its server",
    (19000, 98): "a session tries an address of its server",
}


def name_of(event):
    return event["event"], event.get("reason")


def event_in(line):
    """The event of a line, and whether the line is whole. A process that is killed in the middle of a record leaves half
    of it, and the next record of another one goes on in its line."""
    try:
        return json.loads(line), True
    except ValueError:
        return json.loads(line[line.rindex(RECORD):]), False


class EventLog:
    """Follows a JSON log: each look reads what came since the last one. The file need not exist yet."""

    def __init__(self, path):
        self.path = path
        self._file = None
        self._begin()

    def _begin(self):
        self._rest = b""
        self._all = []
        self.torn = 0  # records that were cut short
        self._named = collections.defaultdict(list)

    def close(self):
        if self._file:
            self._file.close()
        self._file = None

    def forget(self):
        """Removes the file and what was read of it; the next daemon begins a new one."""
        self.close()
        self.path.unlink(missing_ok=True)
        self._begin()

    def read(self):
        """All events so far, oldest first. A line without its end is still being written."""
        if not self._file:
            try:
                self._file = open(self.path, "rb")
            except FileNotFoundError:
                return self._all
        *lines, self._rest = (self._rest + self._file.read()).split(b"\n")
        for line in lines:
            event, whole = event_in(line)
            self.torn += not whole
            self._all.append(event)
            self._named[name_of(event)].append(event)
        return self._all

    def named(self, number, reason=None):
        """Those of this number, and of this reason unless it is None."""
        self.read()
        if reason is not None:
            return list(self._named[number, reason])
        return [event for event in self._all if event["event"] == number]


class Expectations:
    """What a test has announced. judge() gives what was reported beside that and the routine, and what did not come."""

    def __init__(self, routine):
        self._routine = routine
        self._announced = {}  # event -> how many there have to be at least
        self._starts = 0  # daemons that the test started, or caused to be started
        self._workers = 0  # workers for each of them
        self._replaced = 0  # workers that the test ended
        self._awaited = collections.Counter()

    def announce(self, number, reason, at_least):
        name = (number, reason)
        self._announced[name] = max(at_least, self._announced.get(name, 0))

    def awaited(self, number, reason, count):
        """The test waits for it: that is an announcement, and of starts one of their number."""
        self._awaited[number, reason] = max(count, self._awaited[number, reason])

    def configured(self, workers):
        self._workers = max(self._workers, workers)

    def started(self):
        self._starts += 1

    def replaced(self):
        self._replaced += 1

    def judge(self, events, torn=0):
        counts = collections.Counter(map(name_of, events))
        limits = {START: max(self._starts, self._awaited[START])}
        workers = counts[START] * self._workers + self._replaced + sum(counts[name] for name in RETIREMENTS)
        limits[WORKER] = max(workers, self._awaited[WORKER])
        seen = collections.Counter()
        faults = []
        if torn > max(0, counts[WORKER] - self._workers):
            faults.append(f"{torn} records were cut short, more than processes were replaced")
        for event in events:
            name = name_of(event)
            seen[name] += 1
            if not self._expected(name, seen[name], limits):
                faults.append(f"not expected: {json.dumps(event)}")
        faults += [f"announced, and reported {self._count(counts, name)} times: {name[0]}:{name[1]}"
                   for name, wanted in self._announced.items() if self._count(counts, name) < wanted]
        return faults

    def _expected(self, name, count, limits):
        either = (name, (name[0], None))
        if any(one in self._announced for one in either):
            return True
        if count > limits.get(name, count):
            return False
        return name in self._routine or any(one in self._awaited for one in either)

    @staticmethod
    def _count(counts, name):
        if name[1] is not None:
            return counts[name]
        return sum(count for found, count in counts.items() if found[0] == name[0])
