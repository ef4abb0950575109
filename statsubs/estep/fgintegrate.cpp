// SPDX-License-Identifier: Apache-2.0
//
// Importance sampling with scrambled Sobol points in the E-step of a parametric EM. What needs the
// host, the processes or shared state is here; the steps that presampling takes alike are in
// sample_points.h and sample_evaluation.h, the arithmetic in proposal_family.h and
// importance_weights.h.
#include "statsubs/estep/fgintegrate.h"

#include "statsubs/estep/importance_weights.h"
#include "statsubs/estep/proposals.h"
#include "statsubs/estep/sample_evaluation.h"
#include "statsubs/estep/sample_points.h"
#include "statsubs/state/entry_check.h"
#include "statsubs/state/evaluation_block.h"
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

// A function of its own in profiles: bench/entry_checks.py.
[[gnu::noinline]] void check_entry(int isub, int nsamp, const double* dsample2,
                                   const double* wtcond2) {
  const entry_check check("fgintegrate");
  const int n = gv::leneta;
  check.at_least("nsamp", nsamp, 1);
  check.at_least("leneta", n, 0);
  check.subject(isub);
  check.share();
  check.holds("theta", gv::theta, gv::ntheta);
  check.holds("newsub", gv::newsub, isub + 1);
  check.holds("xmusub", gv::xmusub, n);
  if (gv::impsampdof == 2)
    check.holds("omegalchol", gv::omegalchol, n, n);
  else
    check.holds("omegacholsub", gv::omegacholsub, n, n);
  check.holds("xmusubnew", gv::xmusubnew, n);
  check.holds("omegasubnew", gv::omegasubnew, n, n);
  check.given("dsample2", dsample2, n);
  check.given("wtcond2", wtcond2, nsamp);
  check_sequence(check, {gv::impsampdof, gv::iflagmcpem, gv::accratio}, n);
}

// Returns the host's answer to the question for a stop.
int evaluate_at_mean() {
  double unused = not_evaluated;
  host::seteta(gv::xmusub.data());
  host::fcnxeta(gv::leneta, gv::xmusub.data(), unused);
  return host::stoprequested();
}

matrix_view<const double> proposal_factor() {
  const int n = gv::leneta;
  return gv::impsampdof == 2 ? gv::omegalchol.corner(n, n) : gv::omegacholsub.corner(n, n);
}

}  // namespace

void fgintegrate(const int& isub, const int& nsamp, double* dsample2, double* wtcond2,
                 double& loglik) {
  const sole_entry alone("fgintegrate");
  check_entry(isub, nsamp, dsample2, wtcond2);
  host::setisub(isub);
  const support::restored keeper(gv::theta);
  gv::izub = isub;
  int answer = evaluate_at_mean();
  if (run_is_stopped(answer)) return;

  const matrix_view<double> samples(dsample2, gv::leneta, nsamp);
  vector<double> minus_two_log_density("the proposal densities", nsamp);
  draw_samples({gv::impsampdof, gv::iflagmcpem, gv::accratio}, gv::xmusub, proposal_factor(),
               samples, minus_two_log_density);

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
