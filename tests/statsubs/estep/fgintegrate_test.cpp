// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/fgintegrate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/math/distributions/chi_squared.hpp>
#include <boost/math/distributions/laplace.hpp>
#include <boost/math/distributions/normal.hpp>
#include <boost/math/quadrature/gauss_kronrod.hpp>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "statsubs/estep/proposals.h"
#include "statsubs/estep/sample_quality.h"
#include "statsubs/sequences/sobol.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/saveearlyvars.h"
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

// The codes of all families; 2 is the normal one with the population's factor.
constexpr int families[] = {0, 2, -1, 1, -2, -3, 3, 8};

struct serial_process {
  serial_process() {
    gv::myid = 0;
    gv::numprocs = 1;
  }
};
class Fgintegrate : public testing::Test, private serial_process {};
class FgintegrateFamily : public testing::TestWithParam<int>, private serial_process {};
INSTANTIATE_TEST_SUITE_P(, FgintegrateFamily, testing::ValuesIn(families));

// Standard errors of the estimates from the weights and samples themselves (delta method, as in
// A. B. Owen, "Monte Carlo theory, methods and examples", ch. 9).
struct standard_errors {
  double loglik;
  double mean;        // of the first random effect
  double covariance;  // of the last with the first
};

standard_errors errors_of(const estep_problem& problem, const estep_results& r) {
  const int count = static_cast<int>(r.weights.size());
  double rms, peak, frac;
  imp_merit(r.weights.data(), count, rms, peak, frac);
  const matrix_view<const double> x(r.samples.data(), r.leneta, count);
  double mean_variance = 0.0;
  double covariance_variance = 0.0;
  for (int j = 1; j <= count; ++j) {
    const double w = r.weights[static_cast<std::size_t>(j - 1)];
    const double first = x(1, j) - problem.mean(1);
    const double last = x(r.leneta, j) - problem.mean(r.leneta);
    const double product = first * last - problem.covariance(1, r.leneta);
    mean_variance += w * w * first * first;
    covariance_variance += w * w * product * product;
  }
  return {std::sqrt((rms * rms - 1.0) / count), std::sqrt(mean_variance),
          std::sqrt(covariance_variance)};
}

struct deviations {
  double loglik, mean, covariance;
};

deviations deviations_of(const estep_problem& problem, const estep_results& r) {
  const auto last = static_cast<std::size_t>(r.leneta - 1);
  return {r.loglik - estep_problem::loglik, r.mean[0] - problem.mean(1),
          r.covariance[last] - problem.covariance(r.leneta, 1)};
}

// Five standard errors are exceeded once in two million draws. Scrambled points vary less than
// independent ones, so the bound holds for them all the more.
void expect_close(const estep_problem& problem, const estep_results& r) {
  const standard_errors se = errors_of(problem, r);
  const deviations off = deviations_of(problem, r);
  EXPECT_LT(std::abs(off.loglik), 5.0 * se.loglik);
  EXPECT_LT(std::abs(off.mean), 5.0 * se.mean);
  EXPECT_LT(std::abs(off.covariance), 5.0 * se.covariance);
  EXPECT_LT(se.loglik, 0.02);  // so that "close" means something
  EXPECT_LT(se.mean, 0.02);
  EXPECT_LT(se.covariance, 0.02);
}

TEST_P(FgintegrateFamily, AgreesWithTheClosedForm) {
  for (const int pseudo_random : {0, 1}) {
    const estep_problem problem(3);
    gv::impsampdof = GetParam();
    gv::iflagmcpem = pseudo_random;
    const estep_results r = run_estep(6000);
    expect_close(problem, r);
    EXPECT_EQ(problem.host.subject, estep_problem::subject);
    EXPECT_EQ(gv::izub, estep_problem::subject);
    // The score is 1 + eta(1): its weighted mean per observation follows from the mean of eta.
    EXPECT_NEAR(r.wtsumzscore, (1.0 + r.mean[0]) / estep_problem::observations, 1e-13);
    EXPECT_EQ(r.covariance[1], r.covariance[3]);
  }
}

// Independent points would have root mean squares equal to the standard errors. For a smooth
// integrand the variance with scrambled nets falls faster than 1/N (A. B. Owen, "Scrambled net
// variance for integrals of smooth functions", Annals of Statistics 25 (1997) 1541-1562).
TEST_F(Fgintegrate, SobolPointsBeatIndependentOnes) {
  const estep_problem problem(2);
  constexpr int replicates = 12;
  double loglik = 0.0;
  double mean = 0.0;
  for (int k = 0; k < replicates; ++k) {
    test::start_sobol(2);
    const estep_results r = run_estep(4096);
    const standard_errors se = errors_of(problem, r);
    const deviations off = deviations_of(problem, r);
    loglik += std::pow(off.loglik / se.loglik, 2) / replicates;
    mean += std::pow(off.mean / se.mean, 2) / replicates;
  }
  EXPECT_LT(std::sqrt(loglik), 0.25);
  EXPECT_LT(std::sqrt(mean), 0.25);
}

