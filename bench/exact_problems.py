# SPDX-License-Identifier: Apache-2.0
#
# The problems on which fits are judged against exact values: their data, models, start values and a
# point near the maximum that counts as the reference. Used by random_starts.py, likelihood_error.py
# and compare_se.py; standard library only.
#
# Every pseudo-random number comes from `stream`: the 53 upper bits of splitmix64 (Steele, Lea and
# Flood 2014), normal ones by Box and Muller's cosine, so that data and starts are the same everywhere.
import copy
import json
import math
import pathlib
import subprocess

HERE = pathlib.Path(__file__).resolve().parent
MASK = (1 << 64) - 1


class stream:
    def __init__(self, seed):
        self.state = seed & MASK

    def uniform(self):
        self.state = (self.state + 0x9E3779B97F4A7C15) & MASK
        z = self.state
        z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & MASK
        z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & MASK
        return (((z ^ (z >> 31)) >> 11) + 0.5) * 2.0**-53

    def normal(self):
        radius = math.sqrt(-2 * math.log(self.uniform()))
        return radius * math.cos(2 * math.pi * self.uniform())


# Parameters are name: (start, distribution); effects name: (parameter, column, center, start); omega a
# list of (names, start matrix), one entry for each block; residual name: start. `near` has the same
# quantities near the reference maximum, omega as a list of matrices.
class problem:
    def __init__(self, structure, data, error, parameters, omega, residual, near, effects=None,
                 prediction=None, without_time_0=False, tolerance=0.05, nodes=0):
        self.structure = structure        # in the words of `exact`
        self.data = data                  # path below the repository, a file of DATA, or a function
        self.error = error
        self.parameters = parameters
        self.omega = omega
        self.residual = residual
        self.near = near
        self.effects = effects or {}
        self.prediction = prediction
        self.without_time_0 = without_time_0
        self.tolerance = tolerance        # gain ahead from which "converged" is wrong
        self.nodes = nodes

    # The start values as a set that can be moved.
    def start(self):
        return {"parameters": {n: v for n, (v, _) in self.parameters.items()},
                "effects": {n: e[3] for n, e in self.effects.items()},
                "omega": [copy.deepcopy(matrix) for _, matrix in self.omega],
                "residual": dict(self.residual)}


def diagonal(names, variances):
    return [([name], [[variance]]) for name, variance in zip(names, variances)]


ORAL = {"ka": (1.2, "log-normal"), "CL": (3.0, "log-normal"), "V": (35.0, "log-normal")}
BOLUS = {"CL": (8.0, "log-normal"), "V1": (10.0, "log-normal"), "Q": (6.0, "log-normal"),
         "V2": (15.0, "log-normal")}
FULL = [(["ka", "CL", "V"], [[0.3, 0.03, 0.03], [0.03, 0.3, 0.1], [0.03, 0.1, 0.3]])]


def theophylline(error, residual, near, omega=None, **more):
    return problem("one-compartment-oral", "examples/theophylline/theophylline.csv", error, ORAL,
                   omega or diagonal(ORAL, [0.3] * 3), residual, near, **more)


# 24 subjects whose concentrations are known to 0.01: conditional distributions are needles.
def precise_data(draw):
    rows = ["ID,TIME,AMT,DV,EVID"]
    for subject in range(1, 25):
        ka, cl, v = (typical * math.exp(math.sqrt(variance) * draw.normal())
                     for typical, variance in ((1.5, 0.3), (2.8, 0.07), (32.0, 0.03)))
        rows.append(f"{subject},0,320,0,1")
        for t in (0.25, 0.5, 1, 2, 3.5, 5, 7, 9, 12, 24):
            k = cl / v
            f = 320 * ka / (v * (ka - k)) * (math.exp(-k * t) - math.exp(-ka * t))
            rows.append(f"{subject},{t},0,{f + 0.01 * draw.normal():.6f},0")
    return rows


# Five subjects that grow to different heights at a common pace.
def growth_data(log_normal):
    def rows_of(draw):
        rows = ["ID,TIME,DV"]
        for subject in range(1, 6):
            eta = draw.normal()
            top = 190 * math.exp(0.2 * eta) if log_normal else 190 + 35 * eta
            for t in (120, 480, 660, 1000, 1230, 1370, 1580):
                f = top / (1 + math.exp((720 - t) / 350))
                rows.append(f"{subject},{t},{f + 8 * draw.normal():.3f}")
        return rows
    return rows_of


