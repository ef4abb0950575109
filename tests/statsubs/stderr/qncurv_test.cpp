// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/qncurv.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
using testing::Each;
using testing::IsEmpty;

class Qncurv : public testing::Test {
 protected:
  Qncurv() {
    gv::myid = 0;
    gv::numprocs = 1;
    gv::newsub.allocate("newsub", 4);
    const int starts[] = {1, 4, 4, 9};
    std::copy_n(starts, 4, gv::newsub.begin());
    set_order(2);
  }

  // Three subjects of order n, every factor filled with -5.
  static void set_order(int n) {
    gv::leneta = n;
    gv::cholsub.allocate("cholsub", n * (n + 1) / 2, 3);
    gv::omegasubnew.allocate("omegasubnew", n, n);
    qv::choleskyfactor.allocate("choleskyfactor", n, n, 3);
    std::fill_n(qv::choleskyfactor.data(), n * n * 3, -5.0);
  }

  static void set_column(int isub, const std::vector<double>& packed) {
    std::copy(packed.begin(), packed.end(), gv::cholsub.column(isub).begin());
  }

  test::fake_host host;
  int info = -1;
};

// By hand: L = ((2), (1, 3)), covariance (L Lt)^-1 = ((10, -2), (-2, 4)) / 36.
TEST_F(Qncurv, FactorOfTheInverseOfTheCurvature) {
  set_column(3, {2, 1, 3});
  qncurv(3, info);
  EXPECT_EQ(info, 0);
  EXPECT_EQ(gv::izub, 3);
  EXPECT_EQ(gv::nobs, 5);
  const auto factor = qv::choleskyfactor.slice(3);
  EXPECT_NEAR(factor(1, 1), std::sqrt(10.0) / 6.0, 1e-15);
  EXPECT_NEAR(factor(2, 1), -1.0 / (3.0 * std::sqrt(10.0)), 1e-15);
  EXPECT_NEAR(factor(2, 2), std::sqrt(1.0 / 10.0), 1e-15);
  EXPECT_EQ(factor(1, 2), -5.0) << "above the diagonal";
  EXPECT_EQ(qv::choleskyfactor(1, 1, 2), -5.0) << "another subject";
}

// F Ft (L Lt) = I for a factor of order 5 in its packed order.
TEST_F(Qncurv, UnpacksByColumns) {
  const int n = 5;
  set_order(n);
  matrix<double> lower("factor", n, n);
  std::vector<double> packed;
  for (int j = 1; j <= n; ++j)
    for (int i = j; i <= n; ++i)
      packed.push_back(lower(i, j) = i == j ? 1.0 + 0.5 * i : std::sin(3.0 * i + j));
  set_column(1, packed);
  qncurv(1, info);
  ASSERT_EQ(info, 0);

  const auto product = [](auto&& l, int i, int j) {
    double sum = 0.0;
    for (int k = 1; k <= std::min(i, j); ++k) sum += l(i, k) * l(j, k);
    return sum;
  };
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) {
      double entry = 0.0;
      for (int k = 1; k <= n; ++k)
        entry += product(qv::choleskyfactor.slice(1), i, k) * product(lower, k, j);
      EXPECT_NEAR(entry, i == j ? 1.0 : 0.0, 1e-14);
    }
}

TEST_F(Qncurv, ASubjectWithoutObservationsKeepsItsFactor) {
  set_column(2, {2, 1, 3});
  qncurv(2, info);
  EXPECT_EQ(info, 0);
  EXPECT_EQ(gv::izub, 2);
  EXPECT_EQ(gv::nobs, 0);
  EXPECT_EQ(qv::choleskyfactor(1, 1, 2), -5.0);
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(Qncurv, ReportsTheStatusOfTheLastFactorisation) {
  set_column(1, {0, 0, 3});  // not invertible: the zero stays where it is and fails as a pivot
  qncurv(1, info);
  EXPECT_EQ(info, 1);
  set_column(1, {2, 0, 0});  // the inversion fails at the second pivot
  qncurv(1, info);
  EXPECT_EQ(info, 2);
  EXPECT_THAT(host.calls, Each("globalvec"));
}

}  // namespace
}  // namespace statsubs
