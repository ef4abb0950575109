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

conditional_maximum::conditional_maximum(const density& joint,
                                         const std::vector<resampled_points>& drawn,
                                         const Eigen::VectorXd& theta,
                                         const std::vector<int>& positions)
    : joint_(joint),
      scratch_(joint.model()),
      positions_(positions),
      drawn_(drawn),
      predictions_(drawn.size()) {
  for (const int position : positions_)
    if (joint.model().thetas()[static_cast<std::size_t>(position)].moves_predictions())
      moving_.push_back(position);
  predict(theta);
}

void conditional_maximum::predict(const Eigen::VectorXd& theta) {
  for (int i = 0; i < joint_.model().subjects(); ++i) {
    const auto at = static_cast<std::size_t>(i);
    joint_.predict(i, theta.data(), drawn_[at].phi, predictions_[at], scratch_);
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
  Eigen::VectorXd values;
  Eigen::VectorXd squares;
  for (int i = 0; i < joint_.model().subjects(); ++i) {
    const auto at = static_cast<std::size_t>(i);
    joint_.of_data(i, theta.data(), predictions_[at], values, squares);
    const Eigen::VectorXd& weights = drawn_[at].weights;
    for (Eigen::Index point = 0; point < weights.size(); ++point)
      total += weights(point) * values(point);
  }
  return total;
}

std::vector<int> conditional_maximum::move(Eigen::VectorXd& theta) {
  const theta_search search(joint_.model(), theta, positions_);
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
