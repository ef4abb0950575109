#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the timings of the library's routines and prints them beside their peers.

    bench/routines.py [folder of the programs] [options of Google Benchmark]

The folder defaults to build/bench/bin. Repetitions of all timings are interleaved at random, so that
a busy moment of the machine does not fall on one of them alone; the table gives medians.
"""

import json
import statistics
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

REPETITIONS = ["--benchmark_repetitions=9", "--benchmark_min_time=0.05"]
OURS = "statsubs"


def nanoseconds_per_item(program, options):
    """Median time of an item by name of the timing."""
    command = [program, "--benchmark_format=json", "--benchmark_enable_random_interleaving=true"]
    output = subprocess.run(command + REPETITIONS + options, check=True, capture_output=True)
    runs = json.loads(output.stdout)["benchmarks"]
    times = defaultdict(list)
    for run in sorted(runs, key=lambda run: run["family_index"]):
        if run["run_type"] == "iteration":
            times[run["run_name"]].append(1e9 / run["items_per_second"])
    return {name: statistics.median(values) for name, values in times.items()}


def print_routines(times):
    cases = defaultdict(dict)
    for name, time in times.items():
        routine, case, library = name.split("/")
        cases[routine, case][library] = time
    print(f"{'routine':<10} {'case':<32} {'ours, ns':>9}  {'ratio':>5}  peers, ns")
    for (routine, case), libraries in cases.items():
        ours = libraries.pop(OURS)
        peers = sorted((time, library) for library, time in libraries.items())
        ratio = f"{ours / peers[0][0]:5.2f}" if peers else " " * 5
        beside = ", ".join(f"{library} {time:.1f}" for time, library in peers)
        print(f"{routine:<10} {case:<32} {ours:9.1f}  {ratio}  {beside}")


def print_integration(times):
    host = times.pop("host calls")
    rows = defaultdict(dict)
    for name, time in times.items():
        _, family, effects = name.split("/")
        rows[family][int(effects)] = time - host
    effects = sorted(next(iter(rows.values())))
    print(f"\nfgintegrate, ns a sample beyond the host's own calls ({host:.1f} ns)")
    print(f"{'random effects':<16}" + "".join(f"{n:>9}" for n in effects))
    for family, row in rows.items():
        print(f"{family:<16}" + "".join(f"{row[n]:9.1f}" for n in effects))


def main():
    arguments = sys.argv[1:]
    folder = Path(__file__).resolve().parent.parent / "build/bench/bin"
    if arguments and not arguments[0].startswith("-"):
        folder = Path(arguments.pop(0))
    print_routines(nanoseconds_per_item(folder / "routines", arguments))
    if not any(option.startswith("--benchmark_filter") for option in arguments):
        print_integration(nanoseconds_per_item(folder / "fgintegrate_cost", arguments))


if __name__ == "__main__":
    main()
