// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Whether a short series still has a trend: the magnitude of the t-statistic, with n - 2 degrees of
// freedom, of the slope of a least-squares line through values(n) against 1..n. Small means flat;
// the threshold is the caller's.
//   tstat  out: 0 for a slope of exactly 0; 10 for points that lie exactly on a line with another
//          slope, and for n <= 0; not a number for n = 1. Two points leave no degree of freedom:
//          0, or 10 where the line meets them without rounding
// Reads: none
// Writes: none
STATSUBS_API void checkflat(const double* values, const int& n, double& tstat);

}  // namespace statsubs
