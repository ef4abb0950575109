// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/e_step.h"

namespace varda {

namespace {

void without_observations(const engine_host& host, subject_integral& result) {
  result = {};
  result.mean = Eigen::VectorXd::Zero(host.omega().rows());
  result.covariance = host.omega();
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
    if (!integrate(host, i, from.of(i), pass, drawn, found)) return;
    if (visit) visit(i, drawn);
    result.log_likelihood += found.log_likelihood;
  }
  result.complete = true;
}

}  // namespace varda