# 59 subjects with one to six samples each after many doses, weight and a score on both parameters.
def sparse_data(draw):
    rows = ["ID,TIME,AMT,DV,EVID,WT,SCORE"]
    for subject in range(1, 60):
        weight = 1.3 * math.exp(0.35 * draw.normal())
        score = 5 * math.exp(0.3 * draw.normal())
        cl = 0.0061 * (weight / 1.3) ** 1.0 * (score / 5) ** 0.3 * math.exp(0.25 * draw.normal())
        v = 1.4 * (weight / 1.3) ** 0.9 * (score / 5) ** -0.2 * math.exp(0.17 * draw.normal())
        doses = [(12.0 * n, round(3.5 * weight * (6 if n == 0 else 1), 1)) for n in range(12)]
        count = 1 + int(6 * draw.uniform())
        times = sorted(round(2 + 140 * draw.uniform(), 2) for _ in range(count))
        records = [(t, amount, None) for t, amount in doses]
        for t in times:
            f = sum(a / v * math.exp(-cl / v * (t - at)) for at, a in doses if at <= t)
            records.append((t, 0, f + 2.8 * draw.normal()))
        for t, amount, value in sorted(records, key=lambda r: (r[0], r[2] is not None)):
            rows.append(f"{subject},{t},{amount},{0 if value is None else round(value, 3)},"
                        f"{int(value is None)},{weight:.3f},{score:.3f}")
    return rows


def growth_problem(log_normal):
    kind = "log-normal" if log_normal else "normal"
    return problem("growth", growth_data(log_normal), "additive",
                   {"A": (150.0, kind), "t50": (500.0, "none"), "s": (250.0, "none")},
                   [(["A"], [[0.1 if log_normal else 900.0]])], {"additive": 15.0},
                   {"parameters": {"A": 190.0, "t50": 720.0, "s": 350.0},
                    "omega": [[[0.04 if log_normal else 1000.0]]], "residual": {"additive": 8.0}},
                   prediction="A / (1 + exp((t50 - t) / s))")


def sparse_problem(omega):
    return problem("one-compartment-bolus", sparse_data, "additive",
                   {"CL": (0.008, "log-normal"), "V": (1.0, "log-normal")}, omega,
                   {"additive": 4.0},
                   {"parameters": {"CL": 0.0061, "V": 1.4},
                    "effects": {"CL_WT": 1.0, "CL_SCORE": 0.3, "V_WT": 0.9, "V_SCORE": -0.2},
                    "omega": [[[0.06]], [[0.03]]] if len(omega) == 2 else [[[0.06, 0.01],
                                                                            [0.01, 0.03]]],
                    "residual": {"additive": 2.8}},
                   effects={"CL_WT": ("CL", "WT", 1.3, 0.75), "CL_SCORE": ("CL", "SCORE", 5, 0.0),
                            "V_WT": ("V", "WT", 1.3, 1.0), "V_SCORE": ("V", "SCORE", 5, 0.0)})


TWO = ["ka", "CL", "V1", "Q", "V2"]
THEO = {"ka": 1.58, "CL": 2.75, "V": 31.6}
VARIANCES = [[[0.405]], [[0.0703]], [[0.0185]]]
CORRELATED = [[[0.433, 0.03, 0.0314], [0.03, 0.0612, 0.0283], [0.0314, 0.0283, 0.015]]]

