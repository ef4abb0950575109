// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Where x stands in the sample vecdis(n), which need not be sorted: the middle of its rank interval
// when x is put below the entries that equal it, (less + 1/2) / (less + not less + 1).
//   p  out: in (0, 1); 1/2 for n < 1. Entries that are not numbers do not count; with x not a
//      number none does, and p is 1/2
// Reads: none
// Writes: none
STATSUBS_API void percentile(const int& n, const double& x, const double* vecdis, double& p);

}  // namespace statsubs
