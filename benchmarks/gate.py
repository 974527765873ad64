#!/usr/bin/env python3
"""Runs the benchmark programs of a build and holds their ratios to the gates.

usage: gate.py BUILD_DIR

Each row compares two figures of one run, so a slow or busy machine moves both. Times are printed for the reader and are
never judged. The gate leaves room above the goal, which the last column names.
"""
import json
import pathlib
import subprocess
import sys

# program, own benchmark, its peer in the same run, gate on the ratio of their CPU times, the goal
ROWS = [
    ("streams_bench", "Lines_getline/76", "Lines_memchr/76", 2.6, "2 times memchr with pointers out"),
    ("streams_bench", "Lines_getline/998", "Lines_memchr/998", 1.7, "1.3 times memchr with pointers out"),
    ("streams_bench", "Blocks_readdata/4096", "Blocks_memchr/4096", 2.0, "the cost of looking at the bytes"),
    ("streams_bench", "Buffer_pool/threads:1", "Buffer_lockedQueue/threads:1", 2.5, "45 ns; a locked queue"),
    ("events_bench", "Event_off", "Event_relaxedLoad", 6.0, "2 ns; one load and one branch"),
    ("config_bench", "Setting_read", "Setting_hashLookup", 8.0, "60 ns; one hash look-up by pointers"),
    ("pool_bench", "BM_Pool/4", "BM_PlainQueue/4", 1.6, "1.3 times a mutex-and-condition queue"),
]
REPETITIONS = 5


def figures(build, program):
    """The least CPU nanoseconds of each benchmark, and the counters of the last run."""
    out = subprocess.run([build / "bin" / program, "--benchmark_format=json", "--benchmark_min_time=0.1",
                          f"--benchmark_repetitions={REPETITIONS}"], check=True, capture_output=True, text=True).stdout
    least, counters = {}, {}
    for run in json.loads(out)["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        name = run["name"].removesuffix("/real_time")
        time = run["real_time"] if run["name"].endswith("/real_time") else run["cpu_time"]
        nanoseconds = time * {"ns": 1, "us": 1e3, "ms": 1e6}[run["time_unit"]]
        per_item = nanoseconds if "items_per_second" not in run else 1e9 / run["items_per_second"]
        least[name] = min(per_item, least.get(name, per_item))
        counters[name] = run
    return least, counters


def main():
    build = pathlib.Path(sys.argv[1])
    measured, status = {}, 0
    print(f"{'operation':<28}{'ns':>9}{'peer ns':>9}{'ratio':>7}{'gate':>6}   goal")
    for program, own, peer, gate, goal in ROWS:
        if program not in measured:
            measured[program] = figures(build, program)
        least, counters = measured[program]
        ratio = least[own] / least[peer]
        verdict = "" if ratio <= gate else "   ABOVE THE GATE"
        if counters[own].get("allocations", 0):
            verdict += f"   ALLOCATES {counters[own]['allocations']:.0f} TIMES"
        status |= bool(verdict)
        print(f"{own:<28}{least[own]:>9.1f}{least[peer]:>9.1f}{ratio:>7.2f}{gate:>6.1f}   {goal}{verdict}")
    return status


if __name__ == "__main__":
    sys.exit(main())
