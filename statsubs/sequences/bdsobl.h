// SPDX-License-Identifier: Apache-2.0
//
// Shared module bdsobl: the state of the Sobol generator, one generator per process. One row per
// variable: kind, name, extent ("" for a scalar), meaning, writer. Routine files say
// `namespace bd = statsubs::bdsobl;`.
//
// A host that wants to return to a point saves `lastq` and `count` there and puts them back later;
// between two calls of insobl nothing else changes.
#pragma once

#include "statsubs/support/fixed_array.h"
#include "statsubs/support/shared_table.h"

namespace statsubs::bdsobl {

inline constexpr int max_dimensions = 40;
inline constexpr int max_digits = 31;  // what a signed 32-bit integer holds
inline constexpr int max_degree = 8;   // of a primitive polynomial

using dimension_vector = fixed_vector<int, max_dimensions>;
using initial_matrix = fixed_matrix<int, max_dimensions, max_degree>;
using direction_matrix = fixed_matrix<int, max_dimensions, max_digits>;

}  // namespace statsubs::bdsobl

// clang-format off
#define STATSUBS_BDSOBL(X) \
  X(initial_matrix, vinit, "40 x 8", "initial direction numbers of each dimension; row 1 is not used", "poly_vinit_define") \
  X(direction_matrix, sv, "40 x 31", "direction numbers in use, scaled and scrambled: dimension x bit", "insobl") \
  X(integer, s, "", "dimensions in use", "insobl") \
  X(real, recipd, "", "maps integer coordinates to the unit interval: 1/2^(binary digits of the output)", "insobl") \
  X(dimension_vector, poly, "40", "primitive polynomials, coefficients as binary digits (11 is x^3 + x + 1); entry 1 is not used", "poly_vinit_define") \
  X(integer, maxcol, "", "direction numbers in use; 0 before the first insobl", "insobl") \
  X(dimension_vector, lastq, "40", "integer coordinates of the last point given out", "insobl, gosobl, host") \
  X(integer, count, "", "serial number of the last point given out, from 0", "insobl, gosobl, host")
// clang-format on

namespace statsubs::bdsobl {
STATSUBS_BDSOBL(STATSUBS_DECLARE_SHARED)
}
