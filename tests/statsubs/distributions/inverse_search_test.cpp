// SPDX-License-Identifier: Apache-2.0
//
// The sequences of requests are part of the contract: a caller may count on them. Expected ones are
// worked out by hand from functions whose steps come out in round numbers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <functional>
#include <vector>

#include "statsubs/distributions/dinvr.h"
#include "statsubs/distributions/dzror.h"

namespace {

using testing::DoubleEq;
using testing::Pointwise;
using function = std::function<double(double)>;

struct outcome {
  int status = 0;
  double x = 0.0, low = 0.0, high = 0.0;
  bool atlow = false, fhigh = false;
  std::vector<double> requests;
};

// Holds the conversation that `search` makes until it ends or has asked 500 times.
template <class Search>
void converse(outcome& found, const function& f, Search search) {
  double fval = 0.0;
  while (search(fval), found.status == 1 && found.requests.size() < 500) {
    found.requests.push_back(found.x);
    fval = f(found.x);
  }
}

outcome find_zero(double low, double high, const function& f, double abstol = 1e-50,
                  double reltol = 1e-8) {
  outcome found;
  statsubs::dstzr(low, high, abstol, reltol);
  converse(found, f, [&](double fval) {
    statsubs::dzror(found.status, found.x, fval, found.low, found.high, found.atlow, found.fhigh);
  });
  return found;
}

outcome invert(double small, double big, double start, const function& f) {
  outcome found;
  found.x = start;
  statsubs::dstinv(small, big, 0.5, 0.5, 5.0, 1e-50, 1e-8);
  converse(found, f, [&](double fval) {
    statsubs::dinvr(found.status, found.x, fval, found.atlow, found.fhigh);
  });
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
}

// The secant step is exact for a line and the three-point step for a ratio of two lines.
TEST(dzror, interpolates_through_two_and_then_three_points) {
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
  for (const double abstol : {1e-2, 1e-14}) {
    const outcome found = find_zero(
        0.0, 2.0, [](double x) { return x * x * x - 2.0; }, abstol, 0.0);
    EXPECT_NEAR(found.low, std::cbrt(2.0), abstol);
    EXPECT_EQ(found.requests.size() < 10u, abstol == 1e-2);
  }
}

// Up, 5 + 2.5 passes the root 7. The zero finder asks for both ends again; its secant hits 7, the
// smallest step of half the tolerance confirms it. Down, the second step is cut at the limit. From
// 0 the first step is the absolute one, and each is five times the one before.
TEST(dinvr, steps_out_and_narrows) {
  struct course {
    double root, start;
    std::vector<double> requests;
  };
  constexpr double more = 1.0 + 0.5e-8;
  constexpr double less = 1.0 - 0.5e-8;
  for (const course& c : {course{7, 5, {0, 100, 5, 7.5, 5, 7.5, 7, 7 * more}},
                          course{1, 5, {0, 100, 5, 2.5, 0, 0, 2.5, 1, less}},
                          course{70, 0, {0, 100, 0, 0.5, 3, 15.5, 78, 15.5, 78, 70, 70 * more}},
                          course{5, 5, {0, 100, 5}}})
    for (const double sign : {1.0, -1.0}) {
      const auto line = [&](double x) { return sign * (x - c.root); };
      const outcome found = invert(0.0, 100.0, c.start, line);
      EXPECT_EQ(found.status, 0);
      EXPECT_EQ(found.x, c.root);
      EXPECT_THAT(found.requests, Pointwise(DoubleEq(), c.requests));
    }
}

TEST(dinvr, tells_the_side_of_a_root_outside) {
  const auto beyond = [](double root, double sign) {
    return invert(0.0, 10.0, 5.0, [=](double x) { return sign * (x - root); });
  };
  expect_no_root(beyond(-1.0, 1.0), true, true);
  expect_no_root(beyond(11.0, 1.0), false, false);
  expect_no_root(beyond(-1.0, -1.0), true, false);
  expect_no_root(beyond(11.0, -1.0), false, true);
  // Equal values at both ends count as a decreasing function.
  expect_no_root(invert(0.0, 10.0, 5.0, [](double) { return 1.0; }), false, true);
}

// Answers of a function that is not monotone: no sign change found on the way out, or none left
// when the zero finder asks again.
TEST(dinvr, survives_a_function_that_is_not_monotone) {
  expect_no_root(invert(0.0, 10.0, 5.0, answers({-1.0, 1.0, -1.0, -1.0, -1.0})), false, false);
  expect_no_root(invert(0.0, 10.0, 5.0, answers({1.0, -1.0, -1.0, -1.0, -1.0})), true, false);
  const outcome lost = invert(0.0, 10.0, 5.0, answers({-1.0, 1.0, -1.0, 1.0, 1.0, 1.0}));
  EXPECT_EQ(lost.status, 0);
  EXPECT_EQ(lost.x, 5.0);
}

// The two searches keep their states apart, and a new start replaces an unfinished search.
TEST(dinvr, does_not_share_the_state_of_dzror) {
  outcome unfinished;
  statsubs::dinvr(unfinished.status, unfinished.x, 0.0, unfinished.atlow, unfinished.fhigh);
  const outcome nested = invert(0.0, 100.0, 5.0, [](double x) {
    return find_zero(0.0, 20.0, [=](double y) { return y * y - x; }).low - 3.0;
  });
  EXPECT_EQ(nested.status, 0);
  EXPECT_NEAR(nested.x, 9.0, 1e-6);
}

TEST(dinvr, stops_the_process_when_the_start_lies_outside) {
  for (const double start : {-1.0, 11.0, std::nan("")})
    EXPECT_EXIT(invert(0.0, 10.0, start, [](double x) { return x; }), testing::ExitedWithCode(0),
                "^STOP SMALL, X, BIG not monotone in INVR\n$");
}

}  // namespace
