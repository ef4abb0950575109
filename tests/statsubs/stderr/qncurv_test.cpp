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

// Three subjects of order 3, the second without observations; every entry that qncurv is to leave
// alone is -5.
class Qncurv : public testing::Test {
 protected:
  Qncurv() {
    gv::myid = 0;
    gv::numprocs = 1;
    gv::leneta = 3;
    gv::newsub.allocate("newsub", 4);
    const int starts[] = {1, 4, 4, 9};
    std::copy_n(starts, 4, gv::newsub.begin());
    gv::cholsub.allocate("cholsub", 6, 3);
    gv::omegasubnew.allocate("omegasubnew", 3, 3);
    qv::choleskyfactor.allocate("choleskyfactor", 3, 3, 3);
    std::fill_n(qv::choleskyfactor.data(), 27, -5.0);
  }

  int run(int isub, const std::vector<double>& packed) {
    std::copy(packed.begin(), packed.end(), gv::cholsub.column(isub).begin());
    int info = -1;
    qncurv(isub, info);
    EXPECT_EQ(gv::izub, isub);
    return info;
  }

  test::fake_host host;
};

// L = ((1), (2, 1), (0, 2, 1)) has the inverse W = ((1), (-2, 1), (4, -2, 1)), and the covariance
// is Wt W = ((21, -10, 4), (-10, 5, -2), (4, -2, 1)). Its factor is worked out by hand.
TEST_F(Qncurv, FactorOfTheInverseOfTheCurvature) {
  EXPECT_EQ(run(3, {1, 2, 0, 1, 2, 1}), 0);
  EXPECT_EQ(gv::nobs, 5);
  const double f11 = std::sqrt(21.0), f22 = std::sqrt(5.0 / 21.0), f33 = std::sqrt(0.2);
  const double expected[] = {f11, -10 / f11, 4 / f11, -5, f22, -0.4 * f22, -5, -5, f33};
  const double* factor = qv::choleskyfactor.slice(3).data();
  for (int at = 0; at < 9; ++at) EXPECT_NEAR(factor[at], expected[at], 1e-13) << at;
  EXPECT_EQ(qv::choleskyfactor(1, 1, 1), -5.0) << "another subject";
}

TEST_F(Qncurv, ASubjectWithoutObservationsKeepsItsFactor) {
  EXPECT_EQ(run(2, {1, 2, 0, 1, 2, 1}), 0);
  EXPECT_EQ(gv::nobs, 0);
  EXPECT_EQ(qv::choleskyfactor(1, 1, 2), -5.0);
  EXPECT_THAT(host.calls, IsEmpty());
}

// A zero on the diagonal stops the inversion, and fails as a pivot where it stands.
TEST_F(Qncurv, ReportsTheStatusOfTheLastFactorisation) {
  EXPECT_EQ(run(1, {0, 0, 0, 3, 0, 1}), 1);
  EXPECT_EQ(run(1, {2, 0, 0, 0, 0, 1}), 2);
  EXPECT_THAT(host.calls, Each("globalvec"));
}

}  // namespace
}  // namespace statsubs
