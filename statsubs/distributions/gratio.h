// SPDX-License-Identifier: Apache-2.0
//
// Incomplete gamma function ratios and the distributions that are one of them in disguise.
// Reads: none
// Writes: none
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// P(a, x) into `ans` and Q(a, x) = 1 - P(a, x) into `qval`, a >= 0, x >= 0, each to its own
// relative precision: the smaller of the two is computed, the other is its complement. ind = 0 asks
// for full double precision, 1 for six and any other value for three significant digits.
//
// Where a x is 0 the result is (0, 1) for x <= a, otherwise (1, 0). An argument pair that has no
// value gives 2 in both results: a negative argument or one that is not a number, a = x = 0, and
// x = a to rounding at an a so large (above 6.7e28) that rounding decides the result.
//
// Didonato and Morris, ACM Trans. Math. Softw. 12 (1986), Algorithm 654, with their regions. The
// exponents are evaluated more carefully than there; measured errors stand in docs/accuracy.md.
STATSUBS_API void gratio(const double& a, const double& x, double& ans, double& qval,
                         const int& ind);

// Gamma distribution of shape a and unit scale at x: P(a, x) into `cum`, Q(a, x) into `upper`;
// (0, 1) for x <= 0. The failure values are those of gratio.
STATSUBS_API void cumgam(const double& x, const double& a, double& cum, double& upper);

// Chi-square distribution with df degrees of freedom at x: P(df/2, x/2) into `cum`, its complement
// into `upper`; (0, 1) for x <= 0. The failure values are those of gratio.
STATSUBS_API void cumchi(const double& x, const double& df, double& cum, double& upper);

}  // namespace statsubs
