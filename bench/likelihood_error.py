#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Is the stated Monte-Carlo error of -2 log-likelihood honest? `evaluate` at the exact maximum with many
# seeds, its values against the exact one.
#
#   bench/likelihood_error.py [PROBLEM ...] [--seeds 400] [--jobs 2] [--data FOLDER]
#       [--set KEY=VALUE ...] [--csv FILE] [--varda ...] [--exact ...]
import argparse
import concurrent.futures
import csv
import json
import math
import pathlib
import statistics
import subprocess
import sys
import tempfile

import exact_problems as problems


def evaluate(options, model, folder, seed):
    out = folder / f"out{seed}"
    done = subprocess.run([options.varda, "evaluate", model, "--output", out, "--seed", str(seed),
                           "--quiet"], capture_output=True, text=True, check=False)
    path = out / "evaluate.json"
    found = json.loads(path.read_text(encoding="utf-8")) if path.exists() else {}
    for file in out.glob("*"):
        file.unlink()
    return seed, done.returncode, found.get("minus2ll"), found.get("minus2ll_mc_se")


def main():
    arguments = argparse.ArgumentParser(description="coverage of the stated error of -2LL")
    arguments.add_argument("problems", nargs="*", default=[])
    arguments.add_argument("--seeds", type=int, default=400)
    arguments.add_argument("--jobs", type=int, default=2)
    arguments.add_argument("--data", help="folder of oral-two-compartment.csv")
    arguments.add_argument("--set", nargs="*", default=[], help="settings of [estimation]")
    arguments.add_argument("--csv")
    arguments.add_argument("--varda", default="build/release/bin/varda")
    arguments.add_argument("--exact", default="build/release/bin/exact")
    options = arguments.parse_args()
    print("| problem | exact | seeds | status 0 | mean difference | sd | mean stated error "
          "| within 1.96 % | within 3 % | worst ratio |\n|" + "---|" * 10)
    rows = []
    for name in options.problems or problems.STATED:
        with tempfile.TemporaryDirectory() as folder, \
                concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
            work = pathlib.Path(folder)
            data = problems.data_file(name, work, options.data)
            top = problems.reference(options.exact, name, data, work)
            model = work / "model.toml"
            values = problems.values_of(name, top["estimates"])
            model.write_text(problems.model_text(name, data, values, dict(
                pair.split("=", 1) for pair in options.set)), encoding="ascii")
            done = list(pool.map(lambda seed: evaluate(options, model, work, seed),
                                 range(1, options.seeds + 1)))
        rows += [{"problem": name, "exact": top["minus2ll"], "seed": seed, "status": status,
                  "minus2ll": value, "mc_se": error} for seed, status, value, error in done]
        known = [(value - top["minus2ll"], math.hypot(error, top["error"]))
                 for _, _, value, error in done if value is not None and error]
        if len(known) < 2:
            print(f"{name}: no values", file=sys.stderr)
            continue
        differences = [difference for difference, _ in known]
        ratios = [abs(difference) / error for difference, error in known]
        print(f"| {name} | {top['minus2ll']:.4f} | {len(known)} | {sum(s == 0 for _, s, _, _ in done)} "
              f"| {statistics.mean(differences):+.4f} | {statistics.stdev(differences):.4f} "
              f"| {statistics.mean(error for _, error in known):.4f} "
              f"| {100 * statistics.mean(r < 1.96 for r in ratios):.1f} "
              f"| {100 * statistics.mean(r < 3 for r in ratios):.1f} | {max(ratios):.1f} |", flush=True)
    if options.csv:
        with open(options.csv, "w", encoding="utf-8", newline="") as out:
            writer = csv.DictWriter(out, list(rows[0]), lineterminator="\n")
            writer.writeheader()
            writer.writerows(rows)


if __name__ == "__main__":
    main()