PROBLEMS = {
    "theophylline-additive": theophylline(
        "additive", {"additive": 1.0},
        {"parameters": THEO, "omega": VARIANCES, "residual": {"additive": 0.696}}),
    "theophylline-combined": theophylline(
        "combined", {"additive": 0.5, "proportional": 0.1},
        {"parameters": THEO, "omega": VARIANCES,
         "residual": {"additive": 0.26, "proportional": 0.137}}),
    "theophylline-full-combined": theophylline(
        "combined", {"additive": 0.5, "proportional": 0.1},
        {"parameters": THEO, "omega": CORRELATED,
         "residual": {"additive": 0.265, "proportional": 0.135}}, omega=FULL),
    "theophylline-full-additive": theophylline(
        "additive", {"additive": 1.0},
        {"parameters": THEO, "omega": CORRELATED, "residual": {"additive": 0.7}}, omega=FULL),
    "theophylline-proportional": theophylline(
        "proportional", {"proportional": 0.3},
        {"parameters": THEO, "omega": VARIANCES, "residual": {"proportional": 0.17}},
        without_time_0=True),
    "indomethacin": problem(
        "two-compartment-bolus", "examples/indomethacin/indomethacin.csv", "proportional", BOLUS,
        diagonal(BOLUS, [0.2] * 4), {"proportional": 0.3},
        {"parameters": {"CL": 7.785, "V1": 9.017, "Q": 5.511, "V2": 19.74},
         "omega": [[[0.0349]], [[0.0018]], [[0.112]], [[0.0629]]],
         "residual": {"proportional": 0.144}}),
    "indomethacin-log-normal": problem(
        "two-compartment-bolus", "examples/indomethacin/indomethacin.csv", "log-normal", BOLUS,
        diagonal(BOLUS, [0.2] * 4), {"log_normal": 0.3},
        {"parameters": {"CL": 7.785, "V1": 9.017, "Q": 5.511, "V2": 19.74},
         "omega": [[[0.0349]], [[0.0018]], [[0.112]], [[0.0629]]],
         "residual": {"log_normal": 0.144}}),
    "oral-two-compartment": problem(
        "two-compartment-oral", "DATA/oral-two-compartment.csv", "proportional",
        {"ka": (1.0, "log-normal"), "CL": (4.0, "log-normal"), "V1": (70.0, "log-normal"),
         "Q": (4.0, "log-normal"), "V2": (40.0, "log-normal")},
        diagonal(TWO, [0.2] * 5), {"proportional": 0.3},
        {"parameters": {"ka": 0.9158524574, "CL": 3.873273441, "V1": 66.79311457,
                        "Q": 4.494255384, "V2": 48.36130449},
         "omega": [[[0.1104]], [[0.1019]], [[0.0715]], [[0.202]], [[0.0882]]],
         "residual": {"proportional": 0.1965}}, tolerance=0.2),
    "precise": problem(
        "one-compartment-oral", precise_data, "additive", ORAL, diagonal(ORAL, [0.3] * 3),
        {"additive": 1.0},
        {"parameters": {"ka": 1.5, "CL": 2.8, "V": 32.0},
         "omega": [[[0.3]], [[0.07]], [[0.03]]], "residual": {"additive": 0.01}}),
    "growth-normal": growth_problem(False),
    "growth-log-normal": growth_problem(True),
    "sparse": sparse_problem(diagonal(["CL", "V"], [0.1, 0.1])),
    "sparse-full": sparse_problem([(["CL", "V"], [[0.1, 0.02], [0.02, 0.1]])]),
}

# Part of the table that the pages state.
STATED = ["theophylline-additive", "theophylline-combined", "theophylline-full-combined",
          "indomethacin", "oral-two-compartment", "precise", "growth-normal", "growth-log-normal",
          "theophylline-full-additive"]


# The data file of a problem, written below `work` where it does not stand in the repository.
def data_file(name, work, data_folder):
    one = PROBLEMS[name]
    target = work / f"{name}.csv"
    if callable(one.data):
        # A stream of its own for each data set; the number is fixed for ever.
        rows = one.data(stream(20240101))
        target.write_text("\n".join(rows) + "\n", encoding="ascii")
        return target
    if one.data.startswith("DATA/"):
        if data_folder is None:
            raise SystemExit(f"{name} needs --data FOLDER with {one.data[5:]}")
        return pathlib.Path(data_folder).resolve() / one.data[5:]
    source = HERE.parent / one.data
    if not one.without_time_0:
        return source
    lines = source.read_text(encoding="ascii").splitlines()
    columns = lines[0].split(",")
    time, event = columns.index("TIME"), columns.index("EVID")
    kept = [row for row in lines[1:]
            if float(row.split(",")[time]) > 0 or row.split(",")[event] == "1"]
    target.write_text("\n".join([lines[0]] + kept) + "\n", encoding="ascii")
    return target


STRUCTURES = {"one-compartment-bolus": "one-compartment bolus",
              "one-compartment-oral": "one-compartment oral",
              "two-compartment-bolus": "two-compartment bolus",
              "two-compartment-oral": "two-compartment oral"}


