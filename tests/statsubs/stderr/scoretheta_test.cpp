// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/scoretheta.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <functional>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "tests/statsubs/stderr/score_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
using testing::Each;
using testing::ElementsAre;

using vector3 = std::array<double, 3>;
using matrix3 = std::array<vector3, 3>;

// ln N(x; 0, omega) without its constant, by elimination.
double log_density(vector3 x, matrix3 omega) {
  double twice = 0.0;
  for (std::size_t k = 0; k < 3; ++k) {
    twice += x[k] * x[k] / omega[k][k] + std::log(omega[k][k]);
    for (std::size_t i = k + 1; i < 3; ++i) {
      const double factor = omega[i][k] / omega[k][k];
      x[i] -= factor * x[k];
      for (std::size_t j = k; j < 3; ++j) omega[i][j] -= factor * omega[k][j];
    }
  }
  return -0.5 * twice;
}

// Five-point derivative of f at 0, error of order h^4.
double derivative(const std::function<double(double)>& f) {
  const double h = 1e-3;
  return (8.0 * (f(h) - f(-h)) - (f(2 * h) - f(-2 * h))) / (12.0 * h);
}

class Scoretheta : public testing::Test {
 protected:
  Scoretheta() { gv::myid = 0, gv::numprocs = 1; }
  // The weighted sum over the samples that count of f(eta).
  double expectation(const std::function<double(const double*)>& f) const {
    double sum = 0.0;
    for (std::size_t k = 0; k < problem.weights.size(); ++k)
      if (k != 2) sum += problem.weights[k] * f(&problem.samples[3 * k]);
    return sum;
  }
  // The score by t where a change t moves the means by shift(t) and elements (i, j) and (j, i) of
  // omega by t; i = -1 for none.
  double normal_score(const std::function<vector3(double)>& shift, int i = -1, int j = -1) const {
    return expectation([&](const double* eta) {
      return derivative([&](double t) {
        matrix3 omega = {{{2, 1, 0}, {1, 2, 1}, {0, 1, 2}}};
        if (i >= 0) omega.at(i).at(j) = omega.at(j).at(i) = omega.at(i).at(j) + t;
        const vector3 mean = shift(t);
        return log_density({eta[0] - mean[0], eta[1] - mean[1], eta[2] - mean[2]}, omega);
      });
    });
  }

  test::score_problem problem;
};

TEST_F(Scoretheta, AnalyticPartsAreDerivativesOfTheNormalLogDensity) {
  const std::vector<double> theta(gv::theta.begin(), gv::theta.end());
  problem.score();
  const auto& s = problem.scores;
  EXPECT_TRUE(problem.host.subject == 2 && gv::izub == 2);
  const auto logarithm = [](double t) { return vector3{std::log(1 + t / 0.3), 0, 0}; };
  EXPECT_NEAR(s[0], normal_score(logarithm), 1e-8);
  EXPECT_NEAR(s[1], normal_score([](double t) { return vector3{0, t, 0}; }), 1e-9);
  EXPECT_NEAR(s[2], normal_score([](double t) { return vector3{-1.3 * t, 0.4 * t, 0}; }), 1e-9);
  const int free_elements[][2] = {{0, 0}, {1, 1}, {2, 0}, {2, 2}};
  for (std::size_t k = 5; const auto& [i, j] : free_elements)
    EXPECT_NEAR(s[k++], normal_score([](double) { return vector3{}; }, i, j), 1e-9);

  for (std::size_t k = 0; k < 81; ++k) EXPECT_EQ(problem.information[k], 1.0 + s[k % 9] * s[k / 9]);
  EXPECT_THAT(theta, testing::ElementsAreArray(gv::theta)) << "to the last bit";
  EXPECT_TRUE(gv::sigmalchol == 0.7 && gv::sigmasq == 0.7 * 0.7);
}

