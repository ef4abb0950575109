#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# How far the kinds of standard error lie apart where the model is true: simulates trials of the oral
# one-compartment model, fits each, and prints quantiles of |log(sandwich / information)| over the
# trials, of the largest in a fit, times the square root of the number of subjects, and the share of
# the fits that warn.
#
#   bench/error_kinds.py [--trials 200] [--subjects 12 24 60 200] [--designs rich sparse full combined]
#       [--varda build/release/bin/varda] [--jobs 2] [--wrong]
#
# --wrong: a quarter of the subjects have three times the residual deviation, which no design models.
import argparse
import concurrent.futures
import json
import math
import pathlib
import random
import subprocess
import tempfile

import trials

# Observation times of a subject, residual error, whether random effects are correlated.
DESIGNS = {
    "rich": (10, "additive", False),
    "sparse": (3, "additive", False),
    "full": (10, "additive", True),
    "combined": (10, "combined", False),
}
CORRELATION = 0.5  # of log CL and log V


def write_trial(path, design, subjects, seed, wrong):
    observations, error, correlated = DESIGNS[design]
    draw = random.Random(f"{design} {subjects} {seed}")
    with open(path, "w", encoding="ascii") as out:
        out.write("ID,TIME,AMT,DV,EVID\n")
        for subject in range(1, subjects + 1):
            z = {name: draw.gauss(0, 1) for name in trials.TYPICAL}
            if correlated:
                z["V"] = CORRELATION * z["CL"] + math.sqrt(1 - CORRELATION ** 2) * z["V"]
            p = {name: value * math.exp(math.sqrt(trials.VARIANCE[name]) * z[name])
                 for name, value in trials.TYPICAL.items()}
            noise = 3.0 if wrong and subject % 4 == 0 else 1.0
            out.write(f"{subject},0,{trials.DOSE},.,1\n")
            for t in sorted(draw.sample(trials.TIMES, observations)):
                f = trials.concentration(p, t)
                deviation = math.hypot(0.3, 0.1 * f) if error == "combined" else trials.DEVIATION
                out.write(f"{subject},{t},0,{f + noise * draw.gauss(0, deviation)!r},0\n")


def model_text(design):
    _, error, correlated = DESIGNS[design]
    text = trials.MODEL
    if correlated:
        text = text.replace("ka = 0.2\nCL = 0.2\nV = 0.2\n",
                            "ka = 0.2\nblocks = [{ parameters = [\"CL\", \"V\"], matrix = "
                            "[[0.2], [0.05, 0.2]] }]\n")
    if error == "combined":
        text = text.replace('error = "additive"\nadditive = 1.0',
                            'error = "combined"\nadditive = 0.5\nproportional = 0.2')
    return text


# The largest |log| of the ratios of errors in a fit that converged, and whether it warned.
def fit_trial(varda, design, subjects, seed, wrong):
    with tempfile.TemporaryDirectory() as folder:
        at = pathlib.Path(folder)
        write_trial(at / "trial.csv", design, subjects, seed, wrong)
        (at / "model.toml").write_text(model_text(design), encoding="ascii")
        run = subprocess.run([varda, "fit", at / "model.toml", "--output", at / "out", "--quiet"],
                             capture_output=True, text=True, check=False)
        if run.returncode != 0:
            return None
        result = json.loads((at / "out" / "fit.json").read_text(encoding="utf-8"))
    errors = result["standard_errors"]
    information, sandwich = errors["covariance_information"], errors["covariance_sandwich"]
    if not information or not sandwich or information[0][0] is None:
        return None
    apart = [abs(0.5 * math.log(sandwich[k][k] / information[k][k]))
             for k in range(len(information)) if information[k][k] is not None]
    warned = any(w["code"] == "W-RUN-ERRORS-DISAGREE" for w in result["warnings"])
    return max(apart), warned


def main():
    arguments = argparse.ArgumentParser(description="how far kinds of standard error lie apart")
    arguments.add_argument("--trials", type=int, default=200)
    arguments.add_argument("--subjects", type=int, nargs="+", default=[12, 24, 60, 200])
    arguments.add_argument("--designs", nargs="+", choices=DESIGNS, default=list(DESIGNS))
    arguments.add_argument("--jobs", type=int, default=2)
    arguments.add_argument("--varda", default="build/release/bin/varda")
    arguments.add_argument("--wrong", action="store_true")
    options = arguments.parse_args()
    print("| design | subjects | fits | median | 90 % | 95 % | 99 % | 95 % x sqrt(N) | warned % |\n"
          "|---|---|---|---|---|---|---|---|---|")
    for design in options.designs:
        for subjects in options.subjects:
            with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
                found = list(pool.map(
                    lambda seed: fit_trial(options.varda, design, subjects, seed, options.wrong),
                    range(1, options.trials + 1)))
            found = sorted(f for f in found if f is not None)
            if not found:
                continue
            quantile = lambda q: found[min(len(found) - 1, int(q * len(found)))][0]
            print(f"| {design} | {subjects} | {len(found)} | {quantile(0.5):.2f} | {quantile(0.9):.2f} "
                  f"| {quantile(0.95):.2f} | {quantile(0.99):.2f} "
                  f"| {quantile(0.95) * math.sqrt(subjects):.2f} "
                  f"| {100 * sum(w for _, w in found) / len(found):.0f} |", flush=True)


if __name__ == "__main__":
    main()
