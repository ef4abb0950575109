#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Fits of trials with saturable elimination, written as differential equations: 120 subjects at four
# dose levels with 19 observations each, simulated from known parameters by a Runge-Kutta method of
# small steps. Prints the seconds of each stage and the evaluations, and leaves the estimates in
# OUT/<model>/fit.json.
#
#   bench/michaelis_menten.py [--varda build/release/bin/varda] [--models bolus oral] [--method newton]
import argparse
import json
import math
import pathlib
import random
import subprocess
import time

SUBJECTS = 120
DOSES = [25.0, 50.0, 100.0, 200.0]
TIMES = [0.25, 0.5, 0.75, 1, 1.5, 2, 3, 4, 5, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24]
PROPORTIONAL = 0.1
ADDITIVE = 0.05


def bolus(p, x):
    return [-p["VM"] * x[0] / (p["KM"] * p["V"] + x[0])]


def oral(p, x):
    c1, c2 = x[1] / p["V"], x[2] / p["V2"]
    exchange = p["Q"] * (c1 - c2)
    return [-p["ka"] * x[0], p["ka"] * x[0] - p["VM"] * c1 / (p["KM"] + c1) - exchange, exchange]


MODELS = {
    "bolus": {
        "slope": bolus, "states": 1, "seen": 0,
        "typical": {"VM": 10.0, "KM": 1.0, "V": 10.0},
        "start": {"VM": 7.0, "KM": 1.5, "V": 14.0},
        "text": 'derivatives = { central = "-VM * central / (KM * V + central)" }',
    },
    "oral": {
        "slope": oral, "states": 3, "seen": 1,
        "typical": {"ka": 1.2, "VM": 10.0, "KM": 1.0, "V": 10.0, "Q": 3.0, "V2": 20.0},
        "start": {"ka": 0.9, "VM": 13.0, "KM": 1.4, "V": 13.0, "Q": 2.0, "V2": 26.0},
        "text": '''definitions = { c1 = "central / V", c2 = "peripheral / V2" }
derivatives = { depot = "-ka * depot", \
central = "ka * depot - VM * c1 / (KM + c1) - Q * (c1 - c2)", peripheral = "Q * (c1 - c2)" }''',
    },
}


def amounts(slope, states, p, dose):
    x = [dose] + [0.0] * (states - 1)
    now, h = 0.0, 0.0125
    for t in TIMES:
        for _ in range(round((t - now) / h)):
            k1 = slope(p, x)
            k2 = slope(p, [a + 0.5 * h * b for a, b in zip(x, k1)])
            k3 = slope(p, [a + 0.5 * h * b for a, b in zip(x, k2)])
            k4 = slope(p, [a + h * b for a, b in zip(x, k3)])
            x = [a + h / 6.0 * (b + 2.0 * c + 2.0 * d + e)
                 for a, b, c, d, e in zip(x, k1, k2, k3, k4)]
        now = t
        yield t, x


def write_trial(path, model):
    draw = random.Random(20240607)
    with open(path, "w", encoding="ascii") as out:
        out.write("ID,TIME,AMT,DV,EVID\n")
        for subject in range(SUBJECTS):
            p = {name: value * math.exp(draw.gauss(0, 0.3))
                 for name, value in model["typical"].items()}
            dose = DOSES[subject % len(DOSES)]
            out.write(f"{subject + 1},0,{dose},.,1\n")
            for t, x in amounts(model["slope"], model["states"], p, dose):
                c = x[model["seen"]] / p["V"]
                y = c + math.hypot(ADDITIVE, PROPORTIONAL * c) * draw.gauss(0, 1)
                out.write(f"{subject + 1},{t},0,{y!r},0\n")


def model_file(model, method):
    lines = ["[data]", 'file = "trial.csv"', "[model]", 'structure = "equations"', model["text"],
             'outputs = { concentration = "central / V" }', "[parameters]"]
    lines += [f"{name} = {{ start = {value} }}" for name, value in model["start"].items()]
    lines += ["[omega]"] + [f"{name} = 0.15" for name in model["start"]]
    lines += ["[residual]", 'error = "combined"', "proportional = 0.2", "additive = 0.1",
              "[estimation]", f'method = "{method}"']
    return "\n".join(lines) + "\n"


def main():
    arguments = argparse.ArgumentParser(description="fits of saturable elimination in equations")
    arguments.add_argument("--varda", default="build/release/bin/varda")
    arguments.add_argument("--models", nargs="+", choices=list(MODELS), default=list(MODELS))
    arguments.add_argument("--method", choices=["newton", "em"], default="newton")
    arguments.add_argument("--out", type=pathlib.Path, default=pathlib.Path("michaelis_menten"))
    chosen = arguments.parse_args()
    for name in chosen.models:
        folder = chosen.out / name
        folder.mkdir(parents=True, exist_ok=True)
        write_trial(folder / "trial.csv", MODELS[name])
        (folder / "model.toml").write_text(model_file(MODELS[name], chosen.method),
                                           encoding="ascii")
        begin = time.monotonic()
        run = subprocess.run([chosen.varda, "fit", folder / "model.toml", "--output",
                              folder / "out", "--quiet"], check=False)
        seconds = time.monotonic() - begin
        print(f"{name}: exit status {run.returncode}, {seconds:.1f} s")
        if (folder / "out" / "fit.json").exists():
            result = json.loads((folder / "out" / "fit.json").read_text(encoding="utf-8"))
            run_facts = json.loads((folder / "out" / "run.json").read_text(encoding="utf-8"))
            print("  " + json.dumps(run_facts["seconds"] | {"evaluations": run_facts["evaluations"]}))
            for p in result["parameters"]:
                print(f"  {p['name']}: {p['estimate']:.4f}, simulated with"
                      f" {MODELS[name]['typical'][p['name']]}")


if __name__ == "__main__":
    main()
