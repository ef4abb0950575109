#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Prints the predictions for tests/varda/trials/history.csv: Runge-Kutta steps of order four for
# two compartments with a depot, every dose of a regimen given one by one, steady states by
# hundreds of earlier doses. Slow, and shares nothing with the engine.
#
#   bench/reference_history.py > tests/varda/trials/history_reference.csv
import csv
import pathlib
import sys

KA, CL70, V1, Q, V2, LAG, F = 1.1, 5.0, 20.0, 8.0, 45.0, 0.7, 0.8
STEP = 0.002
REGIMEN = 150  # doses before a steady state


def derivative(x, rates, clearance):
    depot, central, tissue = x
    k, k12, k21 = clearance / V1, Q / V1, Q / V2
    return [rates[0] - KA * depot,
            rates[1] + KA * depot - (k + k12) * central + k21 * tissue,
            k12 * central - k21 * tissue]


def advance(x, rates, clearance, span):
    steps = max(1, round(span / STEP))
    h = span / steps
    for _ in range(steps):
        a = derivative(x, rates, clearance)
        b = derivative([s + h / 2 * d for s, d in zip(x, a)], rates, clearance)
        c = derivative([s + h / 2 * d for s, d in zip(x, b)], rates, clearance)
        d = derivative([s + h * e for s, e in zip(x, c)], rates, clearance)
        x = [s + h / 6 * (p + 2 * q + 2 * r + t) for s, p, q, r, t in zip(x, a, b, c, d)]
    return x


class body:
    def __init__(self, time, weight):
        self.time = time
        self.weight = weight
        self.clear()

    def clear(self):
        self.amounts = [0.0, 0.0, 0.0]
        self.rates = [0.0, 0.0, 0.0]
        self.waiting = []  # time, compartment, amount, change of rate

    def go_to(self, time):
        clearance = CL70 * (self.weight / 70) ** 0.75
        while self.waiting and min(self.waiting)[0] <= time:
            entry = min(self.waiting)
            self.waiting.remove(entry)
            at, compartment, amount, rate = entry
            if at > self.time:
                self.amounts = advance(self.amounts, self.rates, clearance, at - self.time)
                self.time = at
            self.amounts[compartment] += amount
            self.rates[compartment] += rate
        if time > self.time:
            self.amounts = advance(self.amounts, self.rates, clearance, time - self.time)
            self.time = time

    def dose(self, time, compartment, amount, rate):
        if compartment == 0:
            time, amount = time + LAG, F * amount
        if rate == 0:
            self.waiting.append((time, compartment, amount, 0.0))
        else:
            self.waiting.append((time, compartment, 0.0, rate))
            self.waiting.append((time + amount / rate, compartment, 0.0, -rate))

    def steady_state(self, time, compartment, amount, rate, interval):
        if interval == 0:  # an infusion that ends now
            earlier = body(time - 1500, self.weight)
            earlier.rates[compartment] = rate
            earlier.go_to(time)
            earlier.rates[compartment] = 0.0
        else:
            earlier = body(time - REGIMEN * interval, self.weight)
            for k in range(REGIMEN, 0, -1):
                earlier.dose(time - k * interval, compartment, amount, rate)
            earlier.go_to(time)
        self.amounts = [a + b for a, b in zip(self.amounts, earlier.amounts)]
        self.rates = [a + b for a, b in zip(self.rates, earlier.rates)]
        self.waiting += earlier.waiting
        if interval > 0:
            self.dose(time, compartment, amount, rate)


def number(text):
    return 0.0 if text == "." else float(text)


def main():
    here = pathlib.Path(__file__).parent / "../tests/varda/trials/history.csv"
    subjects = {}
    with open(here, encoding="ascii") as data:
        for line, row in enumerate(csv.DictReader(data), 2):
            subjects.setdefault(row["ID"], []).append((line, row))
    out = csv.writer(sys.stdout, lineterminator="\n")
    out.writerow(["row", "prediction"])
    for rows in subjects.values():
        now = body(number(rows[0][1]["TIME"]), number(rows[0][1]["WT"]))
        for line, row in rows:
            time, event = number(row["TIME"]), int(row["EVID"])
            now.go_to(time)
            if row["WT"] != ".":
                now.weight = number(row["WT"])
            if event == 0:
                out.writerow([line, repr(now.amounts[1] / V1)])
            if event in (1, 4):
                amount, rate, interval = (number(row[k]) for k in ("AMT", "RATE", "II"))
                compartment = int(row["CMT"]) - 1
                if event == 4 or row["SS"] == "1":
                    now.clear()
                if row["SS"] in ("1", "2"):
                    now.steady_state(time, compartment, amount, rate, interval)
                else:
                    for k in range(int(number(row["ADDL"])) + 1):
                        now.dose(time + k * interval, compartment, amount, rate)
                now.go_to(time)


if __name__ == "__main__":
    main()
