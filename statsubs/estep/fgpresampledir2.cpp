// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/fgpresampledir2.h"

#include <algorithm>
#include <cmath>

#include "statsubs/estep/importance_weights.h"
#include "statsubs/estep/proposal_family.h"
#include "statsubs/estep/proposals.h"
#include "statsubs/estep/sample_evaluation.h"
#include "statsubs/estep/sample_points.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/support/array.h"
#include "statsubs/support/lapack.h"
#include "statsubs/support/lower_triangle.h"
#include "statsubs/support/parallel.h"
#include "statsubs/support/restored.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
namespace se = statsubs::saveearlyvars;

namespace {

constexpr int normal_code = 0;  // of the setting impsampdof
constexpr double enough_per_effect = 5.0;
constexpr double share_of_a_singular_one = 0.5;
constexpr double least_width = 1e-6;  // in units of the population's standard deviations

// All samples of the subject, and -2 ln of the population density at each.
void draw_from_population(matrix_view<double> samples, vector_view<double> minus_two_log_density) {
  const int n = samples.rows();
  const vector<double> zero("the population's centre", n);
  const proposal population(normal_code, gv::omegalchol, {1.0, 1.0, 1.0});
  matrix<double> points("the sample points", n, samples.columns());
  draw_uniforms(population.family(), gv::iflagmcpem, points);
  population.standardise(points, minus_two_log_density);
  for (int j = 1; j <= samples.columns(); ++j)
    simmn(n, zero.data(), gv::omegalchol.data(), gv::omegalchol.leading(), points.column(j).data(),
          samples.column(j).data());
}

double effective_samples(vector_view<const double> weights) {
  return 1.0 / weighted_sum(weights, weights);
}

// covariance = share covariance + (1 - share) omega
void blend(matrix_view<double> covariance, double share, matrix_view<const double> omega) {
  for (int j = 1; j <= covariance.columns(); ++j)
    for (int i = 1; i <= covariance.rows(); ++i)
      covariance(i, j) = share * covariance(i, j) + (1.0 - share) * omega(i, j);
}

// The Cholesky factor of the covariance into the lower triangle of `factor`. False when there is
// none, or one whose pivots owe their sign to rounding: as many effective samples of the population
// as it takes to get here do not fit into a millionth of its width.
bool factorise(matrix_view<const double> covariance, matrix_view<const double> omega,
               matrix_view<double> factor) {
  support::copy_lower(covariance, factor);
  if (support::dpotrf(factor.rows(), factor.data(), factor.leading()) != 0) return false;
  for (int i = 1; i <= factor.rows(); ++i)
    if (factor(i, i) <= least_width * std::sqrt(omega(i, i))) return false;
  return true;
}

// Makes the samples' covariance fit to propose with and returns 1 when that took some of omega.
int settle(matrix_view<double> covariance, double effective, matrix_view<const double> omega,
           matrix_view<const double> omega_factor, matrix_view<double> factor) {
  const double share = effective / (enough_per_effect * omega.rows());
  const bool enough = share >= 1.0;
  if (enough && factorise(covariance, omega, factor)) return 0;
  blend(covariance, enough ? share_of_a_singular_one : share, omega);
  if (!factorise(covariance, omega, factor)) support::copy_lower(omega_factor, factor);
  return 1;
}

}  // namespace

void fgpresampledir2(const int& isub, double& loglik, int& info) {
  if (gv::npresample <= 1) return;
  const int n = gv::leneta;
  const int count = gv::npresample;
  host::setisub(isub);
  const support::restored keeper(gv::theta);
  gv::izub = isub;

  matrix<double> samples("samples of the population", n, count);
  vector<double> minus_two_log_density("the population densities", count);
  draw_from_population(samples, minus_two_log_density);

  vector<double> log_likelihood("the log-likelihoods of the samples", count);
  vector<double> score("the scores of the samples", count);
  const sample_share own = {gv::myid, gv::numprocs};
  int answer = 0;
  evaluate_own_samples(samples, own, gv::theta, gv::zscoresub, log_likelihood, score, answer);
  host::checkforstop(answer);
  if (se::globalstop != 0) return;
  support::allreduce_sum(log_likelihood, gv::numprocs);
  support::allreduce_sum(score, gv::numprocs);

  vector<double> weights("the weights of the samples", count);
  loglik = normalise_weights(log_likelihood, minus_two_log_density, weights);
  gv::wtsumzscore = weighted_sum(weights, score) / (gv::newsub(isub + 1) - gv::newsub(isub));
  discretestat(count, n, samples.data(), n, weights.data(), gv::xmusubnew.data(),
               gv::omegasubnew.data(), gv::omegasubnew.leading());
  std::copy(gv::xmusubnew.begin(), gv::xmusubnew.end(), gv::etatable.column(isub).begin());
  const matrix_view<double> covariance(gv::omegasubnew.data(), n, n, gv::omegasubnew.leading());
  info = settle(covariance, effective_samples(weights), gv::omega, gv::omegalchol,
                qv::choleskyfactor.slice(isub));
}

}  // namespace statsubs
