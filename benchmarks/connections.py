#!/usr/bin/env python3
"""Connections per second with one small exchange, and the CPU time of the server for each.

usage: connections.py BUILD_DIR        RUNS, SECONDS, CLIENTS in the environment; FULL=1 for longer rounds

The bare loop accepts, receives, sends and closes, and nothing else, on one thread. velt_once does the same as a gateway on
the library; velt_echo goes on to wait for another line, and sees its client leave. HAProxy and nginx stand in front of the
bare loop, and their CPU is theirs alone: they relay, so they have two connections where a gateway has one. All rows take
turns in each round, with the same clients. The exit status is that of the CPU ratio of velt_once and velt_echo to HAProxy,
with room, and of a thread that was started at steady load; rates are for the reader.
"""
import contextlib
import json
import os
import pathlib
import statistics
import subprocess
import sys

import relays

FULL = bool(os.environ.get("FULL"))
RUNS = int(os.environ.get("RUNS", "5" if FULL else "3"))
SECONDS = os.environ.get("SECONDS", "3" if FULL else "1.5")
CLIENTS = os.environ.get("CLIENTS", "16")
GOAL_HAPROXY, GATE_HAPROXY, GOAL_BARE = 1.0, 1.25, 1.3
GATED = ("velt_once", "velt_echo")
THREADS = {"network": {"MaxConnections": 8}, "process": {"PermThreads": 8}}


def measure(build, server, seconds=SECONDS):
    before = relays.cpu_seconds(server.pids)
    shown = subprocess.run([build / "bin/velt_load", "connect", "--to", f"127.0.0.1:{server.port}", "--clients", CLIENTS,
                            "--seconds", seconds], capture_output=True, text=True, check=True).stdout
    used = relays.cpu_seconds(server.pids) - before
    result = json.loads(shown)
    if any(result["failed"].values()):
        raise SystemExit(f"sessions failed: {result}")
    return result["rate"], used * 1e6 / result["sessions"], result["latency_us"]["p99"]


def gateway(build, program, **more):
    sections = {section: dict(keys) for section, keys in THREADS.items()}
    for section, keys in more.pop("sections", {}).items():
        sections.setdefault(section, {}).update(keys)
    return relays.Gateway(build / "bin" / program, **more, **sections)


def table(results):
    medians = {name: [statistics.median(values) for values in zip(*rounds)] for name, rounds in results.items()}
    bare, haproxy = medians["bare loop"][1], medians["HAProxy"][1]
    print(f"{'server':<26} {'conn/s':>8} {'CPU us':>8} {'p99 us':>8} {'x bare':>7} {'x HAProxy':>10}")
    for name, (rate, cpu, p99) in medians.items():
        print(f"{name:<26} {rate:>8.0f} {cpu:>8.1f} {p99:>8.0f} {cpu / bare:>7.2f} {cpu / haproxy:>10.2f}")
    return medians


def servers(stack, build):
    """The rows of the table. Each has one thread or process that accepts; logging is off but in one row."""
    folder = stack.enter_context(relays.folder())
    bare = stack.enter_context(relays.Bare(build))
    rows = {
        "bare loop": bare,
        "velt_once": gateway(build, "velt_once"),
        "velt_echo": gateway(build, "velt_echo"),
        "velt_echo, JSON event log": gateway(build, "velt_echo", logging=True),
        "HAProxy": relays.Haproxy(folder, bare.port),
        "nginx stream": relays.Nginx(folder, bare.port),
    }
    if FULL:
        rows["velt_echo, 2 workers"] = gateway(build, "velt_echo", sections={"network": {"AcceptCount": 2}})
    return {name: server if server is bare else stack.enter_context(server) for name, server in rows.items()}


def run(build):
    """Figures of each round by row, and how many threads the gateways started after the first clients."""
    with contextlib.ExitStack() as stack:
        rows = servers(stack, build)
        for server in rows.values():
            measure(build, server, "0.3")  # warm
        threads = {name: ThreadCount(build, rows[name]) for name in GATED}
        results = {name: [] for name in rows}
        for _ in range(RUNS):
            for name, server in rows.items():
                results[name].append(measure(build, server))
                relays.settle()
        return results, {name: count.started_since() for name, count in threads.items()}


class ThreadCount:
    """Threads that a gateway has started, by its own counter and by the system's thread numbers."""

    def __init__(self, build, server):
        self.build, self.server = build, server
        self.before, self.numbers = self._counted(), relays.threads_of(server.pids)
        if self.before < int(THREADS["process"]["PermThreads"]):
            raise SystemExit(f"the counter of started threads stands at {self.before}")

    def _counted(self):
        return self.server.counters(self.build)["connections.threads.started"]

    def started_since(self):
        return max(self._counted() - self.before, len(relays.threads_of(self.server.pids) - self.numbers))


def judge(medians, started):
    """Prints the goals; gives whether a gate has failed."""
    failed = False
    for name in GATED:
        print(f"{name}: threads started at steady load: {started[name]}")
        failed = failed or started[name] > 0
        for peer, goal, gate in (("bare loop", GOAL_BARE, None), ("HAProxy", GOAL_HAPROXY, GATE_HAPROXY)):
            ratio = medians[name][1] / medians[peer][1]
            print(f"{name}: CPU a connection is {ratio:.2f} of {peer}'s: goal {goal} {'reached' if ratio <= goal else 'missed'}")
            failed = failed or (gate is not None and ratio > gate)
    return failed


def main():
    results, started = run(pathlib.Path(sys.argv[1]).resolve())
    return int(judge(table(results), started))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    relays.isolate()
    sys.exit(main())
