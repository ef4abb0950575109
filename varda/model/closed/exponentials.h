// SPDX-License-Identifier: Apache-2.0
//
// The exponential sums of linear compartments, in forms that keep their digits for small and for
// nearly equal rates. Rates are 1 / time and not negative, times are not negative.
#pragma once

#include <cmath>

namespace varda {

// From here on 1 - exp(-x) loses less than three binary digits to the subtraction.
inline constexpr double plain_difference = 0.125;

// 1 - exp(-x) for x >= 0, given exp(-x).
inline double saturation(double x, double exp_minus_x) {
  return x > plain_difference ? 1.0 - exp_minus_x : -std::expm1(-x);
}

// The integral of exp(-k s) over s from 0 to t, given exp(-k t); t where k t is negligible.
inline double exposure(double k, double t, double exp_minus_kt) {
  const double x = k * t;
  return x > 1e-17 ? saturation(x, exp_minus_kt) / k : t;
}

// (exp(-k t) - exp(-ka t)) / (ka - k), given both exponentials: what stands at time t in the second
// of two compartments in a row, per unit of rate and amount in the first. Symmetric in the rates;
// t exp(-k t) where they are equal. With the slower rate s and d = |ka - k| it is
// exp(-s t) (1 - exp(-d t)) / d, which cannot overflow.
inline double bateman(double ka, double k, double t, double exp_ka, double exp_k) {
  const double d = std::fabs(ka - k);
  if (d * t > plain_difference) return (exp_k - exp_ka) / (ka - k);
  const double slower = ka < k ? exp_ka : exp_k;
  return d * t > 1e-17 ? slower * (-std::expm1(-d * t) / d) : slower * t;
}

double bateman(double ka, double k, double t);

// The integral of bateman(ka, k, s) over s from 0 to t: the same for a constant input to the first
// compartment.
double bateman_exposure(double ka, double k, double t);

// The sum of bateman(ka, k, age + j interval) over j = 0, 1, ..., for 0 <= age <= interval.
double bateman_sum(double ka, double k, double age, double interval);

// The sum of exp(-k (age + j interval)) over j = 0, 1, ...
inline double decay_sum(double k, double age, double interval) {
  return std::exp(-k * age) / -std::expm1(-k * interval);
}

}  // namespace varda
