#!/usr/bin/env python3
"""What a plugged session costs, beside bare relays, HAProxy with and without splice, nginx stream, and no relay at all.

usage: plug.py BUILD_DIR        ROUNDS, SECONDS, SESSIONS in the environment; FULL=1 for longer rounds

Bulk: pieces of 16 MiB to a sink that throws them away, on 1 and 8 connections. Round trips: 64 bytes there and back on one
connection. Short connections: connect, a line and its answer, close. Both have one processor for everything, since a
wake-up of another one varies more than the relays do. Idle sessions have made one exchange. The bare splice relay is one thread that moves
bytes between sockets and pipes and does nothing else; the bare loop is a thread for each client that polls, receives and
sends. All rows take turns in each round, figures are medians, and CPU is that of the relay's processes alone. The exit
status is that of the CPU ratios and of the memory, with room; what a clock on the wall shows is for the reader.
"""
import contextlib
import json
import os
import pathlib
import statistics
import subprocess
import sys

import idle_memory
import relays

FULL = bool(os.environ.get("FULL"))
ROUNDS = int(os.environ.get("ROUNDS", "7" if FULL else "3"))
SECONDS = os.environ.get("SECONDS", "2" if FULL else "0.5")
SESSIONS = int(os.environ.get("SESSIONS", "2000"))
KEPT_BUSY = 4
MOST_KIB = 10
CLIENTS = 16  # of the short connections
THREADS = 8  # of the gateway for them, and for as many bulk connections
SPLICE, LOOP, PLUG, PEERS = "bare splice relay", "bare loop relay", "plug", ("HAProxy", "HAProxy, splice", "nginx stream")


class Direct:
    """No relay: the server itself."""

    def __init__(self, backend):
        self.port, self.pids = backend, []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass


class Plug(relays.Gateway):
    """A few sessions share threads that are there; many idle ones get theirs as they come."""

    def __init__(self, build, backend, sessions):
        most, kept = (THREADS, THREADS) if sessions <= CLIENTS else (sessions + 10, 1)
        super().__init__(build / "bin/velt_plug", environment={"VELT_PLUG_TO": f"127.0.0.1:{backend}"},
                         network={"MaxConnections": most, "Timeout": 3600}, process={"PermThreads": kept})

    def _answers(self):
        with contextlib.suppress(OSError), relays.harness.Line(self.port):
            return True


def rows(stack, build, backend, sessions=CLIENTS):
    folder = stack.enter_context(relays.folder())
    peer = {"limit": 2 * sessions + 100, "timeout": "3600s"}
    made = {
        "no relay": Direct(backend),
        SPLICE: relays.Tool(build, "relay-splice", backend=backend),
        LOOP: relays.Tool(build, "relay-loop", backend=backend),
        PLUG: Plug(build, backend, sessions),
        PEERS[0]: relays.Haproxy(folder, backend, **peer),
        PEERS[1]: relays.Haproxy(folder, backend, option="option splice-auto", **peer),
        PEERS[2]: relays.Nginx(folder, backend, **peer),
    }
    return {name: stack.enter_context(server) for name, server in made.items()}


def load(build, server, command, *options, pinned=None):
    """The load's own figures, and the CPU seconds that the relay used meanwhile."""
    before = relays.cpu_seconds(server.pids)
    words = [build / "bin/velt_load", command, "--to", f"127.0.0.1:{server.port}", *options]
    pin = (lambda: os.sched_setaffinity(0, pinned)) if pinned else None
    shown = subprocess.run([str(word) for word in words], capture_output=True, text=True, check=True, preexec_fn=pin)
    relays.settle()
    return json.loads(shown.stdout), relays.cpu_seconds(server.pids) - before


def bulk(build, server, connections):
    result, used = load(build, server, "bulk", "--connections", connections, "--seconds", SECONDS)
    return {"GB/s": result["gb_per_second"], "CPU s/GB": used / result["bytes"] * 1e9}


@contextlib.contextmanager
def on_one_processor(pids):
    everywhere = os.sched_getaffinity(0)
    one = {max(everywhere)}

    def place(where):
        for thread in relays.threads_of(pids):
            with contextlib.suppress(OSError):
                os.sched_setaffinity(thread, where)
    place(one)
    try:
        yield one
    finally:
        place(everywhere)


def round_trips(build, server, backend):
    with on_one_processor(server.pids + backend.pids) as processor:
        result, used = load(build, server, "ping", "--seconds", SECONDS, pinned=processor)
    latency = result["latency_us"]
    return {"trips/s": result["rate"], "p50 us": latency["p50"], "p99 us": latency["p99"],
            "CPU us/trip": used * 1e6 / result["trips"]}


def short(build, server, backend):
    with on_one_processor(server.pids + backend.pids) as processor:
        result, used = load(build, server, "connect", "--clients", CLIENTS, "--seconds", SECONDS, pinned=processor)
    if any(result["failed"].values()):
        raise SystemExit(f"sessions failed: {result}")
    return {"conn/s": result["rate"], "CPU us/conn": used * 1e6 / result["sessions"]}


