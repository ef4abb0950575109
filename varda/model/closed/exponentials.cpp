// SPDX-License-Identifier: Apache-2.0
#include "varda/model/closed/exponentials.h"

#include <algorithm>

namespace varda {

double bateman(double ka, double k, double t) {
  return bateman(ka, k, t, std::exp(-ka * t), std::exp(-k * t));
}

double bateman_exposure(double ka, double k, double t) {
  // t^2 times the second divided difference of exp at 0, -ka t and -k t. Over the two nodes that
  // lie farthest apart it is a difference that cancels only where all three are close.
  const double x = std::min(ka, k) * t;
  const double y = std::max(ka, k) * t;
  if (y > 1.0) {
    const double slow = std::exp(-x);
    const double plain = exposure(x, 1.0, slow);
    return t * t * (plain - bateman(x, y, 1.0, slow, std::exp(-y))) / y;
  }
  // There its Taylor series, the sum of (-1)^n h_n(x, y) / (n + 2)! with the complete homogeneous
  // polynomials h_n, whose terms fall at least as fast as 1 / n!.
  double sum = 0.0, h = 1.0, power = 1.0, factor = 0.5;
  for (int n = 0; n < 20; ++n) {
    sum += factor * h;
    power *= y;
    h = x * h + power;
    factor /= -(n + 3);
  }
  return t * t * sum;
}

double bateman_sum(double ka, double k, double age, double interval) {
  // The difference of the two geometric sums over their common denominator, which leaves positive
  // terms alone.
  const double numerator =
      bateman(ka, k, age) + std::exp(-(ka + k) * age) * bateman(ka, k, interval - age);
  return numerator / (std::expm1(-ka * interval) * std::expm1(-k * interval));
}

}  // namespace varda