def model_text(name, data, at, estimation):
    one = PROBLEMS[name]
    lines = ["[data]", f"file = {json.dumps(str(data))}", "[model]"]
    if one.prediction:
        lines += ['structure = "formula"', f"prediction = {json.dumps(one.prediction)}"]
    else:
        lines += [f"structure = {json.dumps(STRUCTURES[one.structure])}"]
    lines.append("[parameters]")
    for parameter, (_, distribution) in one.parameters.items():
        effects = ", ".join(
            f'{{ column = "{column}", center = {center!r}, start = {at["effects"][effect]!r} }}'
            for effect, (of, column, center, _) in one.effects.items() if of == parameter)
        lines.append(f'{parameter} = {{ start = {at["parameters"][parameter]!r}, '
                     f'distribution = "{distribution}"'
                     + (f", covariates = [{effects}]" if effects else "") + " }")
    lines.append("[omega]")
    blocks = []
    for (names, _), matrix in zip(one.omega, at["omega"]):
        if len(names) == 1:
            lines.append(f"{names[0]} = {matrix[0][0]!r}")
        else:
            blocks.append(f"{{ parameters = {json.dumps(names)}, matrix = {matrix!r} }}")
    if blocks:
        lines.append(f'blocks = [{", ".join(blocks)}]')
    lines += ["[residual]", f'error = "{one.error}"']
    lines += [f"{key} = {value!r}" for key, value in at["residual"].items()]
    lines.append("[estimation]")
    lines += [f"{key} = {value}" for key, value in estimation.items()]
    return "\n".join(lines) + "\n"


# The same values in the layout of a fit.json, for `exact`.
def estimates(name, at):
    one = PROBLEMS[name]
    order = [p for p, (_, distribution) in one.parameters.items() if distribution != "none"]
    size = len(order)
    matrix = [[0.0] * size for _ in order]
    estimated = [[0] * size for _ in order]
    for (names, _), block in zip(one.omega, at["omega"]):
        for i, a in enumerate(names):
            for j, b in enumerate(names):
                matrix[order.index(a)][order.index(b)] = block[i][j]
                estimated[order.index(a)][order.index(b)] = 1
    return {"parameters": [{"name": p, "estimate": at["parameters"][p], "distribution": d}
                           for p, (_, d) in one.parameters.items()]
            + [{"name": e, "estimate": at["effects"][e], "distribution": "covariate effect"}
               for e in one.effects],
            "omega": {"names": order, "matrix": matrix, "estimated": estimated},
            "residual": [{"name": n, "estimate": v} for n, v in at["residual"].items()]}


# And back, from what `exact` writes.
def values_of(name, found):
    one = PROBLEMS[name]
    plain = {p["name"]: p["estimate"] for p in found["parameters"]}
    order = found["omega"]["names"]
    return {"parameters": {p: plain[p] for p in one.parameters},
            "effects": {e: plain[e] for e in one.effects},
            "omega": [[[found["omega"]["matrix"][order.index(a)][order.index(b)] for b in names]
                       for a in names] for names, _ in one.omega],
            "residual": {r["name"]: r["estimate"] for r in found["residual"]}}


def run_exact(program, name, data, fit, result, maximise=True, more=()):
    one = PROBLEMS[name]
    command = [str(program), one.structure, str(data), str(fit), "--json", str(result), *more]
    if one.nodes:
        command += ["--nodes", str(one.nodes)]
    if maximise:
        command.append("--maximise")
    for column, center in {(column, center) for _, column, center, _ in one.effects.values()}:
        command += ["--center", f"{column}={center}"]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        return {"failed": done.stderr.strip()}
    return json.loads(pathlib.Path(result).read_text(encoding="utf-8"))


# The reference maximum: the one that Newton's method reaches from `near`.
def reference(program, name, data, work):
    start = work / f"{name}.near.json"
    near = dict(PROBLEMS[name].near)
    near.setdefault("effects", {})
    start.write_text(json.dumps(estimates(name, near)), encoding="ascii")
    found = run_exact(program, name, data, start, work / f"{name}.reference.json")
    if "failed" in found:
        raise SystemExit(f"{name}: no reference: {found['failed']}")
    return found["maximum"]


# Typical values times exp(N(0, 1)), coefficients + N(0, 0.5), variances times 10^U(-1, 1) (omega keeps
# its correlations), residual deviations times 10^(U(-1, 1) / 2). In the order of the model, all from
# one stream for each pair of seed and number.
def random_start(name, seed, number):
    draw = stream((seed << 32) + number)
    at = PROBLEMS[name].start()
    for parameter in at["parameters"]:
        at["parameters"][parameter] *= math.exp(draw.normal())
    for effect in at["effects"]:
        at["effects"][effect] += 0.5 * draw.normal()
    for matrix in at["omega"]:
        factor = [10 ** ((2 * draw.uniform() - 1) / 2) for _ in matrix]
        for i, row in enumerate(matrix):
            for j in range(len(row)):
                row[j] *= factor[i] * factor[j]
    for deviation in at["residual"]:
        at["residual"][deviation] *= 10 ** ((2 * draw.uniform() - 1) / 2)
    return at
