"""Keeps a greeter busy from a process of its own, so that neither load nor test waits for the other.

    sessions.py PORT CLIENTS LINES GAP threaded|forked

Each of so many clients connects, reads the greeting, exchanges so many lines with a gap of so many seconds between
them, closes, and begins again. On standard output, one JSON object a line, as it happens:
    {"first": worker, "at": t}                                  this worker has answered for the first time
    {"failed": kind, "stage": s, "greeting": [pid, ppid] or null, "begin": t, "end": t}
    {"done": sessions}                                          that went well so far, every 25 and at the end
SIGTERM lets the open sessions end, and begins no more. Times are those of the monotonic clock, which all processes share.
Stages: "connect", "greeting" and "exchange". Kinds: "refused", "reset", "cut" (closed before all was answered),
"silent" (nothing within 20 s) and "wrong".
"""
import asyncio
import itertools
import json
import signal
import sys
import time

LIMIT = 20.0
STEP = 25  # sessions between two reports
CLIENTS = [f"127.0.0.{last}" for last in range(2, 18)]  # many, or their ports would run out
SERVER = "127.0.0.1"


class Wrong(Exception):
    pass


class Sessions:
    def __init__(self, port, clients, lines, gap, forked):
        self.port = port
        self.clients = clients
        self.lines = lines
        self.gap = gap
        self.who = 1 if forked else 0  # which process of the greeting the worker is
        self.ending = False
        self.done = 0
        self.seen = set()
        self.sources = itertools.cycle(CLIENTS)

    @staticmethod
    def tell(**what):
        print(json.dumps(what), flush=True)

    async def run(self):
        loop = asyncio.get_running_loop()
        for number in (signal.SIGTERM, signal.SIGINT):
            loop.add_signal_handler(number, self.end)
        await asyncio.gather(*(self.client() for _ in range(self.clients)))
        self.tell(done=self.done)

    def count(self):
        self.done += 1
        if self.done % STEP == 0:
            self.tell(done=self.done)

    def end(self):
        self.ending = True

    async def client(self):
        while not self.ending:
            await Session(self).run()
            await asyncio.sleep(0)


class Session:
    def __init__(self, owner):
        self.owner = owner
        self.stage = "connect"
        self.greeting = None
        self.begin = time.monotonic()

    async def run(self):
        kind = await self.kind_of_failure()
        if kind is None:
            self.owner.count()
            return
        self.owner.tell(failed=kind, stage=self.stage, greeting=self.greeting, begin=self.begin, end=time.monotonic())
        await asyncio.sleep(0.01)  # a port that refuses is not stormed

    async def kind_of_failure(self):
        try:
            await asyncio.wait_for(self.converse(), LIMIT)
            return None
        except ConnectionRefusedError:
            return "refused"
        except (ConnectionResetError, BrokenPipeError):
            return "reset"
        except (asyncio.IncompleteReadError, EOFError):
            return "cut"
        except (TimeoutError, asyncio.TimeoutError):
            return "silent"
        except Wrong:
            return "wrong"

    async def converse(self):
        source = (next(self.owner.sources), 0)
        reader, writer = await asyncio.open_connection(SERVER, self.owner.port, local_addr=source)
        try:
            self.stage = "greeting"
            self.greeting = [int(word) for word in (await reader.readuntil(b"\n")).split()]
            self.stage = "exchange"
            for number in range(self.owner.lines):
                await self.exchange(reader, writer, b"line %d\r\n" % number)
                await asyncio.sleep(self.owner.gap)
        finally:
            writer.close()

    async def exchange(self, reader, writer, line):
        writer.write(line)
        if await reader.readuntil(b"\n") != line:
            raise Wrong
        worker = self.greeting[self.owner.who]  # an orphan's is the system's first process
        if worker not in self.owner.seen:
            self.owner.seen.add(worker)
            self.owner.tell(first=worker, at=time.monotonic())


if __name__ == "__main__":
    port, clients, lines, gap, model = sys.argv[1:]
    asyncio.run(Sessions(int(port), int(clients), int(lines), float(gap), model == "forked").run())
