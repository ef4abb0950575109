// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Sorts data(n) through an index: data(index(1)) <= data(index(2)) <= ... <= data(index(n)).
//   data   in, not moved
//   index(n)  out: a permutation of 1..n. Equal values stand in no particular order
// Quicksort with the median of three (R. Sedgewick, "Implementing quicksort programs", Comm. ACM 21
// (1978) 847-857), without recursion, that sorts short stretches by insertion.
// Sorted, reversed and constant data take n log n steps; the worst case is quadratic. With entries
// that are not numbers `index` is still a permutation, of no particular order.
// Reads: none
// Writes: none
STATSUBS_API void qsortr8(const int& n, const double* data, int* index);

}  // namespace statsubs
