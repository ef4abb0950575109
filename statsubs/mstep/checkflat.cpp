// SPDX-License-Identifier: Apache-2.0
#include "statsubs/mstep/checkflat.h"

#include <cmath>

#include "statsubs/support/array.h"

namespace statsubs {

namespace {

// Stands for an infinite statistic.
constexpr double strong_trend = 10.0;

}  // namespace

void checkflat(const double* values, const int& n, double& tstat) {
  tstat = strong_trend;
  if (n <= 0) return;

  const vector_view<const double> y(values, n);
  const double xmean = (n + 1) * 0.5;
  double sum = 0.0, sxy = 0.0, sxx = 0.0;
  for (int i = 1; i <= n; ++i) {
    const double dx = i - xmean;
    sum += y(i);
    sxy += dx * y(i);
    sxx += dx * dx;
  }
  const double slope = sxy / sxx;
  if (slope == 0.0) {
    tstat = 0.0;
    return;
  }

  const double ymean = sum / n;
  double sse = 0.0;
  for (int i = 1; i <= n; ++i) {
    const double residual = ymean + (i - xmean) * slope - y(i);
    sse += residual * residual;
  }
  if (sse == 0.0) return;
  tstat = std::fabs(slope / std::sqrt(sse / sxx / (n - 2)));
}

}  // namespace statsubs
