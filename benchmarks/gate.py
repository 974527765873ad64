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
    ("streams_bench", "Names_match", "Names_fnmatch", 0.8, "30 ns; the shell's wildcards, without a score"),
    ("streams_bench", "Names_manyStars", "Names_fnmatch", 150.0, "1 ms; one short match of the shell's wildcards"),
    ("streams_bench", "Spool_disk", "Spool_file", 1.25, "1.15 times write and two rounds of pread of 20 MiB"),
    ("streams_bench", "Spool_memory/64000", "Spool_memcpy/64000", 1.4, "1.2 times memcpy and one round of the pool"),
    ("streams_bench", "Spool_memory/16000", "Spool_memcpy/16000", 1.4, "1.2 times memcpy and one round of the pool"),
    ("streams_bench", "Spool_memory/1000", "Spool_memcpy/1000", 1.8, "35 ns over memcpy and one round of the pool"),
    ("results_bench", "Verdict_encode", "Verdict_readyLines", 20.0, "5000 ns; the same lines ready made"),
    ("results_bench", "Verdict_decode", "Verdict_byHand", 4.0, "5000 ns; the same bags made by hand"),
    ("events_bench", "Event_off", "Event_relaxedLoad", 6.0, "2 ns; one load and one branch"),
    ("config_bench", "Setting_read", "Setting_hashLookup", 8.0, "60 ns; one hash look-up by pointers"),
    ("config_bench", "Setting_read", "Setting_lockedHashLookup", 4.5, "60 ns; the same under a lock for readers"),
    ("identities_bench", "Identity_hundredRules", "Identity_hundredFnmatch", 4.0, "20000 ns; 100 of the shell's"),
    ("identities_bench", "Identity_hundredMailRules", "Identity_hundredExpressions", 1.0, "20000 ns; 100 expressions"),
    ("identities_bench", "Pattern_manyStars", "Pattern_manyStarsExpression", 0.1, "the time of pattern times text"),
    ("scanning_bench", "Scan_enginesOff/4096", "Scan_spool/4096", 50.0, "15000 ns above reading and copying the content"),
    ("retry_bench", "Walk_noneDue", "Walk_bare", 0.8, "15000 ns a file; each opened, looked at and locked"),
    ("remote_bench", "Remote_item", "Remote_plainExchange", 1.8, "50000 ns; the same bytes over a plain socket"),
    ("pool_bench", "BM_Pool/4", "BM_PlainQueue/4", 3.0, "1.3 times a mutex-and-condition queue"),
]
REPETITIONS = 20  # in turn, so that a busy moment of the machine meets all of them


def figures(build, program):
    """The least CPU nanoseconds of each benchmark, and the counters of the last run."""
    out = subprocess.run([build / "bin" / program, "--benchmark_format=json", "--benchmark_min_time=0.03",
                          "--benchmark_enable_random_interleaving=true",
                          f"--benchmark_repetitions={REPETITIONS}"], check=True, capture_output=True, text=True).stdout
    least, counters = {}, {}
    for run in json.loads(out)["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        name = run["name"].removesuffix("/real_time").removesuffix("/process_time")
        time = run["real_time"] if run["name"].endswith("/real_time") else run["cpu_time"]
        nanoseconds = time * {"ns": 1, "us": 1e3, "ms": 1e6}[run["time_unit"]]
        per_item = nanoseconds if "items_per_second" not in run else 1e9 / run["items_per_second"]
        least[name] = min(per_item, least.get(name, per_item))
        counters[name] = run
    return least, counters


def main():
    build = pathlib.Path(sys.argv[1])
    measured, status = {}, 0
    print(f"{'operation':<28}{'ns':>12}{'peer ns':>12}{'ratio':>7}{'gate':>7}   goal")
    for program, own, peer, gate, goal in ROWS:
        if program not in measured:
            measured[program] = figures(build, program)
        least, counters = measured[program]
        ratio = least[own] / least[peer]
        verdict = "" if ratio <= gate else "   ABOVE THE GATE"
        if counters[own].get("allocations", 0):
            verdict += f"   ALLOCATES {counters[own]['allocations']:.0f} TIMES"
        status |= bool(verdict)
        print(f"{own:<28}{least[own]:>12.1f}{least[peer]:>12.1f}{ratio:>7.2f}{gate:>7.2f}   {goal}{verdict}")
    return status


if __name__ == "__main__":
    sys.exit(main())
