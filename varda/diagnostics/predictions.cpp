// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/predictions.h"

#include <limits>

namespace varda {

void evaluate_model(const population_model& model, int subject, const Eigen::VectorXd& theta,
                    const Eigen::VectorXd& phi, model_evaluation& result) {
  result.parameters.resize(model.structural_parameters(), model.parameter_sets(subject));
  result.predictions.resize(model.observations(subject));
  model.individual_parameters(subject, theta.data(), phi.data(), result.parameters.data());
  model.predict(subject, result.parameters.data(), result.predictions.data());
}

subject_predictions predictions_of(const population_model& model, int subject,
                                   const Eigen::VectorXd& theta, const Eigen::VectorXd& eta) {
  subject_predictions result;
  Eigen::VectorXd mu(model.random_effects());
  model.means(subject, theta.data(), mu.data());
  result.phi = mu + eta;
  const Eigen::Index n = model.observations(subject);
  if (n == 0) return result;

  model_evaluation at;
  evaluate_model(model, subject, theta, mu, at);
  result.population = at.predictions;
  evaluate_model(model, subject, theta, result.phi, at);
  result.individual = at.predictions;
  result.residuals.setConstant(n, std::numeric_limits<double>::quiet_NaN());
  result.weighted_residuals = result.residuals;
  result.parameters.resize(at.parameters.rows(), n);
  const auto& observed = model.data().subjects[static_cast<std::size_t>(subject)].observations;
  for (Eigen::Index j = 0; j < n; ++j) {
    const observation& one = observed[static_cast<std::size_t>(j)];
    result.parameters.col(j) = at.parameters.col(at.parameters.cols() == 1 ? 0 : one.segment);
    if (one.censored != censoring::none) continue;
    result.residuals(j) = one.value - result.population(j);
    result.weighted_residuals(j) =
        model.residual().scaled_residual(one, result.individual(j), theta.data());
  }
  return result;
}

}  // namespace varda
