// SPDX-License-Identifier: Apache-2.0
//
// What surrounds the update of the fixed effects: predictions, the test for a trend, printing.
#include <gmock/gmock.h>
#include <gsl/gsl_fit.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "statsubs/mstep/checkflat.h"
#include "statsubs/mstep/incrementgrad.h"
#include "statsubs/mstep/predetamu.h"
#include "statsubs/mstep/printtheta.h"
#include "statsubs/state/global_variables.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Predetamu, StoresAMeanAtItsRow) {
  test::fake_host host;
  host.cmatrix = [](int isub0, double* c) {
    const double subject = isub0;
    const double columns[] = {1, 0, 9, subject, 1, 9, 0, 2, 9};  // row 3 is not mapped
    std::copy_n(columns, 9, c);
  };
  gv::leneta = 3;
  gv::xmusub.allocate("xmusub", 3);
  std::fill(gv::xmusub.begin(), gv::xmusub.end(), -7.0);
  const double theta[] = {1, 10, 100};

  const int unmapped[] = {0, 0, 0};
  predetamu(5, theta, 2, 1, 3, unmapped);
  EXPECT_THAT(gv::xmusub, ElementsAre(-7, -7, -7));
  const int map[] = {2, 0, 1};
  predetamu(5, theta, 2, 1, 3, map);
  EXPECT_THAT(gv::xmusub, ElementsAre(41, 210, -7));
}

double trend(const std::vector<double>& values) {
  double tstat = -1.0;
  checkflat(values.data(), static_cast<int>(values.size()), tstat);
  return tstat;
}

TEST(Checkflat, IsTheTStatisticOfTheSlope) {
  EXPECT_NEAR(trend({1, 2, 4}), 3.0 * std::sqrt(3.0), 1e-14);  // 5.196, by hand

  std::vector<double> x, y;
  for (int i = 1; i <= 40; ++i) {
    x.push_back(i);
    y.push_back(-1290.0 - 0.02 * i + std::sin(7.0 * i));
    if (i < 3) continue;
    double c0, c1, v00, v01, v11, sse;
    gsl_fit_linear(x.data(), 1, y.data(), 1, x.size(), &c0, &c1, &v00, &v01, &v11, &sse);
    const double expected = std::fabs(c1) / std::sqrt(v11);
    EXPECT_NEAR(trend(y), expected, 1e-9 * expected) << i;
  }
}

TEST(Checkflat, DegenerateSeries) {
  EXPECT_EQ(trend({3, 3, 3, 3}), 0.0);
  EXPECT_EQ(trend({1, -1, 1}), 0.0);      // a slope of exactly 0 with residuals
  EXPECT_EQ(trend({5, 3, 1, -1}), 10.0);  // a line without rounding
  EXPECT_EQ(trend({}), 10.0);
  EXPECT_TRUE(std::isnan(trend({2})));
  EXPECT_EQ(trend({1, 2}), 10.0);
  EXPECT_EQ(trend({0.1, 1e16}), 0.0);  // a rounding residual over no degree of freedom
}

TEST(Printtheta, WritesFourToARecord) {
  test::captured_unit output(9);
  gv::myid = 0;
  const double theta[] = {0.5, 1, 1e-7, -3, 0.1};
  const auto lines_for = [&](int ntheta) {
    const auto before = static_cast<std::ptrdiff_t>(output.lines().size());
    gv::ntheta = ntheta;
    printtheta(theta, 9);
    return std::vector(output.lines().begin() + before, output.lines().end());
  };
  EXPECT_THAT(lines_for(5), ElementsAre(" 0.5 1 1e-07 -3", " 0.1"));
  EXPECT_THAT(lines_for(4), ElementsAre(" 0.5 1 1e-07 -3"));
  EXPECT_THAT(lines_for(0), ElementsAre(""));
  gv::myid = 1;
  EXPECT_THAT(lines_for(5), IsEmpty());
  gv::myid = 0;
}

TEST(Incrementgrad, Counts) {
  gv::icountgrad = 41;
  incrementgrad();
  EXPECT_EQ(gv::icountgrad, 42);
}

}  // namespace
}  // namespace statsubs
