// SPDX-License-Identifier: Apache-2.0
//
// The gamma function and its companions. Rational approximations of Didonato and Morris, ACM
// Trans. Math. Softw. 12 (1986), Algorithm 654. Measured errors stand in docs/accuracy.md.
// Reads: none
// Writes: none
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Gamma(a). 0 stands for a value that cannot be given: at a pole (a = 0, -1, -2, ...), where the
// result overflows, and for |a| >= 1000.
STATSUBS_API double gamma(const double& a);

// ln Gamma(a) for a > 0.
STATSUBS_API double gamln(const double& a);

// ln Gamma(1 + a) for -0.2 <= a <= 1.25, to full relative precision near its zeros at 0 and 1.
STATSUBS_API double gamln1(const double& a);

// 1 / Gamma(1 + a) - 1 for -0.5 <= a <= 1.5, to full relative precision near its zeros at 0 and 1.
STATSUBS_API double gam1(const double& a);

}  // namespace statsubs
