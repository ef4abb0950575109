// SPDX-License-Identifier: Apache-2.0
//
// After Didonato and Morris, ACM Trans. Math. Softw. 12 (1986), Algorithm 654: the same regions,
// series and coefficients, evaluated differently in four places.
//  - y = a (l - 1 - ln l), l = x/a, enters through exp(-y) and so needs an absolute precision that
//    x/a rounded to a double does not give. It is formed as a sum of two doubles (scaled_rlog_*).
//  - x^a exp(-x) / Gamma(a) is a product of a power, an exponential and a reciprocal gamma function
//    instead of the exponential of a sum that cancels.
//  - For a whole number 2a below 40 the sums run over tabulated coefficients (whole_freedom.h), and
//    the finite sum of Q serves below x = a too, as long as P is not small.
//  - Temme's expansion about l = 1 has more terms, and keeps them next to l = 1, which makes that
//    region a part of the neighbouring one.
#include "statsubs/distributions/gratio.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <limits>

#include "statsubs/distributions/elementary.h"
#include "statsubs/distributions/erf.h"
#include "statsubs/distributions/gamma.h"
#include "statsubs/distributions/machine.h"
#include "statsubs/distributions/polynomial.h"
#include "statsubs/distributions/temme_coefficients.h"
#include "statsubs/distributions/twofold.h"
#include "statsubs/distributions/whole_freedom.h"

