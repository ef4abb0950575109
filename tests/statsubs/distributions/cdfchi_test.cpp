// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <boost/math/distributions/chi_squared.hpp>
#include <cmath>
#include <limits>

#include "statsubs/distributions/cdfchi.h"

namespace {

constexpr double untouched = -7.0;
constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

struct call {
  double p = 0.0;
  double q = 0.0;
  double x = 0.0;
  double df = 0.0;
  int status = 99;
  double bound = untouched;
};

call cdfchi(int which, double p, double q, double x, double df) {
  call made{p, q, x, df};
  statsubs::cdfchi(which, made.p, made.q, made.x, made.df, made.status, made.bound);
  return made;
}

void expect_refusal(const call& made, int status, double bound) {
  EXPECT_EQ(made.status, status);
  EXPECT_EQ(made.bound, bound);
}

TEST(cdfchi, checks_its_inputs_in_order) {
  const double bad = -1.0;
  expect_refusal(cdfchi(0, bad, bad, bad, bad), -1, 1.0);
  expect_refusal(cdfchi(4, bad, bad, bad, bad), -1, 3.0);
  expect_refusal(cdfchi(1, bad, bad, bad, bad), -4, 0.0);
  expect_refusal(cdfchi(1, bad, bad, 1.0, 0.0), -5, 0.0);
  for (const int which : {2, 3}) {
    expect_refusal(cdfchi(which, -0.1, bad, bad, bad), -2, 0.0);
    expect_refusal(cdfchi(which, 1.1, bad, bad, bad), -2, 1.0);
    expect_refusal(cdfchi(which, 0.0, 0.0, bad, bad), -3, 0.0);
    expect_refusal(cdfchi(which, 0.0, 1.1, bad, bad), -3, 1.0);
  }
  expect_refusal(cdfchi(2, 0.3, 0.3, bad, 0.0), -5, 0.0);
  expect_refusal(cdfchi(3, 0.3, 0.3, bad, bad), -4, 0.0);
  expect_refusal(cdfchi(2, 0.3, 0.3, bad, 2.0), 3, 1.0);
  expect_refusal(cdfchi(2, 0.3, 0.7 + 0x1p-49, bad, 2.0), 3, 1.0);
  EXPECT_EQ(cdfchi(2, 0.3, 0.7 + 0x1p-52, bad, 2.0).status, 0);
  expect_refusal(cdfchi(1, 0.0, 0.0, not_a_number, 1.0), -4, 0.0);
  expect_refusal(cdfchi(2, not_a_number, 0.5, 0.0, 1.0), -2, 1.0);
}

TEST(cdfchi, gives_probabilities) {
  const call at_zero = cdfchi(1, 0.5, 0.5, 0.0, 3.0);
  EXPECT_EQ(at_zero.status, 0);
  EXPECT_EQ(at_zero.p, 0.0);
  EXPECT_EQ(at_zero.q, 1.0);
  const call exponential = cdfchi(1, 9.0, 9.0, 3.0, 2.0);  // sum of p and q is not looked at
  EXPECT_DOUBLE_EQ(exponential.q, std::exp(-1.5));
  EXPECT_DOUBLE_EQ(exponential.p, -std::expm1(-1.5));
  EXPECT_EQ(exponential.bound, untouched);
  const call hopeless = cdfchi(1, 0.0, 0.0, 1e30, 1e30);
  EXPECT_EQ(hopeless.status, 0);
  EXPECT_EQ(hopeless.p, 2.0);
  EXPECT_EQ(hopeless.bound, untouched);
}

// Boost's quantiles; the tolerance is that of the search.
TEST(cdfchi, finds_quantiles) {
  for (const double df : {0.1, 0.5, 1.0, 2.0, 3.7, 10.0, 39.0, 41.0, 300.0, 1e5})
    for (const double tail : {1e-100, 1e-12, 1e-3, 0.1, 0.3, 0.5}) {
      const boost::math::chi_squared distribution(df);
      const call lower = cdfchi(2, tail, 1.0 - tail, untouched, df);
      const double x = boost::math::quantile(distribution, tail);
      EXPECT_EQ(lower.status, 0);
      if (x > 1e-40) {
        EXPECT_NEAR(lower.x, x, 3e-8 * x) << df << ' ' << tail;
      }
      const call upper = cdfchi(2, 1.0 - tail, tail, untouched, df);
      const double y = boost::math::quantile(boost::math::complement(distribution, tail));
      EXPECT_EQ(upper.status, 0);
      EXPECT_NEAR(upper.x, y, 3e-8 * y) << df << ' ' << tail;
    }
  EXPECT_NEAR(cdfchi(2, 0.5, 0.5, untouched, 2.0).x, 2.0 * std::log(2.0), 1e-8);
  EXPECT_EQ(cdfchi(2, 0.0, 1.0, untouched, 2.0).x, 0.0);
}

TEST(cdfchi, finds_degrees_of_freedom) {
  for (const double df : {0.01, 0.7, 1.0, 5.0, 12.5, 200.0, 1e4})
    for (const double x : {0.8 * df, df, 1.2 * df}) {
      const boost::math::chi_squared distribution(df);
      const double p = boost::math::cdf(distribution, x);
      const double q = boost::math::cdf(boost::math::complement(distribution, x));
      const call found = cdfchi(3, p, q, x, untouched);
      EXPECT_EQ(found.status, 0);
      EXPECT_NEAR(found.df, df, 3e-8 * df) << x;
    }
}

// At x = 0 no df has p > 0; at df = 1e301 no x that is searched has either.
TEST(cdfchi, tells_on_which_side_the_answer_lies) {
  expect_refusal(cdfchi(3, 0.2, 0.8, 0.0, untouched), 1, 1e-300);
  expect_refusal(cdfchi(3, 0.8, 0.2, 0.0, untouched), 2, 1e300);
  expect_refusal(cdfchi(2, 0.2, 0.8, untouched, 1e301), 1, 0.0);
  expect_refusal(cdfchi(2, 0.8, 0.2, untouched, 1e301), 2, 1e300);
}

}  // namespace
