#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Simulates subjects with one oral dose and eight observations each, always the same ones.

    bench/oral_population.py SUBJECTS FOLDER

writes FOLDER/oral-SUBJECTS.csv and the model file FOLDER/oral-SUBJECTS.toml. One compartment with
first-order absorption; ka, CL and V log-normal, CL with the weight to the power 0.75; proportional
error. The first n subjects are the same for every SUBJECTS >= n.
"""
import math
import random
import sys

KA, CL, V = 1.5, 2.8, 32.0
OMEGA_KA, OMEGA_CL, OMEGA_V = 0.30, 0.09, 0.04
WEIGHT_ON_CL = 0.75
PROPORTIONAL = 0.15
DOSE = 320.0
TIMES = (0.5, 1.0, 2.0, 4.0, 7.0, 10.0, 16.0, 24.0)

MODEL = """title = "Simulated: {n} subjects, oral dose, weight on clearance, proportional error"

[data]
file = "oral-{n}.csv"

[model]
structure = "one-compartment oral"

[parameters]
ka = {{ start = 1.2 }}
CL = {{ start = 3.5, covariates = [{{ column = "WT", center = 70, start = 0.5 }}] }}
V = {{ start = 28.0 }}

[omega]
ka = 0.2
CL = 0.2
V = 0.2

[residual]
error = "proportional"
proportional = 0.3

[estimation]
standard_errors = "none"
"""


def subject(number, draw):
    weight = 70.0 * math.exp(0.2 * draw.gauss(0.0, 1.0))
    ka = KA * math.exp(math.sqrt(OMEGA_KA) * draw.gauss(0.0, 1.0))
    cl = CL * math.exp(math.sqrt(OMEGA_CL) * draw.gauss(0.0, 1.0))
    cl *= (weight / 70.0) ** WEIGHT_ON_CL
    volume = V * math.exp(math.sqrt(OMEGA_V) * draw.gauss(0.0, 1.0))
    k = cl / volume
    yield f"{number},0,.,{DOSE:g},{weight:.2f}"
    for nominal in TIMES:
        time = round(nominal * (1.0 + 0.05 * draw.uniform(-1.0, 1.0)), 3)
        f = DOSE * ka / (volume * (ka - k)) * (math.exp(-k * time) - math.exp(-ka * time))
        y = f * (1.0 + PROPORTIONAL * draw.gauss(0.0, 1.0))
        yield f"{number},{time:g},{y:.4f},0,{weight:.2f}"


def main():
    count, folder = int(sys.argv[1]), sys.argv[2]
    draw = random.Random(20)
    with open(f"{folder}/oral-{count}.csv", "w", encoding="ascii") as data:
        print("ID,TIME,DV,AMT,WT", file=data)
        for number in range(1, count + 1):
            for line in subject(number, draw):
                print(line, file=data)
    with open(f"{folder}/oral-{count}.toml", "w", encoding="ascii") as model:
        model.write(MODEL.format(n=count))


main()
