// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/predictions.h"

#include <limits>

#include "varda/model/density.h"

namespace varda {

namespace {

// The individual parameters (a column for each set) and the predictions at one phi of a subject.
struct model_evaluation {
  model_evaluation(const population_model& model, int subject, const Eigen::VectorXd& theta,
                   const Eigen::VectorXd& phi) {
    density_workspace scratch(model);
    Eigen::MatrixXd f;
    density(model).expect(subject, theta.data(), phi, f, scratch);
    predictions = f.transpose();
    model.individual_parameters(subject, theta.data(), phi, parameters);
    parameters.resize(model.structural_parameters(), model.parameter_sets(subject));
  }
  Eigen::MatrixXd parameters;
  Eigen::VectorXd predictions;
};

}  // namespace

subject_predictions predictions_of(const population_model& model, int subject,
                                   const Eigen::VectorXd& theta, const Eigen::VectorXd& eta) {
  subject_predictions result;
  Eigen::VectorXd mu(model.random_effects());
  model.means(subject, theta.data(), mu.data());
  result.phi = mu + eta;
  const Eigen::Index n = model.observations(subject);
  if (n == 0) return result;

  result.population = model_evaluation(model, subject, theta, mu).predictions;
  const model_evaluation at(model, subject, theta, result.phi);
  result.individual = at.predictions;
  result.residuals.setConstant(n, std::numeric_limits<double>::quiet_NaN());
  result.weighted_residuals = result.residuals;
  result.parameters.resize(at.parameters.rows(), n);
  const auto& observed = model.data().subjects[static_cast<std::size_t>(subject)].observations;
  for (Eigen::Index j = 0; j < n; ++j) {
    const observation& one = observed[static_cast<std::size_t>(j)];
    result.parameters.col(j) = at.parameters.col(at.parameters.cols() == 1 ? 0 : one.segment);
    const bool no_event = one.censored == censoring::right && !model.observed().is_normal(one);
    if (one.censored != censoring::none && !no_event) continue;
    result.residuals(j) = one.value - result.population(j);
    if (!model.observed().is_normal(one)) continue;
    result.weighted_residuals(j) =
        model.observed().scaled_residual(one, result.individual(j), theta.data());
  }
  return result;
}

}  // namespace varda