// Densities of the standardised vector from definitions and Boost.

using density = std::function<double(const std::vector<double>& z)>;

density product_of(const std::function<double(double)>& pdf) {
  return [pdf](const std::vector<double>& z) {
    double product = 1.0;
    for (const double entry : z) product *= pdf(entry);
    return product;
  };
}

density normal_density(double sd) {
  return product_of([sd](double x) { return pdf(boost::math::normal(0.0, sd), x); });
}

density mixture_of(std::vector<density> components) {
  return [components](const std::vector<double>& z) {
    double sum = 0.0;
    for (const density& component : components) sum += component(z);
    return sum / static_cast<double>(components.size());
  };
}

// A normal whose variance is dof over a chi-square variable, by quadrature over that variable.
density t_density(int dof) {
  return [dof](const std::vector<double>& z) {
    const boost::math::chi_squared chi_square(dof);
    const auto integrand = [&](double x) {
      return pdf(chi_square, x) * normal_density(std::sqrt(dof / x))(z);
    };
    return boost::math::quadrature::gauss_kronrod<double, 61>::integrate(
        integrand, 0.0, std::numeric_limits<double>::infinity(), 15, 1e-12);
  };
}

// accratio of the tests is 0.5: in n dimensions each component's standard deviation is 0.5^(1/n) of
// that of the one before.
density family_density(int impsampdof, int n) {
  const double narrower = std::pow(0.5, 1.0 / n);
  const density first = normal_density(1.0);
  const density second = normal_density(narrower);
  if (impsampdof >= 3) return t_density(impsampdof);
  if (impsampdof == 1)
    return product_of([](double x) { return pdf(boost::math::laplace(0.0, std::sqrt(0.5)), x); });
  if (impsampdof == -2) return mixture_of({first, second});
  if (impsampdof == -3) return mixture_of({first, second, normal_density(narrower * narrower)});
  return first;
}

