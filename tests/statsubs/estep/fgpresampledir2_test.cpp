// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/fgpresampledir2.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "statsubs/estep/proposals.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "tests/statsubs/estep/estep_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
using test::estep_problem;

constexpr int subject = estep_problem::subject;

// The problem in a population whose random effects are independent with the variance given.
struct presampling_problem : estep_problem {
  presampling_problem(int n, double variance, int points) : estep_problem(n) {
    gv::myid = 0;
    gv::numprocs = 1;
    gv::npresample = points;
    gv::omega.allocate("omega", n, n);
    gv::etatable.allocate("etatable", n, subject);
    qv::choleskyfactor.allocate("choleskyfactor", n, n, subject);
    for (int i = 1; i <= n; ++i) {
      for (int j = 1; j < i; ++j) gv::omegalchol(i, j) = 0.0;
      gv::omega(i, i) = variance;
      gv::omegalchol(i, i) = std::sqrt(variance);
    }
  }
  void presample() { fgpresampledir2(subject, found, info); }
  double found = -1.0;
  int info = -9;
};

TEST(Fgpresampledir2, FindsTheConditionalMomentsWhereSamplesAreMany) {
  for (const int pseudo_random : {0, 1}) {
    presampling_problem problem(3, 1.5, 6000);
    gv::iflagmcpem = pseudo_random;
    gv::xmusub(1) = std::nan("");  // the population's centre is zero
    problem.presample();
    // Standard deviations for 6000 independent samples, a tenth of them effective, are below 0.04.
    const double bound = pseudo_random == 1 ? 0.2 : 0.05;
    EXPECT_EQ(problem.info, 0);
    EXPECT_NEAR(problem.found, estep_problem::loglik, bound);
    for (int i = 1; i <= 3; ++i) {
      EXPECT_NEAR(gv::xmusubnew(i), problem.mean(i), bound);
      EXPECT_EQ(gv::etatable(i, subject), gv::xmusubnew(i));
      for (int k = 1; k <= i; ++k)
        EXPECT_NEAR(gv::omegasubnew(i, k), problem.covariance(i, k), bound);
    }
    EXPECT_NEAR(gv::wtsumzscore, (1.0 + gv::xmusubnew(1)) / estep_problem::observations, 1e-13);
    EXPECT_EQ(qv::choleskyfactor(1, 1, subject), std::sqrt(gv::omegasubnew(1, 1)));
  }
}

// Four samples of which two have weights 3/4 and 1/4: 1.6 are effective and five would be enough.
// Then six that are all the same: enough, without any spread.
TEST(Fgpresampledir2, BlendsThePopulationInWhereSamplesAreFewOrSingular) {
  presampling_problem problem(1, 4.0, 4);
  gv::iflagmcpem = 1;
  problem.host.table().dran3 = [](int& state) { return 0.2 * state++; };
  int evaluation = 0;
  problem.host.objective = [&](int, const double* eta) {
    const double weight[] = {0.0, 3.0, 1.0, 0.0};
    gv::theta(1) += 1.0;
    return 0.125 * eta[0] * eta[0] - std::log(weight[evaluation++]);
  };
  problem.presample();
  const double first = 2.0 * dnorminv(0.4);
  EXPECT_EQ(problem.info, 1);
  EXPECT_NEAR(gv::xmusubnew(1), 0.75 * first - 0.25 * first, 1e-12);
  const double spread = 0.75 * 0.25 * 4.0 * first * first;
  EXPECT_NEAR(gv::omegasubnew(1, 1), 0.32 * spread + 0.68 * 4.0, 1e-12);
  EXPECT_EQ(gv::theta(1), 10.0);

  gv::npresample = 6;
  problem.host.table().dran3 = [](int&) { return 0.9; };
  problem.host.objective = [](int, const double*) { return std::nan(""); };
  problem.presample();
  EXPECT_EQ(problem.info, 1);
  EXPECT_EQ(problem.found, -1e50);
  EXPECT_NEAR(gv::omegasubnew(1, 1), 2.0, 1e-12);
  EXPECT_DOUBLE_EQ(gv::wtsumzscore, 1.0 / estep_problem::observations);
}

// The points and weights are those of an E-step that proposes the population itself.
TEST(Fgpresampledir2, DrawsFromTheFamiliesOfTheEStep) {
  for (const int family : {0, 2, 1, -2, -3, 3, 8}) {
    presampling_problem problem(3, 1.5, 600);
    gv::impsampdof = family;
    std::fill(gv::xmusub.begin(), gv::xmusub.end(), 0.0);
    std::copy_n(gv::omegalchol.data(), 9, gv::omegacholsub.data());
    test::start_sobol(3, 0);
    const test::estep_results expected = test::run_estep(600);
    test::start_sobol(3, 0);
    problem.presample();
    EXPECT_EQ(problem.found, expected.loglik) << family;
    EXPECT_EQ(gv::xmusubnew(2), expected.mean[1]) << family;
    EXPECT_EQ(gv::wtsumzscore, expected.wtsumzscore) << family;
  }
}

TEST(Fgpresampledir2, SaysWhyThereIsNoResult) {
  for (const int points : {1, 12}) {
    presampling_problem problem(2, 1.0, points);
    gv::xmusubnew(1) = -1.0;
    problem.host.stop = [] { return 1; };
    problem.presample();
    EXPECT_EQ(problem.host.calls.empty(), points == 1);
    EXPECT_EQ(problem.info, points == 1 ? 2 : 3);
    EXPECT_TRUE(std::isnan(problem.found));
    EXPECT_EQ(gv::xmusubnew(1), -1.0);
  }
}

}  // namespace
}  // namespace statsubs
