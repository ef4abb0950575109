// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/erf.h"

#include <cmath>

#include "statsubs/distributions/machine.h"
#include "statsubs/distributions/polynomial.h"
#include "statsubs/distributions/rational_function.h"
#include "statsubs/distributions/twofold.h"

namespace statsubs {

namespace {

// erf(x), |x| <= 0.5.
double erf_near_zero(double x) {
  constexpr double a[] = {0.128379167095513, 0.479137145607681e-1, 0.323076579225834e-1,
                          -0.133733772997339e-2, 0.771058495001320e-4};
  constexpr double b[] = {1.0, 0.375795757275549, 0.538971687740286e-1, 0.301048631703895e-2};
  const double t = x * x;
  return x * ((polynomial(a, t) + 1.0) / polynomial(b, t));
}

// exp(x^2) erfc(x), x > 0.5.
double scaled_erfc(double x) {
  constexpr double c = 0.564189583547756287;  // 1 / sqrt(pi)
  static constexpr rational_function middle(
      {3.00459261020162e2, 4.51918953711873e2, 3.39320816734344e2, 1.52989285046940e2,
       4.31622272220567e1, 7.21175825088309, 5.64195517478974e-1, -1.36864857382717e-7},
      {3.00459260956983e2, 7.90950925327898e2, 9.31354094850610e2, 6.38980264465631e2,
       2.77585444743988e2, 7.70001529352295e1, 1.27827273196294e1, 1.0});
  static constexpr rational_function far(
      {2.82094791773523e-1, 4.65807828718470, 2.13688200555087e1, 2.62370141675169e1,
       2.10144126479064},
      {1.0, 1.80124575948747e1, 9.90191814623914e1, 1.87114811799590e2, 9.41537750555460e1});
  if (x <= 4.0) return middle(x);
  const double t = 1.0 / (x * x);
  return (c - t * far(t)) / x;
}

// exp(-x^2) and exp(x^2), the rounding error of the square put back.
double exp_of_minus_square(double x) {
  const twofold square = two_product(x, x);
  return std::exp(-square.high) * (1.0 - square.low);
}

double exp_of_square(double x) {
  const twofold square = two_product(x, x);
  const double value = std::exp(square.high);
  return std::isinf(value) ? value : value * (1.0 + square.low);
}

}  // namespace

double erf(const double& x) {
  const double size = std::fabs(x);
  if (size <= 0.5) return erf_near_zero(x);
  if (size >= 5.8) return std::copysign(1.0, x);
  return std::copysign(0.5 + (0.5 - exp_of_minus_square(size) * scaled_erfc(size)), x);
}

double erfc1(const int& ind, const double& x) {
  const bool scaled = ind != 0;
  const double size = std::fabs(x);
  if (size <= 0.5) {
    const double value = 0.5 + (0.5 - erf_near_zero(x));
    return scaled ? std::exp(x * x) * value : value;
  }
  if (x <= -5.6) return scaled ? 2.0 * exp_of_square(x) : 2.0;
  if (scaled) return x < 0.0 ? 2.0 * exp_of_square(x) - scaled_erfc(size) : scaled_erfc(size);
  if (x > 100.0 || x * x > -exparg(1)) return 0.0;
  const double tail = exp_of_minus_square(size) * scaled_erfc(size);
  return x < 0.0 ? 2.0 - tail : tail;
}

}  // namespace statsubs