namespace statsubs {

namespace {

struct ratios {
  double p;
  double q;
};

ratios from_lower(double p) {
  return {p, 0.5 + (0.5 - p)};
}

ratios from_upper(double q) {
  return {0.5 + (0.5 - q), q};
}

struct accuracy {
  double acc;  // relative size of the first term that a series leaves out
  double big;  // shape from which Temme's expansion serves
  double x0;   // argument from which the asymptotic series serves
};

constexpr accuracy accuracy_class(int ind) {
  if (ind == 0) return {5e-15, 20.0, 31.0};
  if (ind == 1) return {5e-7, 14.0, 17.0};
  return {5e-4, 10.0, 9.7};
}

// Sums a series whose terms fall in size, from `term` until one is no larger than `tolerance`;
// next(term) gives the term that follows. Terms above 1e-3 are held back and added last, smallest
// first.
template <class Next>
double sum_terms(double term, double tolerance, Next next) {
  std::array<double, 20> held;
  std::size_t count = 0;
  while (count < held.size() && std::fabs(term) > 1e-3) {
    held[count++] = term;
    term = next(term);
  }
  double sum = term;
  while (std::fabs(term) > tolerance) {
    term = next(term);
    sum += term;
  }
  while (count > 0) sum += held[--count];
  return sum;
}

// P / (r / a), r = x^a exp(-x) / Gamma(a): 1 + x/(a+1) + x^2/((a+1)(a+2)) + ...
double lower_series(double a, double x, double acc) {
  double denominator = a + 1.0;
  return 1.0 + sum_terms(x / denominator, 0.5 * acc, [&](double term) {
           denominator += 1.0;
           return term * (x / denominator);
         });
}

// Q / (r / x): 1 + (a-1)/x + (a-1)(a-2)/x^2 + ..., asymptotic for large x.
double upper_series(double a, double x, double acc) {
  double factor = a - 1.0;
  return 1.0 + sum_terms(factor / x, acc, [&](double term) {
           factor -= 1.0;
           return term * (factor / x);
         });
}

// Q / r by Legendre's continued fraction 1/(x + (1-a)/(1 + 1/(x + (2-a)/(1 + ...)))), two
// convergents a step.
double upper_fraction(double a, double x, double acc) {
  double odd_numerator = 1.0;
  double odd_denominator = x;
  double numerator = 1.0;
  double denominator = x + (1.0 - a);
  double c = 1.0;
  double before = 0.0;
  double value = 0.0;
  do {
    odd_numerator = x * numerator + c * odd_numerator;
    odd_denominator = x * denominator + c * odd_denominator;
    before = odd_numerator / odd_denominator;
    c += 1.0;
    const double rest = c - a;
    numerator = odd_numerator + rest * numerator;
    denominator = odd_denominator + rest * denominator;
    value = numerator / denominator;
  } while (std::fabs(value - before) >= acc * value);
  return value;
}

// The methods of the common branch, for a >= 1.
ratios from_prefactor(double a, double x, double r, const accuracy& with) {
  constexpr double ln_10 = 2.30258509299404568402;
  if (r == 0.0) return x <= a ? from_lower(0.0) : from_upper(0.0);
  if (x <= std::fmax(a, ln_10)) return from_lower(r / a * lower_series(a, x, with.acc));
  if (x < with.x0) return from_upper(r * upper_fraction(a, x, with.acc));
  return from_upper(r / x * upper_series(a, x, with.acc));
}

// x^a exp(-x), a < 20. The exponential comes in two halves, as it may underflow before the product
// does.
double power_times_exponential(double a, double x) {
  if (x > 1000.0) return 0.0;
  const double half = std::exp(-0.5 * x);
  return half * (std::pow(x, a) * half);
}

// a < 1, x < 1.1: the Taylor series of P(a, x) / x^a = (1 - j) / Gamma(1 + a).
ratios small_shape_series(double a, double x, double acc) {
  const double tolerance = 3.0 * acc / (a + 1.0);
  double n = 3.0;
  double power = x;
  double sum = x / (a + 3.0);
  double term = 0.0;
  do {
    n += 1.0;
    power *= -(x / n);
    term = power / (a + n);
    sum += term;
  } while (std::fabs(term) > tolerance);
  const double j = a * x * ((sum / 6.0 - 0.5 / (a + 2.0)) * x + 1.0 / (a + 1.0));

  const double h = gam1(a);
  const double z = a * std::log(x);
  const bool lower_is_large = x < 0.25 ? z > -0.13394 : a < x / 2.59;
  if (!lower_is_large) return from_lower(std::pow(x, a) * (1.0 + h) * (0.5 + (0.5 - j)));

  const double l = rexp(z);
  const double q = ((1.0 + l) * j - l) * (1.0 + h) - h;
  return q < 0.0 ? from_upper(0.0) : from_upper(q);
}

ratios small_shape(double a, double x, const accuracy& with) {
  if (a == 0.5) {
    const double root = std::sqrt(x);
    if (x < 0.25) return from_lower(erf(root));
    return from_upper(std::exp(-x) * erfc1(1, root));
  }
  if (x < 1.1) return small_shape_series(a, x, with.acc);
  const double r = a * power_times_exponential(a, x) * (1.0 + gam1(a));
  return r == 0.0 ? from_upper(0.0) : from_upper(r * upper_fraction(a, x, with.acc));
}

// x^a exp(-x) / Gamma(a), 1 <= a < 20. gam1 carries the gamma function since its error enters as
// a fraction of 1 + gam1 only.
double prefactor(double a, double x) {
  double t = a - 1.0;
  double product = 1.0;
  for (; t >= 1.0; t -= 1.0) product *= t;
  return power_times_exponential(a, x) * ((1.0 + gam1(t)) / product);
}

// Shapes f/2 with a whole f. P is the complement of Q down to where it is 0.15 at least, so that
// the difference costs less than a digit.
ratios whole_freedom(double a, double x) {
  const int f = static_cast<int>(a + a);
  const double below = a - x;
  const bool lower_is_large = below <= 0.0 || below * below <= 0.7 * a;
  if (lower_is_large) return from_upper(whole_freedom_upper(f, x));
  return from_lower(whole_freedom_lower(f, x));
}

ratios medium_shape(double a, double x, const accuracy& with) {
  if (x > 1000.0) return from_upper(0.0);
  const double twice = a + a;
  if (x <= 700.0 && twice == static_cast<int>(twice)) return whole_freedom(a, x);
  return from_prefactor(a, x, prefactor(a, x), with);
}

// 2 (atanh(r) - r) = 2 r^3 (1/3 + r^2/5 + r^4/7 + ...), |r| <= 1/4.
double atanh_excess(double r) {
  constexpr double c[] = {2.0 / 3.0,  2.0 / 5.0,  2.0 / 7.0,  2.0 / 9.0,  2.0 / 11.0, 2.0 / 13.0,
                          2.0 / 15.0, 2.0 / 17.0, 2.0 / 19.0, 2.0 / 21.0, 2.0 / 23.0, 2.0 / 25.0};
  const double t = r * r;
  return r * t * polynomial(c, t);
}

// y = a (l - 1 - ln l) next to l = 1. With d = x - a, r = d / (x + a) and ln l = 2 atanh(r) it is
// d^2 / (x + a) - 2 a (atanh(r) - r), whose first term dominates and is formed to twice the working
// precision; d is exact since x and a are within a factor of 2. Not finite where it overflows.
twofold scaled_rlog_near_one(double a, double x) {
  const double d = x - a;
  const twofold s = two_sum(x, a);
  return add(divide(two_product(d, d), s), {-a * atanh_excess(d / s.high), 0.0});
}

// The same away from l = 1. With l = 2^k m, m near 1, and r = (m - 1) / (m + 1),
// ln l = k ln 2 + 2 r + 2 (atanh(r) - r).
twofold scaled_rlog_far(double a, double x, double l) {
  constexpr double ln_2_high = 6.93147180369123816490e-01;  // 32 bits, so that k times it is exact
  constexpr double ln_2_low = 1.90821492927058770002e-10;
  if (l < 1e-32) return {std::numeric_limits<double>::infinity(), 0.0};
  int k = 0;
  if (std::frexp(l, &k) < 0.70710678118654752440) --k;
  const double reduced = std::ldexp(x, -k);  // m a, exactly
  const twofold r = divide({reduced - a, 0.0}, two_sum(reduced, a));

  twofold whole = two_product(a, k * ln_2_high);
  whole.low += a * (k * ln_2_low);
  twofold linear = two_product(2.0 * a, r.high);
  linear.low += 2.0 * a * r.low + a * atanh_excess(r.high);
  return add(two_sum(x, -a), negative(add(whole, linear)));
}

double temme_sum(double a, double z) {
  const double c[] = {polynomial(temme::c0, z), polynomial(temme::c1, z), polynomial(temme::c2, z),
                      polynomial(temme::c3, z), polynomial(temme::c4, z), polynomial(temme::c5, z),
                      polynomial(temme::c6, z), polynomial(temme::c7, z), polynomial(temme::c8, z),
                      polynomial(temme::c9, z), polynomial(temme::c10, z)};
  return polynomial(c, 1.0 / a);
}

// Temme's expansion of P or Q about l = 1, whichever is below one half.
ratios near_diagonal(double a, double x, const twofold& y) {
  constexpr double one_over_sqrt_two_pi = 0.39894228040143267794;
  const double size = std::fmax(y.high, 0.0);
  const double z = std::sqrt(2.0 * size / a);
  const double damping = std::exp(-size) * (1.0 - y.low);
  const double half = 0.5 * erfc1(1, std::sqrt(size));
  const double scale = one_over_sqrt_two_pi / std::sqrt(a);
  if (x < a) return from_lower(damping * (half - scale * temme_sum(a, -z)));
  return from_upper(damping * (half + scale * temme_sum(a, z)));
}

// x^a exp(-x) / Gamma(a) = sqrt(a / 2 pi) exp(-y) / (Stirling's correction), a >= 10.
double stirling_prefactor(double a, const twofold& y) {
  constexpr double one_over_sqrt_two_pi = 0.39894228040143267794;
  constexpr double c[] = {-1.0 / 12.0, 1.0 / 360.0, -1.0 / 1260.0, 1.0 / 1680.0};
  const double correction = polynomial(c, 1.0 / (a * a)) / a;
  return one_over_sqrt_two_pi * std::sqrt(a) * std::exp(correction - y.low) * std::exp(-y.high);
}

ratios large_shape(double a, double x, const accuracy& with) {
  const double l = x / a;
  const bool near_one = std::fabs(1.0 - l) <= 0.4;
  const twofold y = near_one ? scaled_rlog_near_one(a, x) : scaled_rlog_far(a, x, l);
  // Also where y overflows and is not a number.
  if (!(y.high < 700.0)) return x <= a ? from_lower(0.0) : from_upper(0.0);
  if (near_one) return near_diagonal(a, x, y);
  return from_prefactor(a, x, stirling_prefactor(a, y), with);
}

bool has_no_value(double a, double x) {
  constexpr double eps = 0x1p-52;
  if (!(a >= 0.0 && x >= 0.0) || (a == 0.0 && x == 0.0)) return true;
  return a * eps * eps > 3.28e-3 && std::fabs(1.0 - x / a) <= 2.0 * eps;
}

ratios incomplete_gamma(double a, double x, const accuracy& with) {
  if (has_no_value(a, x)) return {2.0, 2.0};
  if (a * x == 0.0) return x <= a ? from_lower(0.0) : from_upper(0.0);
  if (a < 1.0) return small_shape(a, x, with);
  return a < with.big ? medium_shape(a, x, with) : large_shape(a, x, with);
}

}  // namespace

void gratio(const double& a, const double& x, double& ans, double& qval, const int& ind) {
  const ratios value = incomplete_gamma(a, x, accuracy_class(ind));
  ans = value.p;
  qval = value.q;
}

void cumgam(const double& x, const double& a, double& cum, double& upper) {
  if (x <= 0.0) {
    cum = 0.0;
    upper = 1.0;
    return;
  }
  gratio(a, x, cum, upper, 0);
}

void cumchi(const double& x, const double& df, double& cum, double& upper) {
  cumgam(0.5 * x, 0.5 * df, cum, upper);
}

}  // namespace statsubs
