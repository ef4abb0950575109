// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/fgintegrate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/math/distributions/chi_squared.hpp>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "statsubs/estep/proposals.h"
#include "statsubs/sequences/sobol.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/support/array.h"
#include "tests/statsubs/estep/estep_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
using test::estep_problem;
using test::estep_results;
using test::run_estep;
using testing::Each;
using testing::ElementsAre;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

// The parameter is the code of a family; 2 is the normal one with the population's factor.
class Fgintegrate : public testing::TestWithParam<int> {
 protected:
  Fgintegrate() {
    gv::myid = 0;
    gv::numprocs = 1;
  }
};
class FgintegrateFamily : public Fgintegrate {};
INSTANTIATE_TEST_SUITE_P(, FgintegrateFamily, testing::Values(0, 2, -1, 1, -2, -3, 3, 8));

int sobol_count() {
  int count = -1;
  getsobolcount(count);
  return count;
}

// The standard deviations of all estimates here are below 0.02 for 6000 independent samples (delta
// method on their weights), and five of them are exceeded once in two million draws. The error of
// scrambled nets falls faster (A. B. Owen, Annals of Statistics 25 (1997) 1541-1562); only the t,
// whose samples are pseudo-random always, takes no part in that.
TEST_P(FgintegrateFamily, AgreesWithTheClosedForm) {
  for (const int pseudo_random : {0, 1}) {
    const estep_problem problem(3);
    gv::impsampdof = GetParam();
    gv::iflagmcpem = pseudo_random;
    const estep_results r = run_estep(6000);
    const double bound = pseudo_random == 1 || GetParam() >= 3 ? 0.1 : 0.01;
    EXPECT_NEAR(r.loglik, estep_problem::loglik, bound);
    for (int i = 1; i <= 3; ++i) {
      EXPECT_NEAR(gv::xmusubnew(i), problem.mean(i), bound);
      for (int k = 1; k <= 3; ++k)
        EXPECT_NEAR(gv::omegasubnew(i, k), problem.covariance(i, k), bound);
    }
    // The score is 1 + eta(1): its weighted mean per observation follows from the mean of eta.
    EXPECT_NEAR(r.wtsumzscore, (1.0 + r.mean[0]) / estep_problem::observations, 1e-13);
    EXPECT_EQ(problem.host.subject, estep_problem::subject);
    EXPECT_EQ(gv::izub, estep_problem::subject);
  }
}

// The families' densities in the plane, where the t has the constant of the normal distribution.
// With accratio 0.5 the variances of a mixture's components there are 1, 1/2 and 1/4.
double density_in_the_plane(int impsampdof, double z1, double z2) {
  const double squares = z1 * z1 + z2 * z2;
  const double one_over_two_pi = 0.5 / std::acos(-1.0);
  const auto normal = [&](double variance) {
    return one_over_two_pi / variance * std::exp(-squares / (2.0 * variance));
  };
  if (impsampdof >= 3)
    return one_over_two_pi * std::pow(1.0 + squares / impsampdof, -0.5 * impsampdof - 1.0);
  if (impsampdof == 1) return 0.5 * std::exp(-std::sqrt(2.0) * (std::abs(z1) + std::abs(z2)));
  if (impsampdof == -2) return (normal(1.0) + normal(0.5)) / 2.0;
  if (impsampdof == -3) return (normal(1.0) + normal(0.5) + normal(0.25)) / 3.0;
  return normal(1.0);
}

// A target equal to the proposal has equal weights, and the integral is exact: every constant of
// the density that is divided by counts.
TEST_P(FgintegrateFamily, WeightsAreEqualWhenTheTargetIsTheProposal) {
  constexpr int samples = 60;
  estep_problem problem(2);
  gv::impsampdof = GetParam();
  problem.host.objective = [](int, const double* eta) {
    const matrix_view<const double> l = gv::omegacholsub;
    const double z1 = (eta[0] - gv::xmusub(1)) / l(1, 1);
    const double z2 = (eta[1] - gv::xmusub(2) - l(2, 1) * z1) / l(2, 2);
    return 3.5 - std::log(density_in_the_plane(gv::impsampdof, z1, z2) / (l(1, 1) * l(2, 2)));
  };
  const estep_results r = run_estep(samples);
  EXPECT_NEAR(r.loglik, -3.5, 1e-11);
  EXPECT_THAT(r.weights, Each(testing::DoubleNear(1.0 / samples, 1e-12)));
}