// A target equal to the proposal has equal weights, and the integral is exact. It holds the density
// that is divided by, every constant of it, to independent ones at the points that were drawn.
TEST_P(FgintegrateFamily, WeightsAreEqualWhenTheTargetIsTheProposal) {
  constexpr int n = 2;
  constexpr int samples = 60;
  estep_problem problem(n);
  gv::impsampdof = GetParam();
  const density standardised = family_density(gv::impsampdof, n);
  problem.host.objective = [&](int, const double* eta) {
    const matrix_view<const double> l = gv::omegacholsub;
    const double z1 = (eta[0] - gv::xmusub(1)) / l(1, 1);
    const double z2 = (eta[1] - gv::xmusub(2) - l(2, 1) * z1) / l(2, 2);
    return 3.5 - std::log(standardised({z1, z2}) / (l(1, 1) * l(2, 2)));
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

// One random effect with centre 0 and factor 1, so that the samples are the standardised numbers.
struct standardised_problem : estep_problem {
  standardised_problem() : estep_problem(1) {
    gv::xmusub(1) = 0.0;
    gv::omegacholsub(1, 1) = 1.0;
    gv::iflagmcpem = 1;
  }
};

// With one random effect and accratio 0.5 the standard deviations are 1, 1/2 and 1/4.
TEST_F(Fgintegrate, MixtureComponentsDrawFixedShares) {
  standardised_problem problem;
  problem.host.table().dran3 = [](int&) { return 0.9; };
  const double z = dnorminv(0.9);
  gv::impsampdof = -3;
  EXPECT_THAT(run_estep(3).samples, ElementsAre(z, z / 2, z / 4));
  EXPECT_THAT(run_estep(5).samples, ElementsAre(z, z / 2, z / 2, z / 4, z / 4));
  EXPECT_THAT(run_estep(1).samples, ElementsAre(z / 4));
  gv::impsampdof = -2;
  EXPECT_THAT(run_estep(3).samples, ElementsAre(z, z / 2, z / 2));
}

// exp of a log-density near 10^3 would overflow.
TEST_F(Fgintegrate, MixturesTakeAnyScale) {
  estep_problem problem(2);
  gv::impsampdof = -3;
  gv::omegacholsub(1, 1) = gv::omegacholsub(2, 2) = 1e-250;
  gv::omegacholsub(2, 1) = 0.0;
  EXPECT_TRUE(std::isfinite(run_estep(6).loglik));
}

int draws = 0;

TEST_F(Fgintegrate, RadiiOfTheTAreStratifiedInAQuasiRandomRun) {
  constexpr int dof = 5;
  constexpr int samples = 40;
  standardised_problem problem;
  gv::impsampdof = dof;
  problem.host.table().dran3 = [](int&) {
    ++draws;
    return 0.9;
  };
  const boost::math::chi_squared chi_square(dof);
  // The sample is z(0.9) sqrt(dof / x): its x gives the probability.
  const auto probability = [&](double eta) {
    return cdf(chi_square, dof * std::pow(dnorminv(0.9) / eta, 2));
  };

  gv::iflagmcpem = 0;
  draws = 0;
  int j = 0;
  for (const double eta : run_estep(samples).samples)
    EXPECT_NEAR(probability(eta), (2.0 * ++j - 1.0) / (2.0 * samples), 1e-7);
  EXPECT_EQ(draws, 2 * samples);

  for (const int other : {1, 2}) {
    gv::iflagmcpem = other;
    for (const double eta : run_estep(samples).samples) EXPECT_NEAR(probability(eta), 0.9, 1e-7);
  }
}

TEST_F(Fgintegrate, UniformNumbersAreKeptOffTheEnds) {
  standardised_problem problem;
  problem.host.table().dran3 = [](int& state) { return state++ % 2 == 1 ? 0.0 : 1.0; };
  EXPECT_THAT(run_estep(3).samples,
              ElementsAre(dnorminv(1e-6), dnorminv(0.999999), dnorminv(1e-6)));
}

TEST_F(Fgintegrate, PseudoRandomNumbersStartAgainAndSobolPointsGoOn) {
  const estep_problem problem(2);
  const std::vector<double> first = run_estep(10).samples;
  EXPECT_NE(run_estep(10).samples, first);
  int count = 0;
  getsobolcount(count);
  EXPECT_EQ(count, 20);

  gv::iflagmcpem = 1;
  const std::vector<double> restarted = run_estep(10).samples;
  EXPECT_EQ(run_estep(10).samples, restarted);
  getsobolcount(count);
  EXPECT_EQ(count, 20);
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
  estep_problem problem(2);
  gv::iflagmcpem = 1;
  constexpr int samples = 30;
  const estep_results whole = run_estep(samples);
  int evaluation = -1;  // the one at the mean comes first and does not count
  problem.host.objective = [&](int, const double* eta) {
    gv::zscoresub = 1.0 + eta[0];
    return ++evaluation % 3 == 0 ? not_a_number : problem.objective(eta);
  };
  const estep_results r = run_estep(samples);
  double kept = 0.0;
  for (int j = 1; j <= samples; ++j)
    if (j % 3 != 0) kept += whole.weights[static_cast<std::size_t>(j - 1)];
  for (int j = 1; j <= samples; ++j) {
    const auto at = static_cast<std::size_t>(j - 1);
    EXPECT_NEAR(r.weights[at], j % 3 == 0 ? 0.0 : whole.weights[at] / kept, 1e-14) << j;
  }
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

// A host that asks for a stop at its k-th evaluation, and moves theta in every one.
class stopping_host {
 public:
  stopping_host(estep_problem& problem, int k) {
    problem.host.objective = [&problem, this](int, const double* eta) {
      ++evaluations;
      gv::theta(1) += 1.0;
      gv::zscoresub = 77.0;
      return evaluations == 3 ? not_a_number : problem.objective(eta);
    };
    problem.host.stop = [k, this] { return evaluations == k ? 4 : 0; };
  }
  int evaluations = 0;
};

void expect_untouched(const estep_results& r) {
  EXPECT_EQ(r.loglik, -1.0);
  EXPECT_EQ(r.wtsumzscore, -1.0);
  EXPECT_THAT(r.weights, Each(-1.0));
  EXPECT_THAT(r.mean, Each(-1.0));
  EXPECT_THAT(r.covariance, Each(-1.0));
}

TEST_F(Fgintegrate, RestoresThetaOnEveryWayOut) {
  for (const int stop_at : {1, 3, 100}) {
    estep_problem problem(2);
    const stopping_host stopping(problem, stop_at);
    run_estep(12);
    EXPECT_EQ(gv::theta(1), 10.0) << stop_at;
    EXPECT_EQ(gv::theta(2), 20.0) << stop_at;
  }
}

TEST_F(Fgintegrate, AStopAtTheMeanDrawsNothing) {
  estep_problem problem(2);
  const stopping_host stopping(problem, 1);
  const estep_results r = run_estep(12);
  EXPECT_EQ(stopping.evaluations, 1);
  expect_untouched(r);
  EXPECT_THAT(r.samples, Each(-1.0));
  int count = -1;
  getsobolcount(count);
  EXPECT_EQ(count, 0);
}

// The third evaluation, of the second sample, fails as well: its score is not recorded either.
TEST_F(Fgintegrate, AStopInTheLoopLeavesItAtOnce) {
  estep_problem problem(2);
  const stopping_host stopping(problem, 3);
  const estep_results r = run_estep(12);
  EXPECT_EQ(stopping.evaluations, 3);
  EXPECT_EQ(gv::zscoresub, 77.0);
  expect_untouched(r);
}

TEST_F(Fgintegrate, GoesOnWhenTheHostDeclinesTheStop) {
  estep_problem problem(2);
  const stopping_host stopping(problem, 1);
  problem.host.table().checkforstop = [](int& flag) { flag = 0; };
  const estep_results r = run_estep(12);
  EXPECT_EQ(stopping.evaluations, 13);
  EXPECT_GT(r.weights[0], 0.0);
}

}  // namespace
}  // namespace statsubs
