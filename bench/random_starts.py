#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Fits from random starts, judged by exact values: how many end at a maximum and say so, and whether
# any says so elsewhere.
#
#   bench/random_starts.py [PROBLEM ...] [--starts 20] [--seeds 1 2] [--jobs 2] [--limit 900]
#       [--data FOLDER] [--set KEY=VALUE ...] [--csv FILE] [--work FOLDER]
#       [--varda build/release/bin/varda] [--exact build/release/bin/exact]
#
# Without names: the problems of the stated table. FOLDER holds oral-two-compartment.csv. A seed is
# that of the starts and that of the fit. Where a fit.json of the same start stands in the work folder
# it is taken instead of another fit, so that a run can be judged again.
#
# gain       what Newton's method still gains from the estimates on the exact -2 log-likelihood
# excess     exact -2 log-likelihood at the estimates less that of the reference maximum
# converged  status 0; singular: status 3 that names what makes omega singular
# lie        converged with a gain above the limit; the same with status 3 is a false singular end
# reference, better, other: converged or singular at a maximum that is the reference one, a lower one,
#            or a higher one; refused: everything else that a run says about itself
#
# --exact none, for problems whose exact value takes too long: a table of the values that the fits state,
# each beside the lowest of them.
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
import time

import exact_problems as problems

FIELDS = ["problem", "seed", "start", "status", "verdict", "singular", "reported", "mc_se", "exact",
          "exact_error", "ahead", "gain", "excess", "maximum", "maximum_singular", "cost", "seconds",
          "sampled", "several_modes", "reason"]


def run_fit(options, name, data, folder, seed, number):
    model, out = folder / "model.toml", folder / "out"
    estimation = {"seed": seed, **dict(pair.split("=", 1) for pair in options.set)}
    text = problems.model_text(name, data, problems.random_start(name, seed, number), estimation)
    status = folder / "status.json"
    if status.exists() and model.exists() and model.read_text(encoding="ascii") == text:
        return json.loads(status.read_text(encoding="ascii"))
    folder.mkdir(parents=True, exist_ok=True)
    model.write_text(text, encoding="ascii")
    for old in out.glob("*"):
        old.unlink()
    began = time.monotonic()
    try:
        done = subprocess.run([options.varda, "fit", model, "--output", out, "--quiet"],
                              capture_output=True, text=True, check=False, timeout=options.limit)
        result = {"status": done.returncode, "text": done.stderr[-500:]}
    except subprocess.TimeoutExpired:
        result = {"status": "time", "text": ""}
    result["seconds"] = time.monotonic() - began
    status.write_text(json.dumps(result), encoding="ascii")
    return result


def judge(options, name, data, reference, folder, seed, number):
    one = problems.PROBLEMS[name]
    fit = run_fit(options, name, data, folder, seed, number)
    row = dict.fromkeys(FIELDS, "")
    row.update(problem=name, seed=seed, start=number, status=fit["status"], seconds=fit["seconds"],
               verdict="refused", reason=fit["text"].strip().splitlines()[:1])
    path = folder / "out" / "fit.json"
    if fit["status"] not in (0, 3) or not path.exists():
        return row
    found = json.loads(path.read_text(encoding="utf-8"))
    run = json.loads((folder / "out" / "run.json").read_text(encoding="utf-8"))
    # A name in the row for each direction.
    row.update(singular=" ".join(found["singular"]), reported=found["minus2ll"],
               mc_se=found["minus2ll_mc_se"], reason=found["reason"],
               cost=run["evaluations"] / found["data"]["subjects"] / 300)
    claims = fit["status"] == 0 or bool(found["singular"])
    exact = problems.run_exact(options.exact, name, data, path, folder / "exact.json",
                               more=["--rest", "1e-4" if one.tolerance > 0.05 else "1e-7"])
    if "failed" in exact:
        row.update(gain=math.inf, excess=math.inf, reason=exact["failed"])
        row["verdict"] = ("lie" if fit["status"] == 0 else "false singular") if claims else "refused"
        return row
    top = exact["maximum"]
    excess = exact["minus2ll"] - reference["minus2ll"]
    row.update(exact=exact["minus2ll"], exact_error=exact["error"], ahead=exact["ahead"],
               gain=top["gain"], excess=excess, maximum=top["minus2ll"],
               maximum_singular=" ".join(top["singular"]), sampled=len(exact["sampled"]),
               several_modes=len(exact["several_modes"]))
    if not claims:
        return row
    if top["gain"] > one.tolerance:
        row["verdict"] = "lie" if fit["status"] == 0 else "false singular"
    elif abs(excess) <= one.tolerance:
        row["verdict"] = "reference"
    else:
        row["verdict"] = "better" if excess < 0 else "other"
    return row


def quantile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, math.ceil(share * len(ordered)) - 1)] if ordered else math.nan


def numbers(rows, field):
    return [float(row[field]) for row in rows if row[field] not in ("", None)]


HEAD = ["problem", "reference -2LL", "fits", "status 0", "false > 0.05", "false > 0.2",
        "false singular", "at reference", "better", "other maximum", "refused", "excess median",
        "excess worst", "cost median", "cost 90 %", "worst error ratio", "seconds median"]


