// SPDX-License-Identifier: Apache-2.0
#include "varda/model/start_evaluation.h"

#include <fmt/format.h>

#include <vector>

namespace varda {

start_evaluation evaluate_start(const population_model& model, int subject) {
  const varda::subject& who = model.data().subjects[static_cast<std::size_t>(subject)];
  const Eigen::VectorXd theta = model.start_theta();
  std::vector<double> mu(static_cast<std::size_t>(model.random_effects()));
  Eigen::MatrixXd p(model.structural_parameters(), model.parameter_sets(subject));
  std::vector<double> f(who.observations.size());
  model.means(subject, theta.data(), mu.data());
  model.individual_parameters(subject, theta.data(), mu.data(), p.data());
  model.predict(subject, p.data(), f.data());

  start_evaluation result;
  const int k = model.residual().first_failure(who, f.data(), theta.data());
  if (k < 0) {
    double scaled_squares = 0.0;
    result.minus2_log_density =
        2.0 * model.residual_objective(subject, f.data(), theta.data(), scaled_squares);
    return result;
  }
  const observation& failed = who.observations[static_cast<std::size_t>(k)];
  const double prediction = f[static_cast<std::size_t>(k)];
  const std::string why = model.structure().last_failure();
  result.failure = finding{
      .code = "E-RUN-START",
      .message =
          fmt::format("the model cannot be evaluated at the start values: prediction {}, "
                      "residual deviation {}{}{}",
                      prediction, model.residual().deviation(failed, prediction, theta.data()),
                      why.empty() ? "" : "; ", why),
      .remedy =
          "a proportional error needs predictions other than 0 (leave such records out or add "
          "an additive error), a log-normal one predictions and values above 0; otherwise "
          "change the start values",
      .file = model.data().file,
      .row = failed.row,
      .subject = who.id};
  return result;
}

void check_start(const population_model& model) {
  for (int i = 0; i < model.subjects(); ++i)
    if (const auto failure = evaluate_start(model, i).failure) throw bad_input(*failure);
}

}  // namespace varda
