// SPDX-License-Identifier: Apache-2.0
//
// The sequences of requests are part of the contract: a caller may count on them. Expected ones are
// worked out by hand from functions whose steps come out in round numbers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

#include "statsubs/distributions/dinvr.h"
#include "statsubs/distributions/dzror.h"

namespace {

using testing::DoubleEq;
using testing::ElementsAre;
using function = std::function<double(double)>;

struct outcome {
  int status = 0;
  double x = 0.0;
  double low = 0.0;
  double high = 0.0;
  bool atlow = false;
  bool fhigh = false;
  std::vector<double> requests;
};

constexpr std::size_t patience = 500;

outcome find_zero(double low, double high, const function& f, double abstol = 1e-50,
                  double reltol = 1e-8) {
  outcome found;
  double fval = 0.0;
  statsubs::dstzr(low, high, abstol, reltol);
  do {
    statsubs::dzror(found.status, found.x, fval, found.low, found.high, found.atlow, found.fhigh);
    if (found.status != 1) break;
    found.requests.push_back(found.x);
    fval = f(found.x);
  } while (found.requests.size() < patience);
  return found;
}

outcome invert(double small, double big, double start, const function& f) {
  outcome found;
  found.x = start;
  double fval = 0.0;
  statsubs::dstinv(small, big, 0.5, 0.5, 5.0, 1e-50, 1e-8);
  do {
    statsubs::dinvr(found.status, found.x, fval, found.atlow, found.fhigh);
    if (found.status != 1) break;
    found.requests.push_back(found.x);
    fval = f(found.x);
  } while (found.requests.size() < patience);
  return found;
}

// Answers the requests one after the other, whatever they are for.
function answers(std::vector<double> values) {
  return [values, next = std::size_t{0}](double) mutable { return values.at(next++); };
}

void expect_no_root(const outcome& found, bool atlow, bool fhigh) {
  EXPECT_EQ(found.status, -1);
  EXPECT_EQ(found.atlow, atlow);
  EXPECT_EQ(found.fhigh, fhigh);
}

TEST(dzror, tells_the_nearer_end_when_there_is_no_change_of_sign) {
  expect_no_root(find_zero(0.0, 1.0, answers({1.0, 2.0})), true, true);
  expect_no_root(find_zero(0.0, 1.0, answers({2.0, 1.0})), false, true);
  expect_no_root(find_zero(0.0, 1.0, answers({-1.0, -2.0})), true, false);
  expect_no_root(find_zero(0.0, 1.0, answers({-2.0, -1.0})), false, false);
}

// The secant step is exact for a line and the three-point step for a ratio of two lines.
TEST(dzror, interpolates_through_two_and_then_three_points) {
  const outcome line = find_zero(0.0, 4.0, [](double x) { return x - 1.0; });
  ASSERT_GE(line.requests.size(), 3u);
  EXPECT_EQ(line.requests[2], 1.0);

  const outcome ratio = find_zero(1.0, 4.0, [](double x) { return (x - 2.0) / (x + 1.0); });
  ASSERT_GE(ratio.requests.size(), 4u);
  EXPECT_DOUBLE_EQ(ratio.requests[2], 8.0 / 3.0);
  EXPECT_NEAR(ratio.requests[3], 2.0, 1e-14);
}

TEST(dzror, converges_on_functions_that_defeat_interpolation) {
  const double root = 3.14159;
  const function stubborn[] = {[=](double x) { return x < root ? -1.0 : 1.0; },
                               [=](double x) { return std::pow(x - root, 9.0); },
                               [=](double x) { return std::atan(1e9 * (x - root)); },
                               [=](double x) { return x < root ? 1e-30 : -1e30; }};
  for (const function& f : stubborn) {
    const outcome found = find_zero(-10.0, 1000.0, f);
    EXPECT_EQ(found.status, 0);
    EXPECT_NEAR(found.low, root, 1e-8 * root);
    EXPECT_NEAR(found.high, root, 2e-8 * root);
    // Bisection alone takes 35 steps; at most four others come between two of them.
    EXPECT_LT(found.requests.size(), 2u + 5u * 37u);
  }
}

TEST(dzror, keeps_to_the_tolerance_given) {
  const function f = [](double x) { return x * x * x - 2.0; };
  const outcome coarse = find_zero(0.0, 2.0, f, 1e-2, 0.0);
  const outcome fine = find_zero(0.0, 2.0, f, 1e-14, 0.0);
  EXPECT_NEAR(coarse.low, std::cbrt(2.0), 1e-2);
  EXPECT_NEAR(fine.low, std::cbrt(2.0), 1e-14);
  EXPECT_LT(coarse.requests.size(), fine.requests.size());
}

// 5 + 2.5 passes the root 7. The zero finder asks for both ends again; its secant hits 7, the
// smallest step of half the tolerance confirms it.
TEST(dinvr, steps_up_and_narrows) {
  const outcome found = invert(0.0, 100.0, 5.0, [](double x) { return x - 7.0; });
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.x, 7.0);
  EXPECT_THAT(found.requests,
              ElementsAre(0.0, 100.0, 5.0, 7.5, 5.0, 7.5, 7.0, DoubleEq(7.0 + 0.5 * 1e-8 * 7.0)));
}

