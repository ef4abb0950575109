// SPDX-License-Identifier: Apache-2.0
#include "varda/run/diagnose.h"

#include "varda/diagnostics/natural_scale.h"
#include "varda/diagnostics/npde.h"
#include "varda/support/stop.h"

namespace varda {

namespace {

// Whether any process was asked to stop; all of them know then.
bool must_stop(const job& peers) {
  const bool asked = peers.any(stop_requested());
  if (asked) request_stop();
  return asked;
}

}  // namespace

bool diagnose(const population_model& model, const job& peers, const progress_listener& progress,
              fit_result& result) {
  result.natural_theta = natural_theta(model, result.theta);
  const int observations = normal_observations(model);
  for (const iteration_record& r : result.iterations)
    result.natural_iterations.push_back(
        {without_constant(r.minus2ll, observations), natural_theta(model, r.theta)});
  result.natural_covariance = natural_covariance(result.errors);
  result.objective = objective_figures_of(model, result.likelihood, result.quadrature);
  result.effects = random_effect_figures_of(model, result.omega, result.likelihood);
  result.sampler = sampler_health_of(model, result.likelihood, result.health);
  if (must_stop(peers)) return false;
  if (!result.likelihood.complete) return true;
  result.predictions.resize(static_cast<std::size_t>(model.subjects()));
  peers.threads().for_each(model.subjects(), [&](int i, int) {
    const auto at = static_cast<std::size_t>(i);
    result.predictions[at] =
        predictions_of(model, i, result.theta, result.likelihood.subjects[at].mean);
  });
  if (must_stop(peers)) {
    result.predictions.clear();
    return false;
  }
  std::vector<Eigen::VectorXd> errors = npde(model, result.theta, result.omega, peers, progress);
  if (must_stop(peers)) return false;
  result.npde = std::move(errors);
  return true;
}

}  // namespace varda
