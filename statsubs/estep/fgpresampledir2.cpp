// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/fgpresampledir2.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "statsubs/estep/importance_weights.h"
#include "statsubs/estep/proposals.h"
#include "statsubs/estep/sample_evaluation.h"
#include "statsubs/estep/sample_points.h"
#include "statsubs/state/entry_check.h"
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

// Of the argument info, beside 0 and 1.
enum : int { switched_off = 2, stopped = 3 };
constexpr double enough_per_effect = 5.0;
constexpr double share_of_a_singular_one = 0.5;
constexpr double least_width = 1e-6;  // in units of the population's standard deviations

void without_result(int reason, double& loglik, int& info) {
  loglik = std::numeric_limits<double>::quiet_NaN();
  info = reason;
}

// A function of its own in profiles: bench/entry_checks.py.
[[gnu::noinline]] void check_entry(int isub) {
  const entry_check check("fgpresampledir2");
  const int n = gv::leneta;
  check.at_least("leneta", n, 0);
  check.subject(isub);
  check.share();
  check.holds("theta", gv::theta, gv::ntheta);
  check.holds("newsub", gv::newsub, isub + 1);
  check.holds("omega", gv::omega, n, n);
  check.holds("omegalchol", gv::omegalchol, n, n);
  check.holds("xmusubnew", gv::xmusubnew, n);
  check.holds("omegasubnew", gv::omegasubnew, n, n);
  check.holds("etatable", gv::etatable, n, isub);
  check.holds("choleskyfactor", qv::choleskyfactor, n, n, isub);
  check_sequence(check, {gv::impsampdof, gv::iflagmcpem, gv::accratio}, n);
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
  const sole_entry alone("fgpresampledir2");
  if (gv::npresample <= 1) return without_result(switched_off, loglik, info);
  check_entry(isub);
  const int n = gv::leneta;
  const int count = gv::npresample;
  host::setisub(isub);
  const support::restored keeper(gv::theta);
  gv::izub = isub;

  matrix<double> samples("samples of the population", n, count);
  vector<double> minus_two_log_density("the population densities", count);
  const vector<double> centre("the population's centre", n);
  const matrix_view<const double> population = gv::omegalchol.corner(n, n);
  draw_samples({gv::impsampdof, gv::iflagmcpem, gv::accratio}, centre, population, samples,
               minus_two_log_density);

  vector<double> log_likelihood("the log-likelihoods of the samples", count);
  vector<double> score("the scores of the samples", count);
  const sample_share own = {gv::myid, gv::numprocs};
  int answer = 0;
  evaluate_own_samples(samples, own, gv::theta, gv::zscoresub, log_likelihood, score, answer);
  host::checkforstop(answer);
  if (se::globalstop != 0) return without_result(stopped, loglik, info);
  support::allreduce_sum(log_likelihood, gv::numprocs);
  support::allreduce_sum(score, gv::numprocs);

  vector<double> weights("the weights of the samples", count);
  loglik = normalise_weights(log_likelihood, minus_two_log_density, weights);
  gv::wtsumzscore = weighted_sum(weights, score) / (gv::newsub(isub + 1) - gv::newsub(isub));
  discretestat(count, n, samples.data(), n, weights.data(), gv::xmusubnew.data(),
               gv::omegasubnew.data(), gv::omegasubnew.leading());
  std::copy_n(gv::xmusubnew.begin(), n, gv::etatable.column(isub).begin());
  info = settle(gv::omegasubnew.corner(n, n), effective_samples(weights), gv::omega.corner(n, n),
                population, qv::choleskyfactor.slice(isub).corner(n, n));
}

}  // namespace statsubs
