#!/usr/bin/env python3
"""Resident memory of one idle session: 10,000 of them in one threaded worker, printed beside HAProxy's and nginx's.

usage: idle_memory.py BUILD_DIR        SESSIONS in the environment

Each session has made one exchange and says nothing more. In a gateway each has a thread of its own; HAProxy and nginx
relay to a backend that says back what it gets, and their memory is theirs alone. The exit status is that of the gateway:
at most 24 KiB.
"""
import contextlib
import json
import os
import pathlib
import resource
import subprocess
import sys

import relays

SESSIONS = int(os.environ.get("SESSIONS", "10000"))
MOST_KIB = 24.0


def gateway(build):
    return relays.Gateway(build / "bin/velt_echo", network={"MaxConnections": SESSIONS + 100, "Timeout": 3600},
                          process={"PermThreads": 1, "LoggingEnabled": False})


def measure(build, server, sessions):
    base = relays.resident_kib(server.pids)
    load = subprocess.Popen([build / "bin/velt_load", "idle", "--to", f"127.0.0.1:{server.port}", "--connections",
                             str(sessions), "--ramp", "2000", "--timeout-ms", "120000"], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, text=True)
    ready = json.loads(load.stdout.readline())
    if ready["ready"] != sessions:
        raise SystemExit(f"not every session was made: {ready}")
    full = relays.resident_kib(server.pids)
    load.stdin.close()
    alive = json.loads(load.stdout.readline())
    load.stdout.close()
    load.wait()
    if alive["alive"] != sessions:
        raise SystemExit(f"not every session was answered after the wait: {alive}")
    return base, (full - base) / sessions


def raise_descriptor_limit():
    """A relay needs two descriptors for each session, and gets fewer sessions where the system allows fewer."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    return hard


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    relayed = min(SESSIONS, (raise_descriptor_limit() - 700) // 2)
    print(f"{'server':<14} {'sessions':>9} {'base KiB':>9} {'KiB/idle session':>17}")
    figures = {}
    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(relays.folder())
        rows = {"gateway": (stack.enter_context(gateway(build)), SESSIONS)}
        behind = stack.enter_context(relays.EchoBackend())
        rows["HAProxy"] = stack.enter_context(relays.Haproxy(folder, behind.port, relayed + 100, "3600s")), relayed
        rows["nginx stream"] = stack.enter_context(relays.Nginx(folder, behind.port, relayed + 100, "3600s")), relayed
        for name, (server, sessions) in rows.items():
            base, figures[name] = measure(build, server, sessions)
            print(f"{name:<14} {sessions:>9} {base:>9} {figures[name]:>17.1f}", flush=True)
    return 1 if figures["gateway"] > MOST_KIB else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    relays.isolate()
    sys.exit(main())