def summary(name, reference, rows):
    def count(verdict):
        return sum(row["verdict"] == verdict for row in rows)
    lies = [row["gain"] for row in rows if row["status"] == 0 and row["gain"] != ""]
    right = [row for row in rows if row["verdict"] in ("reference", "better")]
    excess, cost = numbers(right, "gain"), numbers(rows, "cost")
    ratios = [abs(row["reported"] - row["exact"]) / math.hypot(row["mc_se"], row["exact_error"])
              for row in rows if row["status"] == 0 and row["exact"] != "" and row["mc_se"]]
    return [name, f"{reference['minus2ll']:.4f}", len(rows), sum(row["status"] == 0 for row in rows),
            sum(gain > 0.05 for gain in lies), sum(gain > 0.2 for gain in lies),
            count("false singular"), count("reference"), count("better"), count("other"),
            count("refused"), f"{statistics.median(excess):.4f}" if excess else "-",
            f"{max(excess):.4f}" if excess else "-",
            f"{statistics.median(cost):.1f}" if cost else "-", f"{quantile(cost, 0.9):.1f}",
            f"{max(ratios):.1f}" if ratios else "-",
            f"{statistics.median(numbers(rows, 'seconds')):.1f}"]


def stated_values(options, name, data, work):
    found = []
    for seed in options.seeds:
        for number in range(1, options.starts + 1):
            folder = work / name / f"seed{seed}-start{number}"
            fit = run_fit(options, name, data, folder, seed, number)
            path = folder / "out" / "fit.json"
            if fit["status"] not in (0, 3) or not path.exists():
                found.append((fit["status"], math.inf, math.inf, math.nan, fit["seconds"]))
                continue
            result = json.loads(path.read_text(encoding="utf-8"))
            run = json.loads((folder / "out" / "run.json").read_text(encoding="utf-8"))
            found.append((fit["status"], result["minus2ll"], result["minus2ll_mc_se"],
                          run["evaluations"] / result["data"]["subjects"] / 300, fit["seconds"]))
            print(f"{name} seed {seed} start {number}: status {fit['status']} {result['minus2ll']:.3f} "
                  f"+- {result['minus2ll_mc_se']:.3f}", file=sys.stderr, flush=True)
    values = sorted(value for status, value, *_ in found if status == 0)
    cost = [cost for _, _, _, cost, _ in found if math.isfinite(cost)]
    if not values:
        return f"| {name} | {len(found)} | 0 | | | | | | | |"
    return (f"| {name} | {len(found)} | {len(values)} | {values[0]:.2f} | {statistics.median(values):.2f} "
            f"| {values[-1]:.2f} | {max(error for status, _, error, _, _ in found if status == 0):.2f} "
            f"| {statistics.median(cost):.1f} | {quantile(cost, 0.9):.1f} "
            f"| {statistics.median(seconds for *_, seconds in found):.1f} |")


def main():
    arguments = argparse.ArgumentParser(description="fits from random starts against exact values")
    arguments.add_argument("problems", nargs="*", default=[])
    arguments.add_argument("--starts", type=int, default=20)
    arguments.add_argument("--seeds", type=int, nargs="+", default=[1, 2])
    arguments.add_argument("--jobs", type=int, default=2)
    arguments.add_argument("--limit", type=float, default=900, help="seconds for each fit")
    arguments.add_argument("--data", help="folder of oral-two-compartment.csv")
    arguments.add_argument("--set", nargs="*", default=[], help="settings of [estimation]")
    arguments.add_argument("--csv")
    arguments.add_argument("--work")
    arguments.add_argument("--varda", default="build/release/bin/varda")
    arguments.add_argument("--exact", default="build/release/bin/exact")
    options = arguments.parse_args()
    names = options.problems or problems.STATED
    unknown = [name for name in names if name not in problems.PROBLEMS]
    if unknown:
        sys.exit(f"no problem {unknown}; there are {list(problems.PROBLEMS)}")
    temporary = None if options.work else tempfile.TemporaryDirectory()
    work = pathlib.Path(options.work or temporary.name).resolve()
    work.mkdir(parents=True, exist_ok=True)

    if options.exact == "none":
        print("| problem | fits | status 0 | lowest | median | highest | largest stated error "
              "| cost median | cost 90 % | seconds median |\n" + "|---" * 10 + "|")
        for name in names:
            print(stated_values(options, name, problems.data_file(name, work, options.data), work))
        return

    rows, table = [], []
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for name in names:
            data = problems.data_file(name, work, options.data)
            reference = problems.reference(options.exact, name, data, work)
            jobs = [pool.submit(judge, options, name, data, reference,
                                work / name / f"seed{seed}-start{number}", seed, number)
                    for seed in options.seeds for number in range(1, options.starts + 1)]
            for job in jobs:
                row = job.result()
                rows.append(row)
                print(f"{name} seed {row['seed']} start {row['start']}: status {row['status']} "
                      f"{row['verdict']} gain {row['gain']} excess {row['excess']} "
                      f"{row['singular']}", file=sys.stderr, flush=True)
            table.append(summary(name, reference, [row for row in rows if row["problem"] == name]))
            if options.csv:
                with open(options.csv, "w", encoding="utf-8", newline="") as out:
                    writer = csv.DictWriter(out, FIELDS, lineterminator="\n")
                    writer.writeheader()
                    writer.writerows(rows)
    print("| " + " | ".join(HEAD) + " |\n|" + "---|" * len(HEAD))
    for line in table:
        print("| " + " | ".join(str(cell) for cell in line) + " |")


if __name__ == "__main__":
    main()
