// SPDX-License-Identifier: Apache-2.0
#include "varda/run/diagnose.h"

#include <utility>
#include <vector>

#include "varda/diagnostics/natural_scale.h"
#include "varda/diagnostics/npde.h"
#include "varda/run/memory_needs.h"
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
  result.sampler =
      sampler_health_of(model, result.likelihood, result.health, result.likelihood_samples);
  if (must_stop(peers)) return false;
  if (!result.likelihood.complete) return true;
  const bool predicted =
      within_memory(peers, "the predictions and residuals are", bytes_of_predictions(model),
                    result.warnings, [&] {
                      result.predictions.resize(static_cast<std::size_t>(model.subjects()));
                      peers.threads().for_each(model.subjects(), [&](int i, int) {
                        const auto at = static_cast<std::size_t>(i);
                        result.predictions[at] = predictions_of(
                            model, i, result.theta, result.likelihood.subjects[at].mean);
                      });
                    });
  const bool stopped = must_stop(peers);
  if (stopped || !predicted) result.predictions = {};
  if (stopped) return false;
  // They are shown beside the predictions.
  if (!predicted) return true;
  std::vector<Eigen::VectorXd> errors;
  const bool simulated = within_memory(
      peers, "the NPDE are", bytes_of_npde(model, peers.threads().size()), result.warnings,
      [&] { errors = npde(model, result.theta, result.omega, peers, progress); });
  if (must_stop(peers)) return false;
  if (simulated) result.npde = std::move(errors);
  return true;
}

}  // namespace varda
