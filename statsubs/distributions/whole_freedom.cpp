// SPDX-License-Identifier: Apache-2.0
//
// With a = f/2, Q(a, x) = exp(-x) (sum over k < a of x^k / Gamma(k + 1)) and P(a, x) the same over
// k >= a. For an even f, k = 0, 1, 2, ...; for an odd one k = 1/2, 3/2, ..., and Q has erfc(sqrt x)
// besides (Abramowitz and Stegun 1964, 26.4.4 to 26.4.6).
#include "statsubs/distributions/whole_freedom.h"

#include <cmath>

#include "statsubs/distributions/erf.h"

namespace statsubs {

namespace {

// 1 / Gamma(k + 1), k = first, first + 1, ...; more of them than the longest series takes, which is
// that of f = 39 at x = 39/2.
struct reciprocal_gammas {
  static constexpr int count = 100;
  double entry[count];

  constexpr reciprocal_gammas(long double first, long double at_first) : entry{} {
    long double k = first;
    long double value = at_first;
    for (double& e : entry) {
      e = static_cast<double>(value);
      k += 1.0L;
      value /= k;
    }
  }
};

constexpr reciprocal_gammas whole(0.0L, 1.0L);
constexpr reciprocal_gammas half(0.5L, 1.128379167095512573896L);  // 2 / sqrt(pi)

// c[0] + c[1] x + ... + c[n-1] x^(n-1), its even and its odd part in chains of their own.
double polynomial_of_length(int n, const double* c, double x) {
  const double square = x * x;
  double even = 0.0;
  double odd = 0.0;
  int k = n - 1;
  if (k % 2 == 0) even = c[k--];
  for (; k > 0; k -= 2) {
    odd = c[k] + square * odd;
    even = c[k - 1] + square * even;
  }
  return even + x * odd;
}

// c[0] + c[1] x + ... to full precision, where the terms fall.
double series(const double* c, double x) {
  constexpr double negligible = 0x1p-54;
  const double square = x * x;
  const double fourth = square * square;
  double power = 1.0;
  double sum = 0.0;
  double four_terms = 0.0;
  do {
    four_terms = power * ((c[0] + c[1] * x) + (c[2] + c[3] * x) * square);
    sum += four_terms;
    power *= fourth;
    c += 4;
  } while (four_terms > negligible * sum);
  return sum;
}

double whole_power(double x, int n) {
  double power = n % 2 == 0 ? 1.0 : x;
  while ((n /= 2) != 0) {
    x *= x;
    if (n % 2 != 0) power *= x;
  }
  return power;
}

}  // namespace

double whole_freedom_upper(int f, double x) {
  if (f % 2 == 0) return std::exp(-x) * polynomial_of_length(f / 2, whole.entry, x);
  const double root = std::sqrt(x);
  return std::exp(-x) * (erfc1(1, root) + root * polynomial_of_length(f / 2, half.entry, x));
}

double whole_freedom_lower(int f, double x) {
  const int n = f / 2;
  const double leading = std::exp(-x) * whole_power(x, n);
  if (f % 2 == 0) return leading * series(whole.entry + n, x);
  return leading * (std::sqrt(x) * series(half.entry + n, x));
}

}  // namespace statsubs
