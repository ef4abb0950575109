#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Standard errors of fits against those of the exact observed information at the exact maximum: the
# worst relative difference of each group of parameters over the seeds, and how many are missing.
#
#   bench/compare_se.py [PROBLEM ...] [--seeds 1 2 ... ] [--jobs 2] [--data FOLDER] [--each]
#       [--set KEY=VALUE ...] [--varda ...] [--exact ...]
import argparse
import concurrent.futures
import json
import pathlib
import statistics
import subprocess
import tempfile

import exact_problems as problems


# {(group, name): standard error} of a fit.json or of what `exact` writes.
def errors_of(found):
    result = {("fixed", p["name"]): p.get("se") for p in found["parameters"]}
    omega = found["omega"]
    errors = omega.get("se")
    for i, a in enumerate(omega["names"]):
        for j, b in enumerate(omega["names"][:i + 1]):
            if omega["estimated"][i][j]:
                result["omega", f"omega({a},{b})"] = errors[i][j] if errors else None
    result.update({("residual", r["name"]): r.get("se") for r in found["residual"]})
    return result


def fit(options, name, data, work, seed, start):
    model, out = work / f"model{seed}.toml", work / f"out{seed}"
    settings = {"seed": seed, **dict(pair.split("=", 1) for pair in options.set)}
    model.write_text(problems.model_text(name, data, start, settings), encoding="ascii")
    done = subprocess.run([options.varda, "fit", model, "--output", out, "--quiet"],
                          capture_output=True, text=True, check=False)
    path = out / "fit.json"
    return done.returncode, json.loads(path.read_text(encoding="utf-8")) if path.exists() else None


def main():
    arguments = argparse.ArgumentParser(description="standard errors against exact ones")
    arguments.add_argument("problems", nargs="*", default=[])
    arguments.add_argument("--seeds", type=int, nargs="+", default=list(range(1, 21)))
    arguments.add_argument("--jobs", type=int, default=2)
    arguments.add_argument("--data", help="folder of oral-two-compartment.csv")
    arguments.add_argument("--set", nargs="*", default=[], help="settings of [estimation]")
    arguments.add_argument("--each", action="store_true", help="print every parameter too")
    arguments.add_argument("--from-reference", action="store_true",
                           help="start at the exact maximum instead of the usual start values")
    arguments.add_argument("--varda", default="build/release/bin/varda")
    arguments.add_argument("--exact", default="build/release/bin/exact")
    options = arguments.parse_args()
    print("| problem | fits | status 0 | without errors | group | median % | worst % | worst of "
          "| missing |\n|" + "---|" * 9)
    for name in options.problems or problems.STATED:
        with tempfile.TemporaryDirectory() as folder, \
                concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
            work = pathlib.Path(folder)
            data = problems.data_file(name, work, options.data)
            top = problems.reference(options.exact, name, data, work)["estimates"]
            start = problems.PROBLEMS[name].start()
            if options.from_reference:
                start = problems.values_of(name, top)
            done = list(pool.map(lambda seed: fit(options, name, data, work, seed, start),
                                 options.seeds))
        true = errors_of(top)
        fits = [errors_of(found) for _, found in done if found is not None]
        without = sum(all(error is None for error in found.values()) for found in fits)
        for group in ("fixed", "omega", "residual"):
            off, missing = [], 0
            for key, exact in true.items():
                if key[0] != group or exact is None:
                    continue
                ratios = [found[key] / exact - 1 for found in fits if found[key] is not None]
                missing += len(fits) - len(ratios)
                off += [(abs(ratio), key[1]) for ratio in ratios]
                if options.each and ratios:
                    print(f"  {key[1]}: exact {exact:.6g}, {100 * min(ratios):+.1f} to "
                          f"{100 * max(ratios):+.1f} %")
            median = f"{100 * statistics.median(o for o, _ in off):.2f}" if off else "-"
            worst = max(off) if off else (float("nan"), "-")
            print(f"| {name} | {len(done)} | {sum(s == 0 for s, _ in done)} | {without} | {group} "
                  f"| {median} | {100 * worst[0]:.1f} | {worst[1]} | {missing} |", flush=True)


if __name__ == "__main__":
    main()
