// SPDX-License-Identifier: Apache-2.0
#include "statsubs/quadrature/agqintjoint.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "statsubs/quadrature/agqgrid.h"
#include "statsubs/quadrature/updatedecomp.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/support/array.h"
#include "tests/statsubs/estep/estep_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
using test::estep_problem;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

// The problem with a host for quadrature. `placed`: centre and factor are those of the conditional
// density, otherwise they are the proposal's, off centre and too wide.
struct quadrature_problem : estep_problem {
  quadrature_problem(int n, bool placed) : estep_problem(n) {
    gv::myid = 0;
    gv::numprocs = 1;
    gv::sigmalchol = 0.7;
    host.table().setmainstdev = [](const double& sd) { gv::theta(2) = sd; };
    gv::cholsub.allocate("cholsub", n * (n + 1) / 2, subject);
    gv::omega.allocate("omega", n, n);
    gv::stddeveta.allocate("stddeveta", n);
    for (int i = 1; i <= n; ++i) gv::omega(i, i) = gv::stddeveta(i) = 1.0;
    if (!placed) return;
    for (int i = 1; i <= n; ++i) {
      gv::xmusub(i) = mean(i);
      for (int j = 1; j <= i; ++j) gv::omegacholsub(i, j) /= 1.3;
    }
  }
  void integrate(int nnodes) {
    info = -9;
    agqintjoint(subject, nnodes, found, info);
  }
  void expect_closed_form(double bound) const {
    EXPECT_EQ(info, 0);
    EXPECT_NEAR(found, loglik, bound);
    for (int i = 1; i <= gv::leneta; ++i) {
      EXPECT_NEAR(gv::xmusubnew(i), mean(i), bound);
      for (int k = 1; k <= gv::leneta; ++k)
        EXPECT_NEAR(gv::omegasubnew(i, k), covariance(i, k), bound);
    }
  }
  double found = -1.0;
  int info = -9;
};

TEST(Agqinit, RefusesWhatIsNoGrid) {
  const std::vector<std::array<int, 3>> cases = {{0, 3, -1}, {65, 3, -1}, {5, 0, -2}, {1, 41, -2},
                                                 {1, 40, 0}, {2, 30, 0},  {2, 31, 1}, {64, 40, 1}};
  for (const auto& [nnodes, n, status] : cases) {
    std::array<double, 64> nodes{};
    std::array<double, 64> weights{};
    int points = -7;
    int info = -9;
    agqinit(nnodes, n, nodes.data(), weights.data(), points, info);
    EXPECT_EQ(info, status) << nnodes << " " << n;
    EXPECT_EQ(points > 0, status == 0);
  }
}

TEST(Agqintjoint, AgreesWithTheClosedForm) {
  for (const int n : {1, 2, 3})
    for (const int nnodes : {1, 2, 5, 24}) {
      quadrature_problem placed(n, true);
      placed.integrate(nnodes);
      placed.expect_closed_form(1e-13);
      EXPECT_EQ(gv::izub, estep_problem::subject);
      EXPECT_EQ(gv::theta(2), 20.0);
    }
  quadrature_problem displaced(3, false);
  displaced.integrate(24);
  displaced.expect_closed_form(1e-11);
}

// Terms far below and far above what a double can exponentiate, over several blocks. The tilt
// exp(8 eta(3)) moves the mode away from the centre, so that the largest term comes late.
TEST(Agqintjoint, TakesAnyScale) {
  for (const double shift : {-3e4, 3e4}) {
    quadrature_problem problem(3, true);
    problem.host.objective = [&](int, const double* eta) {
      return problem.objective(eta) - shift - 8.0 * eta[2];
    };
    problem.integrate(40);
    const double variance = problem.covariance(3, 3);
    EXPECT_NEAR(problem.found,
                estep_problem::loglik + shift + 8.0 * problem.mean(3) + 32.0 * variance, 1e-9);
    EXPECT_NEAR(gv::xmusubnew(3), problem.mean(3) + 8.0 * variance, 1e-9);
    EXPECT_NEAR(gv::omegasubnew(3, 3), variance, 1e-9);
  }
}

TEST(Agqintjoint, FailedPointsHaveNoWeight) {
  quadrature_problem problem(1, true);
  const double below = problem.mean(1);
  problem.host.objective = [&](int, const double* eta) {
    return eta[0] < below ? not_a_number : problem.objective(eta);
  };
  problem.integrate(30);
  EXPECT_NEAR(problem.found, estep_problem::loglik - std::log(2.0), 1e-12);
  problem.host.objective = [](int, const double*) { return not_a_number; };
  problem.integrate(4);
  EXPECT_EQ(problem.found, -1e50);
  EXPECT_NEAR(gv::xmusubnew(1), below, 1e-15);
}

TEST(Agqintjoint, AStopOrAGridThatIsRefusedLeavesTheResults) {
  quadrature_problem problem(3, true);
  gv::xmusubnew(1) = -1.0;
  int evaluations = 0;
  problem.host.objective = [&](int, const double* eta) {
    gv::theta(1) += 1.0;
    return ++evaluations, problem.objective(eta);
  };
  problem.integrate(65);
  EXPECT_EQ(problem.info, -1);
  EXPECT_TRUE(problem.host.calls.empty());
  problem.host.stop = [&] { return evaluations == 5000 ? 1 : 0; };  // in the second block
  problem.integrate(20);
  EXPECT_EQ(evaluations, 5000);
  EXPECT_EQ(problem.info, 3);
  EXPECT_EQ(problem.found, -1.0);
  EXPECT_EQ(gv::xmusubnew(1), -1.0);
  EXPECT_EQ(gv::theta(1), 10.0);
}

// The curvature of the problem, and then curvatures of no use: omega's factor takes their place.
TEST(Updatedecomp, InvertsTheCurvatureOrTakesThePopulation) {
  quadrature_problem problem(2, false);
  const double l11 = 2.0, l21 = -1.0, l22 = 4.0;  // precision [4 -2; -2 17], determinant 64
  const auto update = [&](double first, double second, double third) {
    const double packed[] = {first, second, third};
    std::copy_n(packed, 3, gv::cholsub.column(estep_problem::subject).data());
    int info = -9;
    updatedecomp(estep_problem::subject, info);
    return info;
  };
  EXPECT_EQ(update(l11, l21, l22), 0);
  EXPECT_NEAR(gv::omegacholsub(1, 1), std::sqrt(17.0 / 64.0), 1e-15);
  EXPECT_NEAR(gv::omegacholsub(1, 1) * gv::omegacholsub(2, 1), 2.0 / 64.0, 1e-15);
  EXPECT_NEAR(gv::omegacholsub(1, 1) * gv::omegacholsub(2, 2), 1.0 / 8.0, 1e-15);
  gv::omega(2, 2) = 9.0;
  for (const double useless : {0.0, not_a_number, 0.09}) {  // 0.09: eleven standard deviations wide
    EXPECT_EQ(update(useless, 0.0, 1.0), 1) << useless;
    EXPECT_EQ(gv::omegacholsub(2, 2), 3.0);
  }
  gv::omega(2, 2) = -1.0;
  EXPECT_EQ(update(0.0, 0.0, 1.0), 2);
  EXPECT_EQ(gv::omegacholsub(2, 2), 3.0);
}

}  // namespace
}  // namespace statsubs
