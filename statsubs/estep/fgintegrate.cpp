// SPDX-License-Identifier: Apache-2.0
//
// Importance sampling with scrambled Sobol points in the E-step of a parametric EM. What needs the
// host, the processes or shared state is here; proposal_family.h and importance_weights.h have the
// arithmetic.
#include "statsubs/estep/fgintegrate.h"

#include <algorithm>
#include <cassert>

#include "statsubs/estep/importance_weights.h"
#include "statsubs/estep/proposal_family.h"
#include "statsubs/estep/proposals.h"
#include "statsubs/sequences/bdsobl.h"
#include "statsubs/sequences/sobol.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/support/array.h"
#include "statsubs/support/lapack.h"
#include "statsubs/support/parallel.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace bd = statsubs::bdsobl;
namespace se = statsubs::saveearlyvars;

namespace {

constexpr double failed_objective = 1e50;
constexpr double failed_score = 1.0;

// Keeps theta and puts it back on every way out.
class theta_keeper {
 public:
  theta_keeper() : saved_("saved theta", gv::ntheta) {
    support::dcopy(saved_.size(), gv::theta.data(), saved_.data());
  }
  ~theta_keeper() { support::dcopy(saved_.size(), saved_.data(), gv::theta.data()); }
  theta_keeper(const theta_keeper&) = delete;
  theta_keeper& operator=(const theta_keeper&) = delete;

 private:
  vector<double> saved_;
};

// Keeps quantiles finite and the proposals' tails within 4.75 standard deviations. What is not a
// number becomes the lower limit.
double clamped(double u) {
  return std::min(std::max(1e-6, u), 0.999999);
}

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

void draw_sobol(matrix_view<double> uniforms) {
  assert(bd::s == uniforms.rows());
  for (int j = 1; j <= uniforms.columns(); ++j) {
    const vector_view<double> point = uniforms.column(j);
    gosobl(point.data());
    for (double& u : point) u = clamped(u);
  }
}

void draw_pseudo_random(matrix_view<double> uniforms) {
  int state = 1;
  for (int j = 1; j <= uniforms.columns(); ++j)
    for (double& u : uniforms.column(j)) u = clamped(host::dran3(state));
}

// Makes the last row sweep the unit interval evenly.
void stratify_last_row(matrix_view<double> uniforms) {
  const int samples = uniforms.columns();
  for (int j = 1; j <= samples; ++j)
    uniforms(uniforms.rows(), j) = (2.0 * j - 1.0) / (2.0 * samples);
}

// Uniform numbers, a column per sample. The t takes pseudo-random ones always: where its last row
// is stratified, the numbers that stood there have been drawn all the same.
void draw_uniforms(proposal_family family, matrix_view<double> uniforms) {
  const bool is_t = family == proposal_family::student_t;
  if (gv::iflagmcpem != 1 && !is_t) return draw_sobol(uniforms);
  draw_pseudo_random(uniforms);
  if (is_t && gv::iflagmcpem == 0) stratify_last_row(uniforms);
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
  draw_uniforms(q.family(), points);
  q.standardise(points, minus_two_log_density);
  for (int j = 1; j <= samples.columns(); ++j)
    simmn(n, gv::xmusub.data(), factor.data(), factor.leading(), points.column(j).data(),
          samples.column(j).data());
}

struct evaluation {
  double log_likelihood;
  double score;
};

// The evaluation just made, whose objective is f; a failed one resets the shared score as well.
evaluation recorded(double f) {
  if (host::isgoodr8(f) != 1) {
    f = failed_objective;
    gv::zscoresub = failed_score;
  }
  if (host::isgoodr8(-f) != 1) return {-failed_objective, failed_score};
  return {-f, gv::zscoresub};
}

// Evaluates the samples that belong to this process and leaves the others' entries alone. `answer`
// becomes the host's last answer to the question for a stop.
void evaluate_own_samples(matrix_view<const double> samples, vector_view<double> log_likelihood,
                          vector_view<double> score, int& answer) {
  assert(gv::numprocs >= 1);
  const int first = gv::myid == 0 ? gv::numprocs : gv::myid;
  for (int j = first; j <= samples.columns(); j += gv::numprocs) {
    const double* eta = samples.column(j).data();
    double f = 0.0;
    host::seteta(eta);
    host::settheta(gv::theta.data());
    host::fcnxeta(gv::leneta, eta, f);
    answer = host::stoprequested();
    if (answer != 0) return;
    const evaluation outcome = recorded(f);
    log_likelihood(j) = outcome.log_likelihood;
    score(j) = outcome.score;
  }
}

}  // namespace

void fgintegrate(const int& isub, const int& nsamp, double* dsample2, double* wtcond2,
                 double& loglik) {
  host::setisub(isub);
  const theta_keeper keeper;
  gv::izub = isub;
  int answer = evaluate_at_mean();
  if (run_is_stopped(answer)) return;

  const matrix_view<double> samples(dsample2, gv::leneta, nsamp);
  vector<double> minus_two_log_density("the proposal densities", nsamp);
  draw_samples(samples, minus_two_log_density);

  vector<double> log_likelihood("the log-likelihoods of the samples", nsamp);
  vector<double> score("the scores of the samples", nsamp);
  evaluate_own_samples(samples, log_likelihood, score, answer);
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
