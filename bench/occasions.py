#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Many random effects: a bolus whose clearance varies between subjects and between occasions, each reset
# before. Is the likelihood right, is its stated error honest, and how long does a fit take? Given the
# subject's deviation its occasions are independent, so that the exact value is a sum of nested sums.
#
#   bench/occasions.py [--occasions 3 8 12] [--subjects 30] [--seeds 40] [--varda ...]
import argparse
import json
import math
import pathlib
import random
import statistics
import subprocess
import tempfile
import time

TRUTH = {"CL": 4.0, "V": 20.0, "between": 0.1, "within": 0.1, "proportional": 0.2}
DOSE = 100.0
TIMES = [2.0, 6.0, 12.0]
APART = 100.0  # from one occasion to the next
STEP = 0.1     # of the sums, in deviations within an occasion
REACH = 70     # steps to either side


def prediction(clearance, t):
    return DOSE / TRUTH["V"] * math.exp(-clearance / TRUTH["V"] * t)


def simulated(subjects, occasions):
    """Observations by subject and occasion: lists in lists."""
    draw = random.Random(5)
    trial = []
    for _ in range(subjects):
        own = draw.gauss(0.0, math.sqrt(TRUTH["between"]))
        trial.append([])
        for _ in range(occasions):
            clearance = TRUTH["CL"] * math.exp(own + draw.gauss(0.0, math.sqrt(TRUTH["within"])))
            trial[-1].append([prediction(clearance, t) * (1.0 + TRUTH["proportional"] * draw.gauss(0.0, 1.0))
                              for t in TIMES])
    return trial


def log_normal(x, variance):
    return -0.5 * (x * x / variance + math.log(2.0 * math.pi * variance))


def exact_minus2ll(trial):
    """At the truth. Both deviations are multiples of one step, so that only their sum matters."""
    step = STEP * math.sqrt(TRUTH["within"])
    of_grid = [log_normal(k * step, TRUTH["within"]) for k in range(-REACH, REACH + 1)]
    own_grid = [log_normal(k * step, TRUTH["between"]) for k in range(-REACH, REACH + 1)]
    sums = range(-2 * REACH, 2 * REACH + 1)
    expected = [[prediction(TRUTH["CL"] * math.exp(k * step), t) for t in TIMES] for k in sums]
    total = 0.0
    for subject in trial:
        outer = list(own_grid)
        for observed in subject:
            data = []
            for f in expected:
                terms = [log_normal(y - p, (TRUTH["proportional"] * p) ** 2) if p > 1e-100 else -math.inf
                         for y, p in zip(observed, f)]
                data.append(sum(terms))
            top = max(data)
            weights = [math.exp(value - top) for value in data]
            inner = [math.exp(value) * step for value in of_grid]
            for k in range(len(outer)):
                outer[k] += top + math.log(sum(w * x for w, x in zip(weights[k:k + len(inner)], inner)))
        top = max(outer)
        total -= 2.0 * (top + math.log(sum(math.exp(value - top) for value in outer) * step))
    return total


def write(folder, trial):
    with open(folder / "trial.csv", "w", encoding="ascii") as out:
        out.write("ID,TIME,EVID,AMT,DV,OCC\n")
        for i, subject in enumerate(trial):
            for o, observed in enumerate(subject):
                out.write(f"{i + 1},{o * APART},{4 if o else 1},{DOSE},.,{o + 1}\n")
                for t, y in zip(TIMES, observed):
                    out.write(f"{i + 1},{o * APART + t},0,.,{y!r},{o + 1}\n")
    model = folder / "model.toml"
    model.write_text(f"""[data]
file = "trial.csv"
[model]
structure = "one-compartment bolus"
[parameters]
CL = {{ start = {TRUTH["CL"]} }}
V = {{ start = {TRUTH["V"]}, distribution = "none" }}
[omega]
CL = {TRUTH["between"]}
[omega.occasion]
CL = {TRUTH["within"]}
[residual]
error = "proportional"
proportional = {TRUTH["proportional"]}
""", encoding="ascii")
    return model


def run(varda, what, model, folder, seed):
    out = folder / "out"
    begin = time.monotonic()
    done = subprocess.run([varda, what, model, "--output", out, "--seed", str(seed), "--quiet"],
                          capture_output=True, text=True, check=False)
    seconds = time.monotonic() - begin
    found = json.loads((out / f"{what}.json").read_text(encoding="utf-8"))
    return done.returncode, found["minus2ll"], found["minus2ll_mc_se"], seconds


def main():
    arguments = argparse.ArgumentParser(description="the likelihood with many random effects")
    arguments.add_argument("--occasions", type=int, nargs="*", default=[3, 8, 12])
    arguments.add_argument("--subjects", type=int, default=30)
    arguments.add_argument("--seeds", type=int, default=40)
    arguments.add_argument("--varda", default="build/release/bin/varda")
    options = arguments.parse_args()
    print("| random effects | exact | seeds | status 0 | mean difference | sd | mean stated error "
          "| within 1.96 % | worst ratio | fit, s |\n|" + "---|" * 10)
    for occasions in options.occasions:
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            trial = simulated(options.subjects, occasions)
            model = write(folder, trial)
            exact = exact_minus2ll(trial)
            all_runs = [run(options.varda, "evaluate", model, folder, s)
                        for s in range(1, options.seeds + 1)]
            good = [(value - exact, error) for status, value, error, _ in all_runs if status == 0]
            differences = [difference for difference, _ in good]
            ratios = [abs(difference) / error for difference, error in good]
            seconds = run(options.varda, "fit", model, folder, 1)[3]
        print(f"| {occasions + 1} | {exact:.4f} | {options.seeds} | {len(good)} "
              f"| {statistics.mean(differences):+.4f} | {statistics.stdev(differences):.4f} "
              f"| {statistics.mean(error for _, error in good):.4f} "
              f"| {100.0 * statistics.mean(r < 1.96 for r in ratios):.0f} | {max(ratios):.1f} "
              f"| {seconds:.1f} |", flush=True)


if __name__ == "__main__":
    main()
