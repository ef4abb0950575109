#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Prints the tables of uni_test.cpp and scrambled_reference_test.cpp: the uniform generator as a
# recurrence over a list of all its numbers, and the scrambled Sobol sequence bit by bit, matrices
# and direction numbers held as lists of single bits. Slow, and shares nothing with the library.

SEEDS = [0.8804418, 0.2694365, 0.0367681, 0.4068699, 0.4554052, 0.2880635, 0.1463408, 0.2390333,
         0.6407298, 0.1755283, 0.7132940, 0.4913043, 0.2979918, 0.1396858, 0.3589528, 0.5254809,
         0.9857749, 0.4612127, 0.2196441, 0.7848351, 0.4096100, 0.9807353, 0.2689915, 0.5140357]

POLY = [3, 7, 11, 13, 19, 25, 37, 59, 47, 61, 55, 41, 67, 97, 91, 109, 103, 115, 131, 193, 137, 145,
        143, 241, 157, 185, 167, 229, 171, 213, 191, 253, 203, 211, 239, 247, 285, 369, 299]
# Initial direction numbers by column: the column's entries for the last dimensions up to 40.
COLUMNS = [
    [1] * 39,
    [1, 3, 1, 3, 1, 3, 3, 1, 3, 1, 3, 1, 3, 1, 1, 3, 1, 3, 1, 3, 1, 3, 3, 1, 3, 1, 3, 1, 3, 1, 1, 3,
     1, 3, 1, 3, 1, 3],
    [7, 5, 1, 3, 3, 7, 5, 5, 7, 7, 1, 3, 3, 7, 5, 1, 1, 5, 3, 3, 1, 7, 5, 1, 3, 3, 7, 5, 1, 1, 5, 7,
     7, 5, 1, 3, 3],
    [1, 7, 9, 13, 11, 1, 3, 7, 9, 5, 13, 13, 11, 3, 15, 5, 3, 15, 7, 9, 13, 9, 1, 11, 7, 5, 15, 1,
     15, 11, 5, 3, 1, 7, 9],
    [9, 3, 27, 15, 29, 21, 23, 19, 11, 25, 7, 13, 17, 1, 25, 29, 3, 31, 11, 5, 23, 27, 19, 21, 5, 1,
     17, 13, 7, 15, 9, 31, 9],
    [37, 33, 7, 5, 11, 39, 63, 27, 17, 15, 23, 29, 3, 21, 13, 31, 25, 9, 49, 33, 19, 29, 11, 19, 27,
     15, 25],
    [13, 33, 115, 41, 79, 17, 29, 119, 75, 73, 105, 7, 59, 65, 21, 3, 113, 61, 89, 45, 107],
    [7, 23, 39]]


def uniforms():
    numbers, borrow = SEEDS[::-1], 0.0
    while True:
        x = numbers[-24] - numbers[-10] - borrow
        borrow = 2.0**-24 if x < 0 else 0.0
        numbers.append(x + 1.0 if x < 0 else x)
        yield numbers[-1]


def direction_numbers(dimensions, columns):
    table = [[1] * columns]
    for d in range(2, dimensions + 1):
        digits = [int(c) for c in bin(POLY[d - 2])[2:]]
        degree = len(digits) - 1
        v = [c[d - 41] for c in COLUMNS[:degree]]
        while len(v) < columns:
            terms = [v[-degree]] + [v[-k] * 2**k for k in range(1, degree + 1) if digits[k]]
            number = 0
            for term in terms:
                number ^= term
            v.append(number)
        table.append(v[:columns])
    # As lists of digits, the highest first: table[dimension][digit][column].
    shifted = [[n * 2**(columns - 1 - j) for j, n in enumerate(v)] for v in table]
    return [[[n >> (columns - 1 - r) & 1 for n in v] for r in range(columns)] for v in shifted]


def product(a, b):
    return [[sum(x * y for x, y in zip(row, col)) % 2 for col in zip(*b)] for row in a]


def draw_lower(bit, dimensions, digits, columns):
    matrices, shifts = [], []
    for _ in range(dimensions):
        matrix = [[int(i == j) for j in range(columns)] for i in range(digits)]
        shift = [0] * digits
        for i in reversed(range(digits)):
            shift[i] = bit()
            for j in reversed(range(min(i, columns))):
                matrix[i][j] = bit()
        matrices.append(matrix)
        shifts.append(shift)
    return matrices, shifts


def draw_upper(bit, columns):
    matrix = [[int(i == j) for j in range(columns)] for i in range(columns)]
    shift = [0] * columns
    for i in range(columns):
        shift[i] = bit()
        for j in range(i + 1, columns):
            matrix[i][j] = bit()
    return matrix, shift


def scrambled(bit, dimensions, max_points, digits, scramble):
    columns = len(bin(max_points)) - 2
    v = direction_numbers(dimensions, columns)
    digits = columns if scramble in (0, 2) else digits
    shifts = [[0] * digits for _ in v]
    if scramble in (1, 3):
        matrices, shifts = draw_lower(bit, dimensions, digits, columns)
        v = [product(m, d) for m, d in zip(matrices, v)]
    if scramble in (2, 3):
        matrix, choice = draw_upper(bit, columns)
        added = [[row[0] for row in product(d, [[c] for c in choice])] for d in v]
        shifts = [[(x + y) % 2 for x, y in zip(s, a)] for s, a in zip(shifts, added)]
        v = [product(d, matrix) for d in v]
    return v, shifts


def number(digits):
    return int(''.join(map(str, digits)), 2)


def point(n, v, shifts):
    gray = n ^ (n >> 1)
    chosen = [gray >> j & 1 for j in range(len(v[0][0]))]
    return [number([(s + sum(b * c for b, c in zip(row, chosen))) % 2 for s, row in zip(shift, d)])
            for shift, d in zip(shifts, v)]


def checksum(v):
    total = 0
    for column in range(len(v[0][0])):
        for d in v:
            total = (31 * total + number([row[column] for row in d])) % 2**32
    return total


RUNS = [(40, 2**30 - 1, 30, 1), (40, 2**30 - 1, 30, 2), (40, 2**30 - 1, 30, 3), (40, 100000, 31, 1),
        (40, 1000, 31, 3), (7, 5000, 0, 2), (3, 2**30 - 1, 31, 3), (40, 2**30 - 1, 0, 0)]

stream = uniforms()
draws = [next(stream) for _ in range(1000000)]
for n in (1, 2, 25, 1000, 1000000):
    print('{%d, %s},' % (n, draws[n - 1].hex()))
print()
stream = uniforms()
for dimensions, max_points, digits, scramble in RUNS:
    v, shifts = scrambled(lambda: int(next(stream) * 1000.0) % 2, dimensions, max_points, digits,
                          scramble)
    first, later = point(0, v, shifts), point(777, v, shifts)
    sample = ['{%d, %d, %d}' % (q[0], q[1], q[-1]) for q in (first, later)]
    print('{%d, %d, %d, %d, %s, %s, %du},' %
          (dimensions, max_points, digits, scramble, *sample, checksum(v)))
