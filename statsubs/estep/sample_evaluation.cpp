// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/sample_evaluation.h"

#include <cassert>

#include "statsubs/state/evaluation_block.h"
#include "statsubs/state/host.h"

namespace statsubs {

namespace {

constexpr double failed_objective = 1e50;
constexpr double failed_score = 1.0;

struct evaluation {
  double log_likelihood;
  double score;
};

// The evaluation just made, whose objective is f; a failed one resets the shared score as well.
evaluation recorded(const host_table& engine, double f, double& zscoresub) {
  if (engine.isgoodr8(f) != 1) {
    f = failed_objective;
    zscoresub = failed_score;
  }
  if (engine.isgoodr8(-f) != 1) return {-failed_objective, failed_score};
  return {-f, zscoresub};
}

int first_own(const sample_share& own) {
  return own.myid == 0 ? own.numprocs : own.myid;
}

void evaluate_one_by_one(const host_table& engine, matrix_view<const double> samples,
                         const sample_share& own, vector_view<const double> theta,
                         double& zscoresub, vector_view<double> log_likelihood,
                         vector_view<double> score, int& answer) {
  for (int j = first_own(own); j <= samples.columns(); j += own.numprocs) {
    const double* eta = samples.column(j).data();
    double f = not_evaluated;
    engine.seteta(eta);
    engine.settheta(theta.data());
    engine.fcnxeta(samples.rows(), eta, f);
    answer = engine.stoprequested();
    if (answer != 0) return;
    const evaluation outcome = recorded(engine, f, zscoresub);
    log_likelihood(j) = outcome.log_likelihood;
    score(j) = outcome.score;
  }
}

void evaluate_in_blocks(const host_table& engine, matrix_view<const double> samples,
                        const sample_share& own, double& zscoresub,
                        vector_view<double> log_likelihood, vector_view<double> score,
                        int& answer) {
  evaluation_block block(engine, samples.rows());
  for (int j = first_own(own); j <= samples.columns(); j += own.numprocs) {
    block.add(j, samples.column(j).data());
    if (!block.full() && j <= samples.columns() - own.numprocs) continue;
    block.evaluate();
    answer = engine.stoprequested();
    if (answer != 0) return;
    for (int i = 1; i <= block.size(); ++i) {
      zscoresub = block.score(i);
      const evaluation outcome = recorded(engine, block.objective(i), zscoresub);
      log_likelihood(block.number(i)) = outcome.log_likelihood;
      score(block.number(i)) = outcome.score;
    }
    block.clear();
  }
}

}  // namespace

void evaluate_own_samples(matrix_view<const double> samples, const sample_share& own,
                          vector_view<const double> theta, double& zscoresub,
                          vector_view<double> log_likelihood, vector_view<double> score,
                          int& answer) {
  assert(own.numprocs >= 1);
  // Looked up once: six calls a sample, which may be all that a cheap model costs.
  const host_table& engine = installed_host();
  if (engine.fcnxetas != nullptr)
    evaluate_in_blocks(engine, samples, own, zscoresub, log_likelihood, score, answer);
  else
    evaluate_one_by_one(engine, samples, own, theta, zscoresub, log_likelihood, score, answer);
}

}  // namespace statsubs
