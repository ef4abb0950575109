// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Pearson's correlation of x(n) and y(n), in two passes: deviations are taken from means that are
// already known, so that a large common offset costs no digits.
//   r  out: in [-1, 1] up to rounding. Not a number for n < 1, where x or y does not vary (so for
//      n = 1), and when an entry is not a number
// Reads: none
// Writes: none
STATSUBS_API void corrcoef(const int& n, const double* x, const double* y, double& r);

}  // namespace statsubs
