// SPDX-License-Identifier: Apache-2.0
//
// Two elementary functions without the cancellation of their defining formulas. Rational
// approximations of Didonato and Morris, ACM Trans. Math. Softw. 12 (1986), Algorithm 654.
// Reads: none
// Writes: none
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// exp(x) - 1, to full relative precision near 0 too.
STATSUBS_API double rexp(const double& x);

// x - 1 - ln x for x > 0, to full relative precision near its double zero at 1 too; infinite at 0.
STATSUBS_API double rlog(const double& x);

}  // namespace statsubs