TEST(dinvr, steps_down_and_stops_at_the_lower_limit) {
  for (const double sign : {1.0, -1.0}) {
    const outcome found = invert(0.0, 100.0, 5.0, [=](double x) { return sign * (x - 1.0); });
    EXPECT_EQ(found.status, 0);
    EXPECT_EQ(found.x, 1.0);
    ASSERT_GE(found.requests.size(), 8u);
    const std::vector<double> head(found.requests.begin(), found.requests.begin() + 8);
    EXPECT_THAT(head, ElementsAre(0.0, 100.0, 5.0, 2.5, 0.0, 0.0, 2.5, 1.0));
  }
}

TEST(dinvr, steps_grow_by_the_factor_from_the_absolute_first_step) {
  const outcome found = invert(0.0, 1000.0, 0.0, [](double x) { return std::log1p(x) - 4.0; });
  EXPECT_EQ(found.status, 0);
  EXPECT_NEAR(found.x, std::expm1(4.0), 1e-8 * found.x);
  ASSERT_GE(found.requests.size(), 7u);
  const std::vector<double> head(found.requests.begin(), found.requests.begin() + 7);
  EXPECT_THAT(head, ElementsAre(0.0, 1000.0, 0.0, 0.5, 3.0, 15.5, 78.0));
}

TEST(dinvr, ends_at_once_on_an_exact_start) {
  const outcome found = invert(0.0, 100.0, 5.0, [](double x) { return 5.0 - x; });
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.x, 5.0);
  EXPECT_THAT(found.requests, ElementsAre(0.0, 100.0, 5.0));
}

TEST(dinvr, tells_the_side_of_a_root_outside) {
  const auto beyond = [](double root, double sign) {
    return invert(0.0, 10.0, 5.0, [=](double x) { return sign * (x - root); });
  };
  expect_no_root(beyond(-1.0, 1.0), true, true);
  expect_no_root(beyond(11.0, 1.0), false, false);
  expect_no_root(beyond(-1.0, -1.0), true, false);
  expect_no_root(beyond(11.0, -1.0), false, true);
  EXPECT_EQ(beyond(-1.0, 1.0).x, 10.0);
  // Equal values at both ends count as a decreasing function.
  expect_no_root(invert(0.0, 10.0, 5.0, [](double) { return 1.0; }), false, true);
  expect_no_root(invert(0.0, 10.0, 5.0, [](double) { return -1.0; }), true, false);
}

// Answers of a function that is not monotone: no sign change found on the way out, or none left
// when the zero finder asks again.
TEST(dinvr, survives_a_function_that_is_not_monotone) {
  const outcome up = invert(0.0, 10.0, 5.0, answers({-1.0, 1.0, -1.0, -1.0, -1.0}));
  expect_no_root(up, false, false);
  EXPECT_EQ(up.x, 10.0);
  const outcome down = invert(0.0, 10.0, 5.0, answers({1.0, -1.0, -1.0, -1.0, -1.0}));
  expect_no_root(down, true, false);
  EXPECT_EQ(down.x, 0.0);
  const outcome lost = invert(0.0, 10.0, 5.0, answers({-1.0, 1.0, -1.0, 1.0, 1.0, 1.0}));
  EXPECT_EQ(lost.status, 0);
  EXPECT_EQ(lost.x, 5.0);
}

// The two searches keep their states apart, and a new start replaces an unfinished search.
TEST(dinvr, does_not_share_the_state_of_dzror) {
  const outcome nested = invert(0.0, 100.0, 5.0, [](double x) {
    const double root = find_zero(0.0, 20.0, [=](double y) { return y * y - x; }).low;
    return root - 3.0;
  });
  EXPECT_EQ(nested.status, 0);
  EXPECT_NEAR(nested.x, 9.0, 1e-6);

  int status = 0;
  double x = 5.0;
  bool atlow = false;
  bool fhigh = false;
  statsubs::dinvr(status, x, 0.0, atlow, fhigh);
  EXPECT_EQ(invert(0.0, 100.0, 5.0, [](double y) { return y - 7.0; }).x, 7.0);
}

TEST(dinvr, stops_the_process_when_the_start_lies_outside) {
  for (const double start : {-1.0, 11.0, std::nan("")})
    EXPECT_EXIT(invert(0.0, 10.0, start, [](double x) { return x; }), testing::ExitedWithCode(0),
                "^STOP SMALL, X, BIG not monotone in INVR\n$");
}

}  // namespace