TEST_F(Fgintegrate, TakesThePopulationsFactorForCodeTwoOnly) {
  const estep_problem problem(2);
  gv::impsampdof = 2;
  gv::omegacholsub(1, 1) = not_a_number;
  EXPECT_TRUE(std::isfinite(run_estep(16).loglik));
  std::swap(gv::omegacholsub, gv::omegalchol);
  gv::impsampdof = 0;
  EXPECT_TRUE(std::isfinite(run_estep(16).loglik));
}

// exp of a log-density near 10^3 would overflow.
TEST_F(Fgintegrate, MixturesTakeAnyScale) {
  const estep_problem problem(2);
  gv::impsampdof = -3;
  gv::omegacholsub(1, 1) = gv::omegacholsub(2, 2) = 1e-250;
  gv::omegacholsub(2, 1) = 0.0;
  EXPECT_TRUE(std::isfinite(run_estep(6).loglik));
}

// One random effect with centre 0 and factor 1, so that the samples are the standardised numbers,
// and pseudo-random numbers that are all 0.9.
struct standardised_problem : estep_problem {
  standardised_problem() : estep_problem(1) {
    gv::xmusub(1) = 0.0;
    gv::omegacholsub(1, 1) = 1.0;
    gv::iflagmcpem = 1;
    draws = 0;
    host.table().dran3 = [](int&) { return ++draws, 0.9; };
  }
  static inline int draws = 0;
};

// With one random effect and accratio 0.5 the standard deviations are 1, 1/2 and 1/4.
TEST_F(Fgintegrate, MixtureComponentsDrawFixedShares) {
  const standardised_problem problem;
  const double z = dnorminv(0.9);
  gv::impsampdof = -3;
  EXPECT_THAT(run_estep(5).samples, ElementsAre(z, z / 2, z / 2, z / 4, z / 4));
  EXPECT_THAT(run_estep(1).samples, ElementsAre(z / 4));
  gv::impsampdof = -2;
  EXPECT_THAT(run_estep(3).samples, ElementsAre(z, z / 2, z / 2));
}

TEST_F(Fgintegrate, RadiiOfTheTAreStratifiedInAQuasiRandomRun) {
  constexpr int samples = 40;
  const boost::math::chi_squared chi_square(5);
  for (const int flag : {0, 1, 2}) {
    const standardised_problem problem;
    gv::impsampdof = 5;
    gv::iflagmcpem = flag;
    int j = 0;
    for (const double eta : run_estep(samples).samples) {
      // The sample is z(0.9) sqrt(5 / x), x a quantile of the chi-square distribution.
      const double probability = cdf(chi_square, 5.0 * std::pow(dnorminv(0.9) / eta, 2));
      EXPECT_NEAR(probability, flag == 0 ? (++j - 0.5) / samples : 0.9, 1e-7) << flag;
    }
    EXPECT_EQ(problem.draws, 2 * samples);
  }
}

TEST_F(Fgintegrate, UniformNumbersAreKeptOffTheEnds) {
  standardised_problem problem;
  problem.host.table().dran3 = [](int& state) { return state++ % 2 == 1 ? 0.0 : 1.0; };
  EXPECT_THAT(run_estep(2).samples, ElementsAre(dnorminv(1e-6), dnorminv(0.999999)));
}

TEST_F(Fgintegrate, PseudoRandomNumbersStartAgainAndSobolPointsGoOn) {
  const estep_problem problem(2);
  const std::vector<double> first = run_estep(10).samples;
  EXPECT_NE(run_estep(10).samples, first);
  EXPECT_EQ(sobol_count(), 20);

  gv::iflagmcpem = 1;
  const std::vector<double> restarted = run_estep(10).samples;
  EXPECT_EQ(run_estep(10).samples, restarted);
  EXPECT_EQ(sobol_count(), 20);
}

