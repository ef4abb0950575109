// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/conditional_maximum.h"

#include "varda/fit/theta_search.h"

namespace varda {

namespace {

constexpr double first_step = 0.05;
// An inexact maximum makes the EM map jump; this is far below any tolerance on the estimates.
constexpr double search_precision = 1e-7;

}  // namespace

conditional_maximum::conditional_maximum(const population_model& model, const e_step& found,
                                         const Eigen::VectorXd& theta,
                                         const std::vector<int>& positions)
    : model_(model), positions_(positions), found_(found) {
  for (const int position : positions_)
    predictions_move_ =
        predictions_move_ || model.thetas()[static_cast<std::size_t>(position)].moves_predictions();
  for (int i = 0; i < model.subjects(); ++i) {
    const auto& drawn = found.subjects[static_cast<std::size_t>(i)].resampled;
    predictions_.emplace_back(model.observations(i), drawn.phi.cols());
    predict(i, theta);
  }
}

void conditional_maximum::predict(int subject, const Eigen::VectorXd& theta) {
  const auto i = static_cast<std::size_t>(subject);
  const Eigen::MatrixXd& phi = found_.subjects[i].resampled.phi;
  Eigen::VectorXd p(model_.structural_parameters() * model_.parameter_sets(subject));
  for (Eigen::Index point = 0; point < phi.cols(); ++point) {
    model_.individual_parameters(subject, theta.data(), phi.col(point).data(), p.data());
    model_.predict(subject, p.data(), predictions_[i].col(point).data());
  }
}

double conditional_maximum::objective(const Eigen::VectorXd& theta) {
  double total = 0.0;
  for (int i = 0; i < model_.subjects(); ++i) {
    const auto at = static_cast<std::size_t>(i);
    if (predictions_move_) predict(i, theta);
    const Eigen::VectorXd& weights = found_.subjects[at].resampled.weights;
    for (Eigen::Index point = 0; point < weights.size(); ++point) {
      double squares = 0.0;
      total += weights(point) * model_.residual_objective(i, predictions_[at].col(point).data(),
                                                          theta.data(), squares);
    }
  }
  return total;
}

std::vector<int> conditional_maximum::move(Eigen::VectorXd& theta) {
  const theta_search search(model_, theta, positions_);
  const minimum best =
      search.minimise([&](const Eigen::VectorXd& x) { return objective(search.theta_at(x)); },
                      first_step, search_precision);
  theta = search.theta_at(best.x);
  return search.at_bounds(best.x);
}

}  // namespace varda
