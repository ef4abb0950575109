// SPDX-License-Identifier: Apache-2.0
//
// A number carried as an unevaluated sum of two doubles, for the few steps where the rounding of
// an exponent would spoil an exponential. Error-free transformations of Knuth (sum) and of Dekker,
// Numer. Math. 18 (1971), with Veltkamp's splitting (product); they rely on strict arithmetic.
#pragma once

namespace statsubs {

struct twofold {
  double high;
  double low;  // small against high
};

// a + b exactly, unless it overflows.
constexpr twofold two_sum(double a, double b) {
  const double sum = a + b;
  const double b_part = sum - a;
  return {sum, (a - (sum - b_part)) + (b - b_part)};
}

// Upper half of the significand; overflows above 2^996.
constexpr double upper_half(double a) {
  const double scaled = 0x1.0000002p27 * a;
  return scaled - (scaled - a);
}

// a b exactly; low is not a number when a factor exceeds 2^996 or the product overflows.
constexpr twofold two_product(double a, double b) {
  const double product = a * b;
  const double a1 = upper_half(a);
  const double a2 = a - a1;
  const double b1 = upper_half(b);
  const double b2 = b - b1;
  return {product, a2 * b2 - (((product - a1 * b1) - a2 * b1) - a1 * b2)};
}

// Sum, negative and quotient to nearly twice the working precision.
constexpr twofold add(const twofold& a, const twofold& b) {
  const twofold sum = two_sum(a.high, b.high);
  return {sum.high, sum.low + (a.low + b.low)};
}

constexpr twofold negative(const twofold& a) {
  return {-a.high, -a.low};
}

constexpr twofold divide(const twofold& a, const twofold& b) {
  const double quotient = a.high / b.high;
  const twofold back = two_product(quotient, b.high);
  const double remainder = ((a.high - back.high) - back.low) + (a.low - quotient * b.low);
  return {quotient, remainder / b.high};
}

}  // namespace statsubs
