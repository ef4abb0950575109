#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Simulates trials of the oral one-compartment model with known parameters, fits each with varda from
# start values that are off, and prints bias and the coverage of the 95 % intervals with the errors
# that the number of trials leaves in them.
#
#   bench/trials.py [--trials 1000] [--subjects 50] [--varda build/release/bin/varda] [--jobs 2]
import argparse
import concurrent.futures
import json
import math
import pathlib
import random
import subprocess
import tempfile

TYPICAL = {"ka": 1.5, "CL": 2.8, "V": 32.0}
START = {"ka": 1.0, "CL": 4.0, "V": 25.0}
VARIANCE = {"ka": 0.30, "CL": 0.07, "V": 0.03}
DEVIATION = 0.7
DOSE = 320.0
TIMES = [0.25, 0.5, 1, 2, 3.5, 5, 7, 9, 12, 24]

MODEL = """[data]
file = "trial.csv"
[model]
structure = "one-compartment oral"
[parameters]
""" + "".join(f"{name} = {{ start = {value} }}\n" for name, value in START.items()) + """[omega]
ka = 0.2
CL = 0.2
V = 0.2
[residual]
error = "additive"
additive = 1.0
"""


def concentration(p, t):
    k = p["CL"] / p["V"]
    rate = p["ka"]
    return DOSE * rate / (p["V"] * (rate - k)) * (math.exp(-k * t) - math.exp(-rate * t))


def write_trial(path, subjects, seed):
    draw = random.Random(seed)
    with open(path, "w", encoding="ascii") as out:
        out.write("ID,TIME,AMT,DV,EVID\n")
        for subject in range(1, subjects + 1):
            p = {name: value * math.exp(draw.gauss(0, math.sqrt(VARIANCE[name])))
                 for name, value in TYPICAL.items()}
            out.write(f"{subject},0,{DOSE},.,1\n")
            for t in TIMES:
                out.write(f"{subject},{t},0,{concentration(p, t) + draw.gauss(0, DEVIATION)!r},0\n")


# Estimate and interval of every parameter, or nothing where a fit has not converged or has no errors.
def fit_trial(varda, subjects, seed):
    with tempfile.TemporaryDirectory() as folder:
        at = pathlib.Path(folder)
        write_trial(at / "trial.csv", subjects, seed)
        (at / "model.toml").write_text(MODEL, encoding="ascii")
        run = subprocess.run([varda, "fit", at / "model.toml", "--output", at / "out", "--quiet"],
                             capture_output=True, text=True, check=False)
        if run.returncode != 0:
            return seed, run.returncode, {}
        result = json.loads((at / "out" / "fit.json").read_text(encoding="utf-8"))
    found = {p["name"]: (p["estimate"], p.get("ci95")) for p in result["parameters"]}
    found["additive"] = (result["residual"][0]["estimate"], result["residual"][0].get("ci95"))
    omega = result["omega"]
    for i, name in enumerate(omega["names"]):
        found[f"omega2 {name}"] = (omega["matrix"][i][i], omega.get("ci95", [[None] * 3] * 3)[i][i])
    return seed, 0, found


def main():
    arguments = argparse.ArgumentParser(description="bias and coverage over simulated trials")
    arguments.add_argument("--trials", type=int, default=1000)
    arguments.add_argument("--subjects", type=int, default=50)
    arguments.add_argument("--jobs", type=int, default=2)
    arguments.add_argument("--varda", default="build/release/bin/varda")
    options = arguments.parse_args()

    truth = dict(TYPICAL)
    truth["additive"] = DEVIATION
    truth.update({f"omega2 {name}": value for name, value in VARIANCE.items()})
    estimates = {name: [] for name in truth}
    covered = {name: [] for name in truth}
    failures = []
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        jobs = [pool.submit(fit_trial, options.varda, options.subjects, seed)
                for seed in range(1, options.trials + 1)]
        for done, job in enumerate(concurrent.futures.as_completed(jobs), 1):
            seed, status, found = job.result()
            if status != 0:
                failures.append((seed, status))
            for name, (estimate, interval) in found.items():
                estimates[name].append(estimate / truth[name] - 1)
                if interval is not None:
                    covered[name].append(interval[0] <= truth[name] <= interval[1])
            if done % 50 == 0:
                print(f"{done} trials", flush=True)

    print(f"\n{options.trials} trials of {options.subjects} subjects, "
          f"{len(failures)} fits without convergence {failures[:10]}")
    print("| parameter | bias % | error | coverage % | error |\n|---|---|---|---|---|")
    for name, values in estimates.items():
        n = len(values)
        mean = sum(values) / n
        spread = math.sqrt(sum((v - mean) ** 2 for v in values) / (n - 1) / n)
        share = sum(covered[name]) / len(covered[name])
        error = math.sqrt(share * (1 - share) / len(covered[name]))
        print(f"| {name} | {100 * mean:+.2f} | {100 * spread:.2f} "
              f"| {100 * share:.1f} | {100 * error:.1f} |")


if __name__ == "__main__":
    main()
