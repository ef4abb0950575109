// SPDX-License-Identifier: Apache-2.0
//
// How far importance weights are from equal, and resampling by them.
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Summary of n >= 1 weights w(n) that sum to one.
//   rms   out: sqrt(n sum of squares) = sqrt(n / effective sample size), 1 for equal weights
//   peak  out: n times the largest weight, 1 for equal weights
//   frac  out: share of the weights above 0.3/n, strictly
// Reads: none
// Writes: none
STATSUBS_API void imp_merit(const double* w, const int& n, double& rms, double& peak, double& frac);

// The sample that a uniform number u chooses: the first j with w(1) + ... + w(j) >= u, or n where
// rounding leaves the whole sum below u. 0 with n < 1.
// Reads: none
// Writes: none
STATSUBS_API int isir(const double& u, const double* w, const int& n);

// Permutes a(n) by a shuffle of Fisher, Yates and Knuth on the host's dran3, whose state starts at
// 1 in every call: the permutation depends on n alone. Not uniform over all permutations: the
// position that entry i changes with is ceil((n - i) u + i) but for the last 1e-9, so an entry
// practically never keeps its place.
// Reads: none
// Writes: none
STATSUBS_API void knuth_shuf(double* a, const int& n);

}  // namespace statsubs
