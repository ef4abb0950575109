#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How wide NPDE are where the model is true, and what they take.

    bench/npde.py [--observations 10 100 500] [--subjects 20] [--varda build/release/bin/varda]

For each number of observations per subject: a population with one oral dose, simulated from known
parameters by varda; the mean and the standard deviation of the NPDE at these parameters, which
should be 0 and 1, and the deviation of the last quarter of each subject's; then the processor time
of a fit with one thread, with NPDE and without.
"""
import argparse
import csv
import pathlib
import resource
import statistics
import subprocess
import tempfile

MODEL = """[data]
file = "{data}"

[model]
structure = "one-compartment oral"

[parameters]
ka = {{ start = 1.2 }}
CL = {{ start = 3 }}
V = {{ start = 30 }}

[omega]
ka = 0.2
CL = 0.2
V = 0.2

[residual]
error = "additive"
additive = 0.5

[estimation]
npde_samples = {samples}
"""


def write_design(path, subjects, observations):
    with open(path, "w") as file:
        file.write("ID,TIME,DV,AMT\n")
        for i in range(1, subjects + 1):
            file.write(f"{i},0,.,320\n")
            for k in range(1, observations + 1):
                file.write(f"{i},{24 * k / observations:.6g},1,0\n")


def processor_seconds(varda, model, out):
    """The shortest of five fits with one thread."""
    def used():
        usage = resource.getrusage(resource.RUSAGE_CHILDREN)
        return usage.ru_utime + usage.ru_stime

    runs = []
    for _ in range(5):
        before = used()
        # Few observations may make omega singular, which the status tells.
        subprocess.run([varda, "fit", model, "-o", out, "--quiet", "--threads", "1"], check=False,
                       stdout=subprocess.DEVNULL)
        runs.append(used() - before)
    return min(runs)


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("--observations", type=int, nargs="+", default=[10, 100, 500])
    arguments.add_argument("--subjects", type=int, default=20)
    arguments.add_argument("--seed", type=int, default=77)
    arguments.add_argument("--varda", default="build/release/bin/varda")
    at = arguments.parse_args()
    print("observations   mean     sd   sd, last quarter   fit, s  without NPDE, s  share of NPDE",
          flush=True)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        model = folder / "model.toml"
        for n in at.observations:
            write_design(folder / "design.csv", at.subjects, n)
            model.write_text(MODEL.format(data="design.csv", samples=1000))
            subprocess.run([at.varda, "simulate", model, "--seed", str(at.seed), "--output",
                            folder / "data.csv"], check=True, stdout=subprocess.DEVNULL)
            model.write_text(MODEL.format(data="data.csv", samples=1000))
            subprocess.run([at.varda, "evaluate", model, "-o", folder / "truth", "--quiet"],
                           check=True, stdout=subprocess.DEVNULL)
            with open(folder / "truth" / "rows.csv") as file:
                errors = [float(row["NPDE"]) for row in csv.DictReader(file)]
            late = [e for k, e in enumerate(errors) if k % n >= 3 * n // 4]
            fit = processor_seconds(at.varda, model, folder / "out")
            model.write_text(MODEL.format(data="data.csv", samples=0))
            without = processor_seconds(at.varda, model, folder / "out")
            print(f"{n:12d} {statistics.mean(errors):6.3f} {statistics.stdev(errors):6.3f}"
                  f" {statistics.stdev(late):18.3f} {fit:8.2f} {without:16.2f}"
                  f" {1 - without / fit:14.0%}", flush=True)


if __name__ == "__main__":
    main()
