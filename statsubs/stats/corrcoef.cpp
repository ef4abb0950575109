// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stats/corrcoef.h"

#include <cmath>
#include <limits>

#include "statsubs/support/array.h"

namespace statsubs {

namespace {

double mean(vector_view<const double> values) {
  double sum = 0.0;
  for (const double value : values) sum += value;
  return sum / values.size();
}

}  // namespace

void corrcoef(const int& n, const double* x, const double* y, double& r) {
  r = std::numeric_limits<double>::quiet_NaN();
  if (n < 1) return;

  const vector_view<const double> xs(x, n), ys(y, n);
  const double mx = mean(xs), my = mean(ys);
  double sxx = 0.0, syy = 0.0, sxy = 0.0;
  for (int i = 1; i <= n; ++i) {
    const double dx = xs(i) - mx, dy = ys(i) - my;
    sxx += dx * dx;
    syy += dy * dy;
    sxy += dx * dy;
  }
  r = sxy / std::sqrt(syy * sxx);
}

}  // namespace statsubs
