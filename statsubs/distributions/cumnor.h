// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Standard normal distribution: `result` = Phi(arg), `upper` = 1 - Phi(arg), each to its own full
// relative precision; a value below the smallest normal number, spmpar(2), is returned as 0.
//
// Rational Chebyshev approximations of Cody, Math. Comp. 23 (1969). One departure: the argument is
// split at multiples of 1/1.6 rather than of 1/16 before it is squared. A multiple of 5/8 still has
// an exact square, so only the rounding of the last bits differs.
// Reads: none
// Writes: none
STATSUBS_API void cumnor(const double& arg, double& result, double& upper);

}  // namespace statsubs
