// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Chi-square distribution: one of its quantities from the others. p = P(X <= x) and q = 1 - p for X
// chi-square with df degrees of freedom.
//
//   which  computes    from
//   1      p, q        x >= 0, df > 0
//   2      x           p, q, df > 0
//   3      df          p, q, x >= 0
//
// p and q must both be given where they are inputs, p in [0, 1], q in (0, 1] and p + q = 1 to three
// units of the relative precision. The smaller of the two is matched; the result of the search
// (from 5, in [0, 1e300] for x and [1e-300, 1e300] for df) is good to a relative 1e-8.
//
// Where the smaller of p and q is positive but below 1e-150 the products by which the zero finder
// recognises a change of sign may underflow: the result is then unreliable although status is 0.
//
//   status                                                   bound
//    0     success                                           not set
//   -1     which outside 1..3                                the limit passed, 1 or 3
//   -2     p outside [0, 1]                                  the limit passed
//   -3     q outside (0, 1]                                  the limit passed
//   -4     x < 0                                             0
//   -5     df <= 0                                           0
//    1     the answer lies below the lowest value searched   that value
//    2     the answer lies above the highest value searched  1e300
//    3     p + q differs from 1                              0 if p + q < 0, otherwise 1
//   10     the incomplete gamma ratio has no value           not set
//          (for which = 1 the status stays 0 and p and q are 2)
//
// The inputs are checked in the order which, p, q, x or df (x before df where both are given), p +
// q; one that is not a number fails its check. Inputs that fail leave the quantity asked for alone.
// which = 2 and 3 use the search state of dinvr: one search at a time in a process.
// Reads: none
// Writes: none
STATSUBS_API void cdfchi(const int& which, double& p, double& q, double& x, double& df, int& status,
                         double& bound);

}  // namespace statsubs
