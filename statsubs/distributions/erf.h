// SPDX-License-Identifier: Apache-2.0
//
// Error function and its complement. Rational approximations of Didonato and Morris, ACM Trans.
// Math. Softw. 12 (1986), Algorithm 654. Measured errors stand in docs/accuracy.md.
// Reads: none
// Writes: none
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// erf(x); exactly +-1 from |x| = 5.8 on.
STATSUBS_API double erf(const double& x);

// erfc(x) for ind = 0, exp(x^2) erfc(x) for any other ind. The first is 0 where x > 100 or x^2 is
// above -exparg(1); exactly 2 (times exp(x^2), which may overflow to infinity) for x <= -5.6.
STATSUBS_API double erfc1(const int& ind, const double& x);

}  // namespace statsubs
