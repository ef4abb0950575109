// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stats/percentile.h"

#include "statsubs/support/array.h"

namespace statsubs {

void percentile(const int& n, const double& x, const double* vecdis, double& p) {
  // Two counts rather than one and n, because of entries that are not numbers.
  int nless = 0, nge = 0;
  for (const double entry : vector_view<const double>(vecdis, n)) {
    if (entry < x) ++nless;
    if (entry >= x) ++nge;
  }
  p = (nless + 0.5) / (1.0 + nless + nge);
}

}  // namespace statsubs
