// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/e_step.h"

#include "varda/host/subjects.h"

namespace varda {

namespace {

void without_observations(const engine_host& host, subject_integral& result) {
  result = {};
  result.mean = Eigen::VectorXd::Zero(host.omega().rows());
  result.covariance = host.omega();
}

// What a process knows of its own subjects, for the others.
bool share(const engine_host& host, std::vector<subject_integral>& subjects) {
  const int effects = host.model().random_effects();
  const Eigen::Index squares = Eigen::Index{effects} * effects;
  Eigen::MatrixXd packed(4 + effects + squares, host.model().subjects());
  for (const int i : own_subjects(host)) {
    const subject_integral& s = subjects[static_cast<std::size_t>(i)];
    if (s.mean.size() != effects) continue;  // a stop came first
    packed.col(i) << s.log_likelihood, s.scaled_squares, s.effective_samples, s.largest_weight,
        s.mean, s.covariance.reshaped();
  }
  if (!engine_host::share(packed)) return false;
  for (int i = 0; i < host.model().subjects(); ++i) {
    if (host.model().observations(i) == 0 || owns(host, i)) continue;
    subject_integral& s = subjects[static_cast<std::size_t>(i)];
    s.log_likelihood = packed(0, i);
    s.scaled_squares = packed(1, i);
    s.effective_samples = packed(2, i);
    s.largest_weight = packed(3, i);
    s.mean = packed.col(i).segment(4, effects);
    s.covariance = packed.col(i).tail(squares).reshaped(effects, effects);
  }
  return true;
}

}  // namespace

void integrate_all(engine_host& host, const proposals& from, const point_pass& pass, int samples,
                   e_step& result, const sample_visitor& visit) {
  const population_model& model = host.model();
  weighted_samples drawn{Eigen::MatrixXd(model.random_effects(), samples),
                         Eigen::VectorXd(samples)};
  result.complete = false;
  result.log_likelihood = 0.0;
  result.subjects.resize(static_cast<std::size_t>(model.subjects()));
  for (int i = 0; i < model.subjects(); ++i) {
    subject_integral& found = result.subjects[static_cast<std::size_t>(i)];
    if (model.observations(i) == 0) {
      without_observations(host, found);
      continue;
    }
    if (!owns(host, i)) continue;
    if (!integrate(host, i, from.of(i), pass, drawn, found)) break;
    if (visit) visit(i, drawn);
  }
  const bool alone = host.peers().size() == 1;
  result.complete = alone ? !engine_host::stopped() : share(host, result.subjects);
  if (!result.complete) return;
  for (const subject_integral& found : result.subjects)
    result.log_likelihood += found.log_likelihood;
}

}  // namespace varda
