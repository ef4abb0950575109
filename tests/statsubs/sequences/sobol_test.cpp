// SPDX-License-Identifier: Apache-2.0
#include "statsubs/sequences/sobol.h"

#include <gmock/gmock.h>
#include <gsl/gsl_qrng.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <memory>
#include <tuple>
#include <vector>

#include "statsubs/sequences/bdsobl.h"

namespace statsubs {
namespace {

namespace bd = statsubs::bdsobl;
using testing::AllOf;
using testing::Each;
using testing::ElementsAreArray;
using testing::Ge;
using testing::Gt;
using testing::Le;
using testing::Lt;

constexpr int most_points = 1073741823;

// Starts a sequence that must start; returns point 0.
std::vector<double> started(int ndim, int maxpoints, int scramble = 0, int ndigits = 30) {
  poly_vinit_define();
  bool ok[2] = {};
  int tquality = 0;
  std::vector<double> point(static_cast<std::size_t>(ndim));
  insobl(ok, ndim, maxpoints, tquality, point.data(), ndigits, scramble);
  EXPECT_TRUE(ok[0] && ok[1]);
  return point;
}

std::vector<double> next_point() {
  std::vector<double> point(static_cast<std::size_t>(bd::s));
  gosobl(point.data());
  return point;
}

// GSL's generator has the same tables and order, and leaves out the origin.
TEST(Sobol, UnscrambledPointsAreThoseOfGsl) {
  const std::unique_ptr<gsl_qrng, void (*)(gsl_qrng*)> gsl(gsl_qrng_alloc(gsl_qrng_sobol, 40),
                                                           gsl_qrng_free);
  EXPECT_THAT(started(40, most_points), Each(0.0));
  std::vector<double> expected(40);
  for (int n = 1; n <= 1 << 15; ++n) {
    gsl_qrng_get(gsl.get(), expected.data());
    ASSERT_EQ(next_point(), expected) << "point " << n;
  }
  int count = 0;
  getsobolcount(count);
  EXPECT_EQ(count, 1 << 15);
}

TEST(Sobol, AStartReportsWhatItWasGivenAndARefusalLeavesTheSequence) {
  struct request {
    int ndim, maxpoints;
    bool ok[2];
    int tquality, maxcol;
  };
  poly_vinit_define();
  bool ok[2];
  int tquality = 0;
  double point[40];
  for (const request& r :
       {request{13, 1, {true, true}, 35, 1}, request{14, most_points, {true, true}, -1, 30},
        request{0, 8, {false, true}, -1, 30}, request{41, 8, {false, true}, -1, 30},
        request{5, 0, {true, false}, -1, 30}, request{5, most_points + 1, {true, false}, -1, 30}}) {
    insobl(ok, r.ndim, r.maxpoints, tquality, point, 30, 0);
    EXPECT_THAT(ok, ElementsAreArray(r.ok));
    EXPECT_EQ(tquality, r.tquality);
    EXPECT_EQ(bd::maxcol, r.maxcol);
    EXPECT_EQ(bd::s, r.ndim);
    EXPECT_EQ(bd::count, ok[0] && ok[1] ? 0 : 1);
    bd::count = 1;
  }
}

TEST(Sobol, GoesOnFromASavedPoint) {
  started(6, 100000, 1);
  for (int n = 1; n <= 37; ++n) next_point();
  const bd::dimension_vector lastq = bd::lastq;
  const int count = bd::count;
  const std::vector<std::vector<double>> once = {next_point(), next_point(), next_point()};
  bd::lastq = lastq;
  bd::count = count;
  for (const std::vector<double>& point : once) EXPECT_EQ(next_point(), point);
}

TEST(Sobol, OnlyScramblingTellsOneStartFromTheNext) {
  for (const int scramble : {0, 1, 2, 3})
    EXPECT_EQ(started(5, most_points, scramble) == started(5, most_points, scramble),
              scramble == 0);
}

TEST(Sobol, TwoToThe31IsNegativeForTheCombinedScramblingOnly) {
  EXPECT_THAT(started(40, most_points, 1, 31), Each(AllOf(Ge(0.0), Lt(1.0))));
  EXPECT_THAT(started(40, most_points, 3, 31), Each(AllOf(Gt(-1.0), Le(0.0))));
  EXPECT_THAT(started(40, most_points, 3, 30), Each(AllOf(Ge(0.0), Lt(1.0))));
}

TEST(SobolDeathTest, StopsWhenNoPointIsLeft) {
  started(2, 3);
  for (int n = 1; n <= 3; ++n) next_point();
  EXPECT_EXIT(next_point(), testing::ExitedWithCode(0), "^STOP TOO MANY CALLS ON GOSOBL\n$");
  bd::maxcol = bd::count = 0;  // as before any start
  EXPECT_EXIT(next_point(), testing::ExitedWithCode(0), "^STOP TOO MANY CALLS ON GOSOBL\n$");
}

// (scrambling type, maxpoints, ndigits)
class SobolNet : public testing::TestWithParam<std::tuple<int, int, int>> {};

// The scramblings keep a digital net a net: among the first 2^m points every one of 2^m strata of
// a coordinate holds one, and so does every elementary rectangle of the first two dimensions, which
// are a net of quality 0.
TEST_P(SobolNet, EveryStratumHoldsOnePoint) {
  constexpr int m = 10;
  const auto [scramble, maxpoints, ndigits] = GetParam();
  const auto stratum = [](double x, int digits) {
    return static_cast<std::size_t>(std::ldexp(std::fabs(x), digits));
  };
  std::vector<std::vector<double>> points = {started(40, maxpoints, scramble, ndigits)};
  while (points.size() < 1U << m) points.push_back(next_point());

  for (std::size_t i = 0; i < 40; ++i) {
    std::vector<int> held(1U << m);
    for (const auto& point : points) ++held[stratum(point[i], m)];
    EXPECT_THAT(held, Each(1)) << "dimension " << i + 1;
  }
  for (int k = 1; k < m; ++k) {
    std::vector<int> held(1U << m);
    for (const auto& point : points)
      ++held[stratum(point[0], k) << (m - k) | stratum(point[1], m - k)];
    EXPECT_THAT(held, Each(1)) << "rectangles of 2^-" << k << " by 2^-" << m - k;
  }
}

INSTANTIATE_TEST_SUITE_P(Scramblings, SobolNet,
                         testing::Values(std::tuple(0, most_points, 0),
                                         std::tuple(1, most_points, 31), std::tuple(1, 1023, 24),
                                         std::tuple(2, most_points, 0),
                                         std::tuple(3, most_points, 30), std::tuple(3, 2000, 31)));

}  // namespace
}  // namespace statsubs
