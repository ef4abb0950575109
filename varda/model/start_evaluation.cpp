// SPDX-License-Identifier: Apache-2.0
#include "varda/model/start_evaluation.h"

#include <fmt/format.h>

#include "varda/model/density.h"

namespace varda {

start_evaluation evaluate_start(const population_model& model, int subject) {
  const varda::subject& who = model.data().subjects[static_cast<std::size_t>(subject)];
  const Eigen::VectorXd theta = model.start_theta();
  Eigen::VectorXd mu(model.random_effects());
  model.means(subject, theta.data(), mu.data());
  const density joint(model);
  density_workspace scratch(model);
  Eigen::MatrixXd f;
  joint.predict(subject, theta.data(), mu, f, scratch);

  start_evaluation result;
  const int k = model.observed().first_failure(who, f.data(), theta.data());
  if (k < 0) {
    Eigen::VectorXd objective;
    Eigen::VectorXd squares;
    joint.of_data(subject, theta.data(), f, objective, squares);
    result.minus2_log_density = 2.0 * objective(0);
    return result;
  }
  const observation& failed = who.observations[static_cast<std::size_t>(k)];
  const double prediction = f(0, k);
  const std::string why = scratch.last_failure(model);
  if (!model.observed().is_normal(failed)) {
    result.failure =
        finding{.code = "E-RUN-START",
                .message = fmt::format(
                    "the model cannot be evaluated at the start values: the "
                    "log-likelihood of the value {} of {} is {}{}{}",
                    failed.value,
                    model.specification().endpoints[static_cast<std::size_t>(failed.endpoint)].name,
                    prediction, why.empty() ? "" : "; ", why),
                .remedy =
                    "change the start values so that the formulas of the endpoint stay in their "
                    "domain: means and hazards above 0, probabilities between 0 and 1, thresholds "
                    "that ascend",
                .file = model.data().file,
                .row = failed.row,
                .subject = who.id};
    return result;
  }
  const bool by_value = prediction > 0.0 && !(failed.value > 0.0);
  result.failure = finding{
      .code = "E-RUN-START",
      .message = fmt::format("the model cannot be evaluated at the start values: {}prediction {}, "
                             "residual deviation {}{}{}",
                             by_value ? fmt::format("value {}, ", failed.value) : "", prediction,
                             model.observed().deviation(failed, prediction, theta.data()),
                             why.empty() ? "" : "; ", why),
      .remedy =
          "a proportional error needs predictions other than 0 (leave such records out or add "
          "an additive error), a log-normal or Box-Cox one predictions and values above 0; "
          "otherwise "
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
