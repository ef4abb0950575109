// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/conditional_maximum.h"

#include <algorithm>

#include "varda/method/em/theta_search.h"

namespace varda {

namespace {

constexpr double first_step = 0.05;
// An inexact maximum makes the EM map jump; this is far below any tolerance on the estimates.
constexpr double search_precision = 1e-7;
// Differences for a Newton step, and the longest one that is taken.
constexpr double newton_difference = 1e-3;
constexpr double newton_reach = 0.2;

}  // namespace

conditional_maximum::conditional_maximum(const population_model& model, const e_step& found,
                                         const Eigen::VectorXd& theta,
                                         const std::vector<int>& positions)
    : model_(model), positions_(positions), found_(found) {
  for (const int position : positions_)
    if (model.thetas()[static_cast<std::size_t>(position)].moves_predictions())
      moving_.push_back(position);
  for (int i = 0; i < model.subjects(); ++i) {
    const auto& drawn = found.subjects[static_cast<std::size_t>(i)].resampled;
    predictions_.emplace_back(model.observations(i), drawn.phi.cols());
  }
  predict(theta);
}

void conditional_maximum::predict(const Eigen::VectorXd& theta) {
  for (int i = 0; i < model_.subjects(); ++i) {
    const auto at = static_cast<std::size_t>(i);
    const Eigen::MatrixXd& phi = found_.subjects[at].resampled.phi;
    Eigen::VectorXd p(model_.structural_parameters() * model_.parameter_sets(i));
    for (Eigen::Index point = 0; point < phi.cols(); ++point) {
      model_.individual_parameters(i, theta.data(), phi.col(point).data(), p.data());
      model_.predict(i, p.data(), predictions_[at].col(point).data());
    }
  }
  predicted_at_ = theta;
}

bool conditional_maximum::predictions_hold(const Eigen::VectorXd& theta) const {
  return std::all_of(moving_.begin(), moving_.end(),
                     [&](int position) { return theta(position) == predicted_at_(position); });
}

double conditional_maximum::objective(const Eigen::VectorXd& theta) {
  if (!predictions_hold(theta)) predict(theta);
  double total = 0.0;
  for (int i = 0; i < model_.subjects(); ++i) {
    const auto at = static_cast<std::size_t>(i);
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
  const auto value = [&](const Eigen::VectorXd& x) { return objective(search.theta_at(x)); };
  if (!moving_.empty())
    if (const auto step = search.newton_step(value, newton_difference, newton_reach)) {
      theta = search.theta_at(step->x);
      return {};
    }
  const minimum best = search.minimise(value, first_step, search_precision);
  theta = search.theta_at(best.x);
  return search.at_bounds(best.x);
}

}  // namespace varda