TEST_F(Fgintegrate, WhenAllEvaluationsFailTheWeightsAreEqual) {
  for (const double failure : {not_a_number, HUGE_VAL, -HUGE_VAL}) {
    estep_problem problem(2);
    problem.host.objective = [failure](int, const double*) {
      gv::zscoresub = 77.0;
      return failure;
    };
    const estep_results r = run_estep(8);
    EXPECT_EQ(r.loglik, -1e50);
    EXPECT_THAT(r.weights, Each(0.125));
    EXPECT_EQ(r.wtsumzscore, 1.0 / estep_problem::observations);
    EXPECT_EQ(gv::zscoresub, 1.0);
  }
}

// A sample that fails has weight zero; the others carry the weights they would have anyway.
TEST_F(Fgintegrate, FailedSamplesDropOut) {
  constexpr int samples = 30;
  estep_problem problem(2);
  gv::iflagmcpem = 1;
  const estep_results whole = run_estep(samples);
  std::vector<double> expected = whole.weights;
  double kept = 1.0;
  for (std::size_t at = 2; at < samples; at += 3) kept -= std::exchange(expected[at], 0.0);

  int evaluation = -1;  // the one at the mean comes first and does not count
  problem.host.objective = [&](int, const double* eta) {
    return ++evaluation % 3 == 0 ? not_a_number : problem.objective(eta);
  };
  const estep_results r = run_estep(samples);
  for (std::size_t at = 0; at < samples; ++at)
    EXPECT_NEAR(r.weights[at], expected[at] / kept, 1e-13) << at;
  EXPECT_NEAR(r.loglik, whole.loglik + std::log(kept), 1e-13);
}

// The host judges what is ordinary: one that accepts positive numbers alone accepts every objective
// here and refuses every log-likelihood.
TEST_F(Fgintegrate, ALogLikelihoodTheHostRefusesIsPenalised) {
  estep_problem problem(2);
  problem.host.table().isgoodr8 = [](const double& x) { return x > 0.0 ? 1 : 0; };
  const estep_results r = run_estep(8);
  EXPECT_EQ(r.loglik, -1e50);
  EXPECT_EQ(r.wtsumzscore, 1.0 / estep_problem::observations);
  EXPECT_NE(gv::zscoresub, 1.0);
}

TEST_F(Fgintegrate, CallsTheHostInOrder) {
  const estep_problem problem(1);
  run_estep(2);
  EXPECT_THAT(problem.host.calls,
              ElementsAre("setisub", "seteta", "fcnxeta", "stoprequested", "checkforstop",  //
                          "seteta", "settheta", "fcnxeta", "stoprequested",                 //
                          "seteta", "settheta", "fcnxeta", "stoprequested", "checkforstop"));
}

// The host asks for a stop at one of its 13 evaluations, or at none. It moves theta in every one,
// and fails in the third: the score that a stop leaves there is not made good either.
TEST_F(Fgintegrate, AStopLeavesTheResultsUnlessTheHostDeclinesIt) {
  struct course {
    int stop_at;
    bool declined;
    int evaluations, points;
  };
  for (const course& c : {course{1, false, 1, 0}, course{3, false, 3, 12}, course{1, true, 13, 12},
                          course{99, false, 13, 12}}) {
    estep_problem problem(2);
    int evaluations = 0;
    problem.host.objective = [&](int, const double* eta) {
      gv::theta(1) += 1.0;
      gv::zscoresub = 77.0;
      return ++evaluations == 3 ? not_a_number : problem.objective(eta);
    };
    problem.host.stop = [&] { return evaluations == c.stop_at ? 4 : 0; };
    if (c.declined) problem.host.table().checkforstop = [](int& flag) { flag = 0; };
    const estep_results r = run_estep(12);
    estep_results untouched(2, 12);
    untouched.mean.assign(2, -1.0);
    untouched.covariance.assign(4, -1.0);
    if (c.points > 0) untouched.samples = r.samples;
    EXPECT_EQ(r == untouched, c.evaluations < 13);
    EXPECT_EQ(evaluations, c.evaluations);
    EXPECT_EQ(sobol_count(), c.points);
    EXPECT_EQ(gv::theta(1), 10.0);
    EXPECT_EQ(gv::zscoresub, 77.0);
  }
}

}  // namespace
}  // namespace statsubs