TEST_F(Scoretheta, DifferencesFollowTheObjective) {
  problem.score();
  EXPECT_EQ(problem.evaluations, 4 * 5);  // four samples: as they are, and two thetas twice
  EXPECT_THAT(problem.host.calls, Each(testing::AnyOf("setisub", "fcnxeta")));
  // Quadratic in theta 4, so the difference is exact: -residual eta1 / sigma^2.
  EXPECT_NEAR(problem.scores[3],
              expectation([](const double* eta) { return -(1.0 - 1.9 * eta[0]) * eta[0] / 0.49; }),
              1e-11);
  // In sigma the step of 1 % leaves an error of 1e-4 or so: 1 / sigma - residual^2 / sigma^3.
  const double exact = expectation(
      [](const double* eta) { return 1.0 / 0.7 - std::pow(1.0 - 1.9 * eta[0], 2) / 0.343; });
  EXPECT_NEAR(problem.scores[4] / exact, 1.0, 1e-3);
}

TEST_F(Scoretheta, StepsOfTheDifferences) {
  std::vector<double> visited;
  problem.host.objective = [&](int, const double*) { return visited.push_back(gv::theta(4)), 0.0; };
  problem.weights = {1.0};
  qv::cmatrix_3d.allocate("cmatrix_3d", 4, 3, 2);  // a C of other rows: theta 3 is differenced
  gv::freesigmafound = 0;
  for (gv::theta(4) = 0.0; gv::theta(4) >= -4.0; gv::theta(4) -= 4.0) problem.score(0);
  EXPECT_THAT(visited, ElementsAre(0, 0, 0, 1e-10, -1e-10, 0, 0, -4, -4, -4, -4 + 0.04,
                                   -4 + 0.04 - 0.08, -4, -4));
  EXPECT_EQ(problem.information[5], 1.0 + problem.scores[0] * problem.scores[1]);
  EXPECT_EQ(problem.scores[5], 0.0) << "beyond the score";
}

TEST_F(Scoretheta, ZerosWhereDividedOrWithoutAColumn) {
  problem.score();
  const std::vector<double> before = problem.scores;
  gv::theta(1) = 0.0;
  problem.score();
  EXPECT_NEAR(problem.scores[0] / (before[0] * 0.3 / 1e-15), 1.0, 1e-14);
  qv::iseqtheta(2) = 77;  // theta 1 is then its own mean
  qv::iseqtheta(1) = 78;
  problem.score();
  EXPECT_NEAR(problem.scores[0], before[0] * 0.3, 1e-14);
  EXPECT_EQ(problem.scores[2], 0.0);
}

TEST_F(Scoretheta, FailedAndLightSamplesCountAsZero) {
  const auto model = problem.host.objective;
  problem.score();
  const std::vector<double> sound = problem.scores;
  // The second sample fails where theta 4 moves up.
  problem.host.objective = [&](int isub, const double* eta) {
    return eta[0] == -1.1 && gv::theta(4) > 1.9 ? std::nan("") : model(isub, eta);
  };
  problem.score();
  const double lost = 0.25 * (1.0 + 1.9 * 1.1) * 1.1 / 0.49;
  EXPECT_NEAR(problem.scores[3], sound[3] - lost, 1e-11);
  for (const std::size_t i : {0U, 1U, 2U, 4U, 5U, 8U}) EXPECT_EQ(problem.scores[i], sound[i]);

  problem.weights = {0.0, 1e-10, 1e-11, 0.0, 1e-300};
  problem.evaluations = 0;
  problem.score();
  EXPECT_EQ(problem.evaluations, 0);
  EXPECT_THAT(problem.scores, Each(0.0));
  EXPECT_THAT(problem.information, Each(1.0));

  problem.weights = {1.0};
  problem.samples = {1e200, 0.0, 0.0};  // squares overflow
  problem.score();
  EXPECT_EQ(problem.scores[5], 0.0);
  EXPECT_NEAR(problem.scores[1], -0.5e200, 1e186);
}

}  // namespace
}  // namespace statsubs
