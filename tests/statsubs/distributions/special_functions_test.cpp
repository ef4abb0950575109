// SPDX-License-Identifier: Apache-2.0
//
// What the sweeps over smooth ranges do not see: limits, poles, saturation and refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <limits>

#include "statsubs/distributions/cumnor.h"
#include "statsubs/distributions/elementary.h"
#include "statsubs/distributions/erf.h"
#include "statsubs/distributions/gamma.h"
#include "statsubs/distributions/gratio.h"
#include "statsubs/distributions/machine.h"

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

struct pair {
  double p = -1.0, q = -1.0;
};

pair ratio(double a, double x, int ind = 0) {
  pair value;
  statsubs::gratio(a, x, value.p, value.q, ind);
  return value;
}

void expect_all(const std::initializer_list<pair>& values, double p, double q) {
  for (const pair& value : values) {
    EXPECT_DOUBLE_EQ(value.p, p);
    EXPECT_DOUBLE_EQ(value.q, q);
  }
}

TEST(machine, constants_are_those_of_the_arithmetic) {
  using limits = std::numeric_limits<double>;
  EXPECT_EQ(statsubs::spmpar(1), limits::epsilon());
  EXPECT_EQ(statsubs::spmpar(2), limits::min());
  EXPECT_EQ(statsubs::spmpar(3), limits::max());
  EXPECT_EQ(statsubs::ipmpar(3), std::numeric_limits<int>::max());
  EXPECT_EQ(statsubs::ipmpar(10), limits::max_exponent);
  EXPECT_NEAR(statsubs::exparg(0), 0.99999 * 1024 * std::log(2.0), 1e-10);
  EXPECT_NEAR(statsubs::exparg(1), -0.99999 * 1022 * std::log(2.0), 1e-10);
}

TEST(gamma, is_zero_where_it_has_no_value) {
  for (const double a : {0.0, -1.0, -14.0, -15.0, -16.0, -170.0, 171.7, 999.0, 1000.0, -1000.5,
                         1e300, infinity, -infinity, 5e-324})
    EXPECT_EQ(statsubs::gamma(a), 0.0) << a;
  EXPECT_TRUE(std::isnan(statsubs::gamma(not_a_number)));
}

// 14! and 20! exactly; Gamma(-15.5) and Gamma(-172 + 2^-44) from mpmath. The last has a reciprocal
// that the reflection cannot form at once.
TEST(gamma, keeps_signs_and_scales) {
  EXPECT_DOUBLE_EQ(statsubs::gamma(15.0), 87178291200.0);
  EXPECT_DOUBLE_EQ(statsubs::gamma(21.0), 2432902008176640000.0);
  EXPECT_NEAR(statsubs::gamma(-15.5) / 6.0531668400586031e-13, 1.0, 1e-14);
  EXPECT_NEAR(statsubs::gamma(-172.0 + 0x1p-44) / 8.2416327268396517e-299, 1.0, 1e-14);
}

TEST(erf, saturates_at_its_limits) {
  EXPECT_EQ(statsubs::erf(5.8), 1.0);
  EXPECT_EQ(statsubs::erf(-infinity), -1.0);
  EXPECT_EQ(statsubs::erfc1(0, -5.6), 2.0);
  EXPECT_EQ(statsubs::erfc1(0, 26.7), 0.0);  // 26.7^2 is above 708.389...
  EXPECT_GT(statsubs::erfc1(0, 26.6), 0.0);
  EXPECT_EQ(statsubs::erfc1(0, infinity), 0.0);
  EXPECT_EQ(statsubs::erfc1(1, -1e200), infinity);
  EXPECT_EQ(statsubs::erfc1(1, infinity), 0.0);
}

// Phi(-37.6) = 1.1e-309 is below the smallest normal number.
TEST(cumnor, saturates_at_its_limits) {
  const auto normal = [](double x) {
    pair value;
    statsubs::cumnor(x, value.p, value.q);
    return value;
  };
  expect_all({normal(-37.6)}, 0.0, 1.0);
  expect_all({normal(37.6), normal(infinity)}, 1.0, 0.0);
  expect_all({normal(1e-20)}, 0.5, 0.5);
}

