#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Simulates trials with counts (Poisson, a drug effect and a random intercept) or with times to a
# repeated event (Weibull, a drug effect and a random scale, watched until 12), fits each with varda
# from start values that are off, and prints bias and the coverage of the 95 % intervals with the
# errors that the number of trials leaves in them.
#
#   bench/endpoint_trials.py counts|events [--trials 200] [--subjects 60] [--varda build/release/bin/varda]
import argparse
import concurrent.futures
import json
import math
import pathlib
import random
import subprocess
import tempfile

TRUTH = {
    "counts": {"base": 3.0, "drug": -0.5, "omega2": 0.3},
    "events": {"scale": 4.0, "shape": 1.3, "drug": 0.4, "omega2": 0.15},
}
MODEL = {
    "counts": """[data]
file = "trial.csv"
[model]
structure = "formula"
[parameters]
base = { start = 1.5 }
drug = { start = -0.1, distribution = "none" }
[omega]
base = 0.6
[endpoint.y]
kind = "poisson"
mean = "base * exp(drug * TRT)"
[estimation]
npde_samples = 0
""",
    "events": """[data]
file = "trial.csv"
[model]
structure = "formula"
[parameters]
scale = { start = 7 }
shape = { start = 1, distribution = "none", lower = 0 }
drug = { start = 0.1, distribution = "none" }
[omega]
scale = 0.3
[endpoint.y]
kind = "event"
repeated = true
cumulative_hazard = "(t / (scale * exp(drug * TRT)))^shape"
[estimation]
npde_samples = 0
""",
}


# Knuth's product of uniform numbers: the means are small.
def poisson(draw, mean):
    count, product = 0, draw.random()
    while product > math.exp(-mean):
        count += 1
        product *= draw.random()
    return count


def write_trial(path, kind, subjects, seed):
    draw = random.Random(seed)
    truth = TRUTH[kind]
    with open(path, "w", encoding="ascii") as out:
        out.write("ID,TIME,DV,TRT\n")
        for subject in range(1, subjects + 1):
            drug = subject % 2
            eta = draw.gauss(0, math.sqrt(truth["omega2"]))
            if kind == "counts":
                mean = truth["base"] * math.exp(truth["drug"] * drug + eta)
                for visit in range(1, 7):
                    out.write(f"{subject},{visit},{poisson(draw, mean)},{drug}\n")
                continue
            scale = truth["scale"] * math.exp(truth["drug"] * drug + eta)
            total = draw.expovariate(1)
            while (time := scale * total ** (1 / truth["shape"])) < 12:
                out.write(f"{subject},{time!r},1,{drug}\n")
                total += draw.expovariate(1)
            out.write(f"{subject},12,0,{drug}\n")


# Estimate and interval of every parameter, or nothing where a fit has not converged.
def fit_trial(varda, kind, subjects, seed):
    with tempfile.TemporaryDirectory() as folder:
        at = pathlib.Path(folder)
        write_trial(at / "trial.csv", kind, subjects, seed)
        (at / "model.toml").write_text(MODEL[kind], encoding="ascii")
        run = subprocess.run([varda, "fit", at / "model.toml", "--output", at / "out", "--quiet"],
                             capture_output=True, text=True, check=False)
        if run.returncode != 0:
            return seed, run.returncode, {}
        result = json.loads((at / "out" / "fit.json").read_text(encoding="utf-8"))
    found = {p["name"]: (p["estimate"], p.get("ci95")) for p in result["parameters"]}
    omega = result["omega"]
    found["omega2"] = (omega["matrix"][0][0], omega.get("ci95", [[None]])[0][0])
    return seed, 0, found


def main():
    arguments = argparse.ArgumentParser(description="bias and coverage over simulated trials")
    arguments.add_argument("kind", choices=sorted(TRUTH))
    arguments.add_argument("--trials", type=int, default=200)
    arguments.add_argument("--subjects", type=int, default=60)
    arguments.add_argument("--varda", default="build/release/bin/varda")
    arguments.add_argument("--jobs", type=int, default=2)
    given = arguments.parse_args()
    varda = str(pathlib.Path(given.varda).resolve())
    with concurrent.futures.ThreadPoolExecutor(given.jobs) as pool:
        done = list(pool.map(lambda seed: fit_trial(varda, given.kind, given.subjects, seed),
                             range(1, given.trials + 1)))
    converged = [found for _, status, found in done if status == 0]
    print(f"{given.kind}: {len(converged)} of {given.trials} trials converged; others, by seed and "
          f"status: {[(seed, status) for seed, status, _ in done if status != 0]}")
    print(f"{'':8} {'truth':>8} {'bias, %':>9} {'error':>6} {'coverage, %':>12} {'error':>6}")
    for name, truth in TRUTH[given.kind].items():
        ratios = [found[name][0] / truth - 1 for found in converged]
        n = len(ratios)
        bias = sum(ratios) / n
        spread = math.sqrt(sum((r - bias) ** 2 for r in ratios) / (n - 1) / n)
        intervals = [found[name][1] for found in converged if found[name][1]]
        share = sum(low <= truth <= high for low, high in intervals) / len(intervals)
        error = math.sqrt(0.95 * 0.05 / len(intervals))
        print(f"{name:8} {truth:8g} {100 * bias:9.2f} {100 * spread:6.2f} {100 * share:12.1f} "
              f"{100 * error:6.1f}")


if __name__ == "__main__":
    main()
