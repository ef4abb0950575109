// SPDX-License-Identifier: Apache-2.0
//
// Two elementary functions without the cancellation of their defining formulas. Rational
// approximations of Didonato and Morris, ACM Trans. Math. Softw. 12 (1986), Algorithm 654.
// Reads: none
// Writes: none
#pragma once

namespace statsubs {

// exp(x) - 1, to full relative precision near 0 too.
double rexp(const double& x);

// x - 1 - ln x for x > 0, to full relative precision near its double zero at 1 too; infinite at 0.
double rlog(const double& x);

}  // namespace statsubs
