// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <vector>

#include "statsubs/stderr/eigencor.h"
#include "statsubs/stderr/geteigenvalues.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

using testing::ElementsAre;

double condition(const std::vector<double>& c, int n) {
  double cond = 0.0;
  eigencor(c.data(), n, n, cond);
  return cond;
}

TEST(Eigencor, ConditionOfTheCorrelations) {
  test::captured_unit output;
  EXPECT_EQ(condition({4.0, 0, 0, 0, 0.01, 0, 0, 0, 9e6}, 3), 1.0);
  EXPECT_THAT(output.lines(), ElementsAre("", " condition number calculation eigmax/eigmin",
                                          "  0.100000E+01 /  0.100000E+01 =  0.100000E+01", ""));

  // Two variables of correlation r: (1 + r) / (1 - r), whatever their units. Here r = 0.6.
  EXPECT_NEAR(condition({4.0, 12.0, 12.0, 100.0}, 2), 4.0, 1e-14);
  EXPECT_EQ(output.lines()[6], "  0.160000E+01 /  0.400000E+00 =  0.400000E+01");

  // n variables of equal correlation r: (1 + (n - 1) r) / (1 - r). Standard deviations 1..6.
  const int n = 6;
  std::vector<double> c;
  for (int j = 1; j <= n; ++j)
    for (int i = 1; i <= n; ++i) c.push_back(i * j * (i == j ? 1.0 : 0.9));
  EXPECT_NEAR(condition(c, n), 55.0, 1e-11);
}

TEST(Eigencor, MatricesThatAreNoCovariance) {
  test::captured_unit output;
  // A negative variance scales by its magnitude: ((-1, 0.5), (0.5, 1)), eigenvalues +-sqrt(1.25).
  EXPECT_NEAR(condition({-4.0, 1.0, 1.0, 1.0}, 2), -1.0, 1e-15);
  // Perfect correlation: a smallest eigenvalue of 0, or of a rounding.
  EXPECT_GT(std::fabs(condition({1.0, 1.0, 1.0, 1.0}, 2)), 1e15);
}

TEST(Geteigenvalues, AscendingFromTheLowerTriangle) {
  // The second-difference matrix: 2 - 2 cos(k pi / (n + 1)).
  const int n = 5;
  std::vector<double> a(n * n, 0.0), w(n), work(3 * n);
  for (std::size_t j = 0; j < n; ++j) {
    a[j + j * n] = 2.0;
    if (j + 1 < n) a[j + 1 + j * n] = -1.0;
    if (j > 0) a[j - 1 + j * n] = 99.0;  // above the diagonal: must not be read
  }
  int info = -1;
  geteigenvalues(n, a.data(), w.data(), work.data(), 3 * n, info);
  EXPECT_EQ(info, 0);
  for (int k = 1; k <= n; ++k)
    EXPECT_NEAR(w[static_cast<std::size_t>(k - 1)], 2 - 2 * std::cos(k * std::acos(-1.0) / (n + 1)),
                1e-14);
}

}  // namespace
}  // namespace statsubs
