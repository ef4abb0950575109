// SPDX-License-Identifier: Apache-2.0
#include "tests/statsubs/estep/estep_problem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "statsubs/estep/fgintegrate.h"
#include "statsubs/sequences/sobol.h"
#include "statsubs/state/global_variables.h"

namespace test {

namespace gv = statsubs::global_variables;

namespace {

constexpr double off_centre = 0.1;
constexpr double widening = 1.3;

// The conditional distribution: correlated, of unequal scales, away from zero.
constexpr double conditional_mean[] = {0.4, -0.7, 1.1};
constexpr double conditional_factor[3][3] = {{0.5, 0.0, 0.0}, {-0.2, 0.3, 0.0}, {0.1, 0.25, 0.8}};

void allocate_state(int n) {
  gv::leneta = n;
  gv::ntheta = estep_problem::ntheta;
  gv::theta.allocate("theta", gv::ntheta);
  gv::xmusub.allocate("xmusub", n);
  gv::omegacholsub.allocate("omegacholsub", n, n);
  gv::omegalchol.allocate("omegalchol", n, n);
  gv::xmusubnew.allocate("xmusubnew", n);
  gv::omegasubnew.allocate("omegasubnew", n, n);
  gv::newsub.allocate("newsub", estep_problem::subject + 1);
}

}  // namespace

estep_problem::estep_problem(int n) : n_(n), mean_("mean", n), factor_("factor", n, n) {
  allocate_state(n);
  for (int i = 1; i <= n; ++i) {
    mean_(i) = conditional_mean[i - 1];
    gv::xmusub(i) = mean_(i) + off_centre * conditional_factor[i - 1][i - 1];
    for (int j = 1; j <= i; ++j) {
      factor_(i, j) = conditional_factor[i - 1][j - 1];
      gv::omegacholsub(i, j) = gv::omegalchol(i, j) = widening * factor_(i, j);
    }
  }
  gv::theta(1) = 10.0;
  gv::theta(2) = 20.0;
  gv::newsub(subject) = 6;
  gv::newsub(subject + 1) = 6 + observations;
  gv::accratio = 0.5;
  gv::impsampdof = 0;
  gv::iflagmcpem = 0;
  host.objective = [this](int, const double* eta) {
    gv::zscoresub = 1.0 + eta[0];
    return objective(eta);
  };
  start_sobol(n);
}

double estep_problem::objective(const double* eta) const {
  constexpr double ln_two_pi = 1.8378770664093454836;
  double z[3];
  double f = -loglik;
  for (int i = 1; i <= n_; ++i) {
    double rest = eta[i - 1] - mean_(i);
    for (int j = 1; j < i; ++j) rest -= factor_(i, j) * z[j - 1];
    z[i - 1] = rest / factor_(i, i);
    f += 0.5 * z[i - 1] * z[i - 1] + std::log(factor_(i, i)) + 0.5 * ln_two_pi;
  }
  return f;
}

double estep_problem::covariance(int i, int k) const {
  double sum = 0.0;
  for (int j = 1; j <= n_; ++j) sum += factor_(i, j) * factor_(k, j);
  return sum;
}

estep_results::estep_results(int n, int count)
    : leneta(n),
      samples(static_cast<std::size_t>(n * count), -1.0),
      weights(static_cast<std::size_t>(count), -1.0) {}

estep_results run_estep(int samples) {
  estep_results results(gv::leneta, samples);
  std::fill(gv::xmusubnew.begin(), gv::xmusubnew.end(), -1.0);
  double* const covariance = gv::omegasubnew.data();
  std::fill_n(covariance, gv::leneta * gv::leneta, -1.0);
  gv::wtsumzscore = results.wtsumzscore;
  statsubs::fgintegrate(estep_problem::subject, samples, results.samples.data(),
                        results.weights.data(), results.loglik);
  results.wtsumzscore = gv::wtsumzscore;
  results.mean.assign(gv::xmusubnew.begin(), gv::xmusubnew.end());
  results.covariance.assign(covariance, covariance + gv::leneta * gv::leneta);
  return results;
}

void start_sobol(int dimensions, int scramble) {
  bool ok[2];
  int quality;
  std::vector<double> origin(static_cast<std::size_t>(dimensions));
  statsubs::poly_vinit_define();
  statsubs::insobl(ok, dimensions, (1 << 30) - 1, quality, origin.data(), 30, scramble);
  ASSERT_TRUE(ok[0] && ok[1]);
}

}  // namespace test