def idle_kib(name, build, server, sessions):
    """The threads that a gateway keeps are busy beforehand: each session that comes then gets one at once."""
    with contextlib.ExitStack() as stack:
        for _ in range(KEPT_BUSY):
            client = stack.enter_context(relays.harness.Line(server.port))
            if client.ask("ready") != "ready":
                raise SystemExit(f"no answer through {name}")
        try:
            return idle_memory.measure(build, server, sessions)[1]
        except SystemExit as failure:
            raise SystemExit(f"{name}: {failure}") from None


def in_turns(servers, measure):
    rounds = {name: [] for name in servers}
    for _ in range(ROUNDS):
        for name, server in servers.items():
            rounds[name].append(measure(server))
    return {name: {key: statistics.median(one[key] for one in figures) for key in figures[0]}
            for name, figures in rounds.items()}


def run(build, idle):
    """Figures by row: {"plug": {"GB/s x1": 1.8, ...}, ...}."""
    table = {}

    def add(figures, suffix=""):
        for name, values in figures.items():
            table.setdefault(name, {}).update({key + suffix: value for key, value in values.items()})
    with contextlib.ExitStack() as stack:
        sink = stack.enter_context(relays.Tool(build, "sink"))
        servers = rows(stack, build, sink.port)
        for connections in (1, 8):
            add(in_turns(servers, lambda server: bulk(build, server, connections)), f" x{connections}")
        add(in_turns(servers, lambda server: round_trips(build, server, sink)))
    with contextlib.ExitStack() as stack:
        bare = stack.enter_context(relays.Bare(build))
        add(in_turns(rows(stack, build, bare.port), lambda server: short(build, server, bare)))
    with contextlib.ExitStack() as stack:
        echo = stack.enter_context(relays.EchoBackend())
        for name, server in rows(stack, build, echo.port, idle).items():
            if server.pids:
                table[name]["KiB/idle"] = idle_kib(name, build, server, idle)
    return table


COLUMNS = {"GB/s x1": 2, "CPU s/GB x1": 3, "GB/s x8": 2, "CPU s/GB x8": 3, "trips/s": 0, "p50 us": 1, "p99 us": 1,
           "CPU us/trip": 2, "conn/s": 0, "CPU us/conn": 1, "KiB/idle": 1}


def show(table):
    print(f"{'relay':<18}" + "".join(f"{name:>12}" for name in COLUMNS))
    for name, figures in table.items():
        known = {"CPU": name != "no relay"}
        cells = (f"{figures[key]:>12.{digits}f}" if key in figures and known.get(key[:3], True) else f"{'-':>12}"
                 for key, digits in COLUMNS.items())
        print(f"{name:<18}" + "".join(cells))


def judge(table):
    """Prints the goals; gives whether a gate has failed."""
    plug = table[PLUG]

    def best(key, choose=min):
        return choose(table[name][key] for name in PEERS)
    # What is measured, what it is a share of, the goal, and the gate: figures of a clock on the wall have none.
    goals = [
        ("CPU a GB, 1 connection, of the bare splice relay's", "CPU s/GB x1", table[SPLICE]["CPU s/GB x1"], 1.15, 1.5),
        ("CPU a GB, 8 connections, of the bare splice relay's", "CPU s/GB x8", table[SPLICE]["CPU s/GB x8"], 1.2, 1.5),
        ("CPU a GB, 1 connection, of the best peer's", "CPU s/GB x1", best("CPU s/GB x1"), 0.7, 1.0),
        ("CPU a GB, 8 connections, of the best peer's", "CPU s/GB x8", best("CPU s/GB x8"), 0.7, 1.0),
        ("CPU a round trip, of the bare loop's", "CPU us/trip", table[LOOP]["CPU us/trip"], 1.05, 1.25),
        ("CPU a short connection, of HAProxy's", "CPU us/conn", table[PEERS[0]]["CPU us/conn"], 1.0, 1.3),
    ]
    own = plug["KiB/idle"] - table[LOOP]["KiB/idle"]
    print(f"Memory of an idle session beyond the bare loop's thread: {own:.1f} KiB, goal {MOST_KIB} "
          f"{'reached' if own <= MOST_KIB else 'missed'}")
    failed = own > MOST_KIB
    for connections in (1, 8):
        key = f"GB/s x{connections}"
        print(f"GB/s, {connections} connections, of the best peer's: {plug[key] / best(key, max):.2f}, goal 1 or more")
    print(f"Time of a round trip, of the bare loop's: {table[LOOP]['trips/s'] / plug['trips/s']:.2f}, goal 1.05")
    for what, key, other, goal, gate in goals:
        ratio = plug[key] / other
        failed = failed or ratio > gate
        print(f"{what}: {ratio:.2f}, goal {goal} {'reached' if ratio <= goal else 'missed'}"
              f"{'' if ratio <= gate else ', ABOVE THE GATE of ' + str(gate)}")
    return failed


def main():
    sessions = min(SESSIONS, (idle_memory.raise_descriptor_limit() - 700) // 2)  # two descriptors each, and some to spare
    table = run(pathlib.Path(sys.argv[1]).resolve(), sessions)
    show(table)
    return int(judge(table))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    relays.isolate()
    sys.exit(main())
