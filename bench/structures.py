#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every ready structure through the whole of varda: data are simulated from its own model file
(varda new, varda simulate), start values come from them (varda new --data), and a fit has to find
the truth again.

  structures.py [--threads N] VARDA FOLDER [NAME...]

prints a line for each structure (a table in Markdown): verdict, processor seconds of varda new and of the
fit, how many of the estimates hold the truth in their 95 % intervals, the largest distance of an estimate
from the truth in standard errors, and by how much -2 log-likelihood at the truth is above the minimum,
with the number of parameters, which is its expectation. FOLDER keeps everything. Responses stand behind
"one-compartment oral", whose concentrations have times of their own where the response is slower than
they are. NAMEs choose structures.
"""
import argparse
import csv
import json
import os
import re
import resource
import subprocess
import zlib

subjects = 40

# Doses of three groups of subjects, and times of the observations, by the beginning of a name.
usual = ([100, 200, 400], [0.25, 0.5, 1, 2, 3, 4, 6, 8, 12, 16, 24])
absorbing = [0.25, 0.5, 0.75, 1, 1.25, 1.5, 2, 2.5, 3, 3.5, 4, 5, 6, 8, 12, 16, 24]
late = [0.1, 0.25, 0.5, 1, 2, 3, 4, 6, 8, 12, 16, 24, 36, 48, 72, 96, 144, 192]
designs = {
    "one-compartment zero-order": ([100, 200, 400], absorbing),
    "two-compartment zero-order": ([100, 200, 400], absorbing + [36, 48]),
    "two-compartment oral": ([100, 200, 400], absorbing + [36, 48]),
    "three-compartment": ([100, 200, 400], late),
    "three-compartment oral": ([100, 200, 400], absorbing + late[12:]),
    "three-compartment zero-order": ([100, 200, 400], absorbing + late[12:]),
    "one-compartment michaelis": ([100, 200, 600], [0.5, 1, 2, 4, 6, 8, 10, 12, 16, 20, 24]),
    "two-compartment michaelis": ([100, 200, 600], [0.5, 1, 2, 4, 6, 8, 10, 12, 16, 20, 24]),
    "one-compartment mixed": ([100, 400, 1600], [0.5, 1, 2, 4, 6, 8, 10, 12, 16, 20, 24]),
    "two-compartment mixed": ([100, 400, 1600], [0.5, 1, 2, 4, 6, 8, 10, 12, 16, 20, 24]),
    "one-compartment target": ([200, 600, 2000], [0.1, 0.5, 1, 2, 4, 6, 8, 12, 18, 24, 36]),
    "two-compartment target": ([200, 600, 2000], [0.1, 0.5, 1, 2, 4, 6, 8, 12, 18, 24, 36]),
    "one-compartment weibull": ([100, 200, 400], [0.25, 0.5, 1, 1.5, 2, 3, 4, 6, 8, 12, 16, 24]),
    "one-compartment parallel": ([100, 200, 400], absorbing),
    "one-compartment sequential": ([100, 200, 400], absorbing),
    "myelosuppression": ([200, 800, 1600], [0, 2, 12, 24, 72, 120, 168, 216, 264, 336, 408, 504]),
    "tumour-growth exponential-linear": ([50, 200, 800], [0, 1, 2, 4, 6, 8, 10, 14, 18, 22, 26, 30]),
    "tumour-growth inhibition": ([100, 400, 1600], [0, 2, 6, 12, 18, 24, 36, 48, 60, 72]),
    "tumour-growth": ([0, 0, 0], [0, 2, 4, 7, 10, 14, 21, 28, 42, 56]),
    "indirect": ([50, 200, 800], [0, 1, 2, 4, 6, 9, 12, 18, 24, 36, 48]),
    "effect": ([50, 200, 800], [0, 0.5, 1, 2, 3, 4, 6, 8, 12, 16, 24]),
    "emax": ([50, 200, 800], [0, 0.5, 1, 2, 3, 4, 6, 8, 12, 16, 24]),
    "sigmoid": ([50, 200, 800], [0, 0.5, 1, 2, 3, 4, 6, 8, 12, 16, 24]),
}

# Responses that go on for long after the drug has gone: concentrations at the usual times.
slow = ("myelosuppression", "tumour-growth exponential-linear", "tumour-growth inhibition")

# Parameters without a random effect beside those of the draft: where one dose for each subject says
# next to nothing of how they vary, and a modeller would leave their random effects out.
not_random = {
    "one-compartment parallel-absorption": ["fraction"],
    "one-compartment sequential-absorption": ["fraction"],
    "two-compartment michaelis-menten oral": ["Q"],
    "two-compartment mixed-elimination oral": ["Q"],
    "two-compartment target-mediated intravenous": ["Q", "V2"],
    "two-compartment target-mediated-qss intravenous": ["Q", "V2"],
    "two-compartment target-mediated oral": ["ka", "Q", "V2"],
    "two-compartment target-mediated-qss oral": ["ka", "Q", "V2"],
}


def processor_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def run(*arguments):
    began = processor_seconds()
    done = subprocess.run(arguments, capture_output=True, text=True)
    return done, processor_seconds() - began


def structures(varda):
    """The ready structures by kind, from the list that varda prints."""
    names, heading = [], ""
    for line in run(varda, "new", "--list")[0].stdout.splitlines():
        if line and not line.startswith(" "):
            heading = line
        elif re.match(r"  \S", line):
            name = line.strip()
            names.append((name, "one-compartment oral + " + name if "RESPONSE" in heading else name))
    return names


def design_of(name):
    for start in sorted(designs, key=len, reverse=True):
        if name.startswith(start):
            return designs[start]
    return usual


def write_design(path, name, outputs):
    doses, times = design_of(name)
    # A dose whose duration the model has to say.
    modelled = "zero-order" in name
    rate = (",-2", ",.") if modelled else ("", "")
    with open(path, "w") as file:
        file.write("ID,TIME,AMT" + (",RATE" if modelled else "") + ",DV,EVID,DVID\n")
        for i in range(subjects):
            dose = doses[i % len(doses)]
            if dose > 0:
                file.write(f"{i + 1},0,{dose}{rate[0]},.,1,.\n")
            records = [(t, 1) for t in (usual[1] if name in slow else times)]
            records += [(t, k) for t in times for k in range(2, outputs + 1)]
            for t, k in sorted(records):
                file.write(f"{i + 1},{t},.{rate[1]},.,0,{k}\n")


def take_simulated(design, simulated, path):
    """The design with the values of the first replicate; a concentration before anything has come in is
    left out."""
    with open(simulated) as file:
        values = [row["DV"] for row in csv.DictReader(file) if row["EVID"] == "0"]
    rows = list(csv.DictReader(open(design)))
    observed = [row for row in rows if row["EVID"] == "0"]
    if len(values) != len(observed):
        raise RuntimeError(f"{len(values)} values for {len(observed)} records")
    for row, value in zip(observed, values):
        row["DV"] = value
    with open(path, "w") as file:
        file.write(",".join(rows[0]) + "\n")
        for row in rows:
            if row["EVID"] == "1" or float(row["DV"]) > 0:
                file.write(",".join(row.values()) + "\n")


def without_random_effects(text, names):
    """A model file of varda new in which these parameters have no random effect."""
    for name in names:
        text = re.sub(rf"^{name} = [0-9.e+-]+\n", "", text, flags=re.M)
        text = re.sub(rf"^({name} = {{ start = [^ ,}}]+)(, distribution = \"logit-normal\")?",
                      lambda found: found[1] + (', distribution = "none"') +
                      (", lower = 0, upper = 1" if found[2] else ""), text, flags=re.M)
    return text


def truth_of(model):
    """Start values and variances of a model file that varda new has written."""
    truth, table = {}, ""
    for line in open(model):
        if line.startswith("["):
            table = line.strip()
        elif table == "[parameters]" and (found := re.match(r"(\w+) = { start = ([^ ,}]+)", line)):
            truth[found[1]] = float(found[2])
        elif table == "[omega]" and (found := re.match(r"(\w+) = (\S+)", line)):
            truth[f"omega({found[1]},{found[1]})"] = float(found[2])
    return truth


def count_of_estimates(path):
    return json.load(open(path))["criteria"]["estimated"]


def try_structure(varda, folder, threads, name, whole):
    here = os.path.join(folder, re.sub(r"[^a-z0-9]+", "_", name))
    os.makedirs(here, exist_ok=True)
    path = lambda file: os.path.join(here, file)
    for old in ("truth.toml", "first.toml"):
        if os.path.exists(path(old)):
            os.remove(path(old))
    done, _ = run(varda, "new", whole, "--output", path("truth.toml"))
    if done.returncode != 0:
        return f"| {name} | {done.stderr.strip()} |"
    text = open(path("truth.toml")).read().replace("data.csv", "design.csv")
    outputs = max(len(re.findall(r"^\[residual", text, re.M)), 1)
    # Less variation than the draft's, so that forty subjects tell something.
    text = re.sub(r"^(\w+) = 0\.2$", r"\1 = 0.06", text, flags=re.M)
    text = re.sub(r"^proportional = .*$", "proportional = 0.1", text, flags=re.M)
    text = without_random_effects(text, not_random.get(name, []))
    open(path("truth.toml"), "w").write(text)
    write_design(path("design.csv"), name, outputs)
    # varda simulate wants a data set with values where the model file names it.
    done, _ = run(varda, "simulate", path("truth.toml"), "--data", path("design.csv"), "-n", "1",
                  "--seed", str(1 + zlib.crc32(name.encode()) % 100000), "--output", path("simulated.csv"))
    if done.returncode != 0:
        return f"| {name} | {done.stderr.strip()} |"
    take_simulated(path("design.csv"), path("simulated.csv"), path("data.csv"))
    drafted, seconds = run(varda, "new", whole, "--data", path("data.csv"), "--output", path("first.toml"),
                           "--error", "proportional")
    if drafted.returncode != 0:
        return f"| {name} | {drafted.stderr.strip()} |"
    text = without_random_effects(open(path("first.toml")).read(), not_random.get(name, []))
    open(path("first.toml"), "w").write(text + "\n[estimation]\nnpde_samples = 0\n")
    fitted, fit_seconds = run(varda, "fit", path("first.toml"), "--output", path("fit"), "--quiet",
                              "--threads", str(threads))
    if fitted.returncode not in (0, 3):
        return f"| {name} | {fitted.stderr.strip()} |"
    verdict = "converged" if fitted.returncode == 0 else "not converged"
    truth = truth_of(path("truth.toml"))
    inside, count, worst, where = 0, 0, 0.0, ""
    for row in csv.DictReader(open(path("fit/estimates.csv"))):
        key = row["parameter"]
        value = truth.get(key, 0.1 if key.split(".")[-1] == "proportional" else None)
        if value is None or not row["se"] or float(row["se"]) <= 0:
            continue
        count += 1
        inside += float(row["ci95_lower"]) <= value <= float(row["ci95_upper"])
        distance = abs(float(row["estimate"]) - value) / float(row["se"])
        if distance > worst:
            worst, where = distance, key
    above = "-"
    text = open(path("truth.toml")).read().replace("design.csv", "data.csv")
    open(path("at_truth.toml"), "w").write(text + "\n[estimation]\nnpde_samples = 0\n")
    done, _ = run(varda, "evaluate", path("at_truth.toml"), "--output", path("at_truth"), "--quiet",
                  "--threads", str(threads))
    if done.returncode == 0:
        at_truth, at_estimates = (json.load(open(path(file)))["minus2ll"]
                                  for file in ("at_truth/evaluate.json", "fit/fit.json"))
        above = f"{at_truth - at_estimates:.1f}"
    return (f"| {name} | {verdict} | {seconds:.1f} | {fit_seconds:.1f} | {inside} of {count} | "
            f"{worst:.1f} ({where}) | {above} ({count_of_estimates(path('fit/fit.json'))}) |")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("varda")
    parser.add_argument("folder")
    parser.add_argument("names", nargs="*")
    given = parser.parse_args()
    print("| structure | verdict | new, s | fit, s | in the interval | furthest, standard errors | "
          "truth above minimum (parameters) |")
    print("|---|---|---|---|---|---|---|")
    for name, whole in structures(given.varda):
        if not given.names or name in given.names:
            print(try_structure(given.varda, given.folder, given.threads, name, whole), flush=True)


main()
