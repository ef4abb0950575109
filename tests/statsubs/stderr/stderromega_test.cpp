// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/stderromega.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/standarderrorvariables.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace sv = statsubs::standarderrorvariables;
using testing::ElementsAre;

// A host that packs theta, the whole square by columns, and the deviation.
void pack(const double* theta, const double* omega, const double& sigma, double* x,
          const int& leneta, int& count) {
  x = std::copy_n(theta, gv::ntheta, x);
  x = std::copy_n(omega, leneta * leneta, x);
  *x = sigma;
  count = gv::ntheta + leneta * leneta + 1;
}

TEST(Stderromega, PutsVariancesAtTheFreeElements) {
  test::fake_host host;
  host.table().packparameters1 = pack;
  gv::ntheta = 2;
  gv::leneta = 3;
  gv::sigmalchol = 0.5;
  gv::theta.allocate("theta", 2);
  for (int i = 1; i <= 2; ++i) gv::theta(i) = 7.0 + i;
  gv::omegamask.allocate("omegamask", 3, 3);
  const double mask[] = {1, -1, 1, 1, 2, 0, 1, 1, 1};  // fixed: (2,1), (3,2)
  std::copy_n(mask, 9, gv::omegamask.data());
  sv::xbase.allocate("xbase", 12);

  const int n = 6;
  std::vector<double> covariance(n * n, -77.0);
  for (std::size_t i = 0; i < n; ++i) covariance[i * (n + 1)] = 10.0 * static_cast<double>(i + 1);
  stderromega(covariance.data(), 4);
  // Rows of the lower triangle: (1,1) 30, (2,2) 40, (3,1) 50, (3,3) 60.
  EXPECT_THAT(sv::xbase, ElementsAre(8, 9, 30, 0, 50, 0, 40, 0, 0, 0, 60, 0.5));
  stderromega(covariance.data(), 0);
  EXPECT_THAT(sv::xbase, ElementsAre(8, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0.5));
}

}  // namespace
}  // namespace statsubs
