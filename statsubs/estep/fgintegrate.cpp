// SPDX-License-Identifier: Apache-2.0
//
// Importance sampling with scrambled Sobol points in the E-step of a parametric EM. What needs the
// host, the processes or shared state is here; the steps that presampling takes alike are in
// sample_points.h and sample_evaluation.h, the arithmetic in proposal_family.h and
// importance_weights.h.
#include "statsubs/estep/fgintegrate.h"

#include "statsubs/estep/importance_weights.h"
#include "statsubs/estep/proposal_family.h"
#include "statsubs/estep/proposals.h"
#include "statsubs/estep/sample_evaluation.h"
#include "statsubs/estep/sample_points.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/support/array.h"
#include "statsubs/support/parallel.h"
#include "statsubs/support/restored.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace se = statsubs::saveearlyvars;

namespace {

bool run_is_stopped(int answer) {
  host::checkforstop(answer);
  return se::globalstop != 0;
}

// Returns the host's answer to the question for a stop.
int evaluate_at_mean() {
  double unused = 0.0;
  host::seteta(gv::xmusub.data());
  host::fcnxeta(gv::leneta, gv::xmusub.data(), unused);
  return host::stoprequested();
}

matrix_view<const double> proposal_factor() {
  return gv::impsampdof == 2 ? gv::omegalchol : gv::omegacholsub;
}

mixture_scales current_scales() {
  const double exponent = -1.0 / gv::leneta;
  return {gv::accratio, host::pow(gv::accratio, exponent), host::pow(0.5, exponent)};
}

// All samples of the subject, and -2 ln of the proposal density at each.
void draw_samples(matrix_view<double> samples, vector_view<double> minus_two_log_density) {
  const int n = samples.rows();
  const matrix_view<const double> factor = proposal_factor();
  const proposal q(gv::impsampdof, factor, current_scales());
  matrix<double> points("the sample points", q.uniforms_per_sample(), samples.columns());
  draw_uniforms(q.family(), gv::iflagmcpem, points);
  q.standardise(points, minus_two_log_density);
  for (int j = 1; j <= samples.columns(); ++j)
    simmn(n, gv::xmusub.data(), factor.data(), factor.leading(), points.column(j).data(),
          samples.column(j).data());
}

}  // namespace

void fgintegrate(const int& isub, const int& nsamp, double* dsample2, double* wtcond2,
                 double& loglik) {
  host::setisub(isub);
  const support::restored keeper(gv::theta);
  gv::izub = isub;
  int answer = evaluate_at_mean();
  if (run_is_stopped(answer)) return;

  const matrix_view<double> samples(dsample2, gv::leneta, nsamp);
  vector<double> minus_two_log_density("the proposal densities", nsamp);
  draw_samples(samples, minus_two_log_density);

  vector<double> log_likelihood("the log-likelihoods of the samples", nsamp);
  vector<double> score("the scores of the samples", nsamp);
  const sample_share own = {gv::myid, gv::numprocs};
  evaluate_own_samples(samples, own, gv::theta, gv::zscoresub, log_likelihood, score, answer);
  if (run_is_stopped(answer)) return;
  support::allreduce_sum(log_likelihood, gv::numprocs);
  support::allreduce_sum(score, gv::numprocs);

  const vector_view<double> weights(wtcond2, nsamp);
  loglik = normalise_weights(log_likelihood, minus_two_log_density, weights);
  const int observations = gv::newsub(gv::izub + 1) - gv::newsub(gv::izub);
  gv::wtsumzscore = weighted_sum(weights, score) / observations;
  discretestat(nsamp, gv::leneta, dsample2, gv::leneta, wtcond2, gv::xmusubnew.data(),
               gv::omegasubnew.data(), gv::omegasubnew.leading());
}

}  // namespace statsubs