TEST(elementary, limits) {
  EXPECT_EQ(statsubs::rexp(-800.0), -1.0);
  EXPECT_EQ(statsubs::rlog(0.0), infinity);
}

TEST(gratio, refuses_pairs_without_a_value) {
  expect_all({ratio(-1.0, 1.0), ratio(1.0, -1.0), ratio(0.0, 0.0), ratio(1e29, 1e29),
              ratio(not_a_number, 1.0), ratio(1.0, not_a_number)},
             2.0, 2.0);
  EXPECT_LE(ratio(6e28, 6e28).p, 1.0);  // just decided by rounding
  // Four units in the last place off the diagonal there is one again: a normal probability.
  const double x = 1e29 * (1.0 - 0x1p-50);
  EXPECT_NEAR(ratio(1e29, x).p, 0.5 * std::erfc((1e29 - x) / std::sqrt(2e29)), 1e-14);
}

TEST(gratio, is_a_step_where_the_smaller_ratio_vanishes) {
  expect_all({ratio(2.0, 0.0), ratio(1e-200, 1e-201), ratio(0.3, 0.0), ratio(5.0, 1e-300),
              ratio(30.0, 1e-320), ratio(1e300, 1.0), ratio(1e308, 1e307), ratio(1e10, 9.9e9),
              ratio(infinity, 1.0)},
             0.0, 1.0);
  expect_all({ratio(0.0, 2.0), ratio(1e-201, 1e-200), ratio(0.3, 1e4), ratio(0.3, infinity),
              ratio(0.5, 1e300), ratio(5.0, 1e300), ratio(5.0, infinity), ratio(30.0, 1e300),
              ratio(30.0, infinity), ratio(1e307, 1e308), ratio(1e10, 1.1e10)},
             1.0, 0.0);
}

// Shapes too large for the sweeps; from quadrature of the density in 45 digits (mpmath). An
// exponent formed from x/a alone would miss the second by 1e-4.
TEST(gratio, holds_its_digits_at_huge_shapes) {
  EXPECT_NEAR(ratio(1e10, 1e10 + 3e5).q / 0.0013500162166919065, 1.0, 1e-14);
  EXPECT_NEAR(ratio(1e10, 1e10 - 2e6).p / 2.6811551643883881e-89, 1.0, 5e-14);
  EXPECT_NEAR(ratio(1e15, 1e15 - 1e7).p / 0.37591482062304149, 1.0, 1e-14);
}

// The coarser classes keep six and three digits and switch their methods elsewhere.
TEST(gratio, coarser_classes_agree_with_the_full_one) {
  for (const double a : {0.01, 0.5, 0.9, 1.0, 2.3, 7.5, 9.9, 10.1, 13.9, 14.2, 19.0, 25.0, 400.0})
    for (const double l : {0.01, 0.3, 0.61, 0.9, 1.0, 1.02, 1.39, 1.5, 3.0, 9.0})
      for (const int ind : {1, 2}) {
        const pair full = ratio(a, l * a);
        const pair coarse = ratio(a, l * a, ind);
        const double tolerance = ind == 1 ? 1e-6 : 1e-3;
        EXPECT_NEAR(coarse.p, full.p, tolerance * full.p) << a << ' ' << l;
        EXPECT_NEAR(coarse.q, full.q, tolerance * full.q) << a << ' ' << l;
      }
}

TEST(cumgam, is_zero_up_to_zero) {
  for (const double x : {0.0, -1.0}) {
    pair gamma, chi_square;
    statsubs::cumgam(x, 3.0, gamma.p, gamma.q);
    statsubs::cumchi(x, 0.0, chi_square.p, chi_square.q);
    expect_all({gamma, chi_square}, 0.0, 1.0);
  }
}

}  // namespace
