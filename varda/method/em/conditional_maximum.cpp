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

conditional_maximum::conditional_maximum(engine_host& host,
                                         const std::vector<resampled_points>& drawn,
                                         const Eigen::VectorXd& theta,
                                         const std::vector<int>& positions)
    : host_(host),
      scratch_(host),
      positions_(positions),
      drawn_(drawn),
      predictions_(drawn.size()),
      predicted_at_(theta) {
  for (const int position : positions_)
    if (host.model().thetas()[static_cast<std::size_t>(position)].moves_predictions())
      moving_.push_back(position);
}

bool conditional_maximum::predictions_hold(const Eigen::VectorXd& theta) const {
  return std::all_of(moving_.begin(), moving_.end(),
                     [&](int position) { return theta(position) == predicted_at_(position); });
}

double conditional_maximum::objective(const Eigen::VectorXd& theta) {
  const bool hold = predictions_hold(theta);
  Eigen::MatrixXd by_subject = Eigen::MatrixXd::Zero(1, host_.model().subjects());
  const int points = host_.model().specification().estimation.resamples;
  for_each_own_subject(host_, points, [&](int i, int worker) {
    const auto at = static_cast<std::size_t>(i);
    Eigen::MatrixXd& predictions = predictions_[at];
    if (!hold || predictions.size() == 0)
      host_.joint().predict(i, theta.data(), drawn_[at].phi, predictions,
                            scratch_[worker].densities);
    Eigen::VectorXd values;
    Eigen::VectorXd squares;
    host_.joint().of_data(i, theta.data(), predictions, values, squares);
    const Eigen::VectorXd& weights = drawn_[at].weights;
    double sum = 0.0;
    for (Eigen::Index point = 0; point < weights.size(); ++point)
      sum += weights(point) * values(point);
    by_subject(0, i) = sum;
  });
  predicted_at_ = theta;
  engine_host::share(by_subject);
  double total = 0.0;
  for (const double value : by_subject.reshaped()) total += value;
  return total;
}

std::vector<int> conditional_maximum::move(Eigen::VectorXd& theta) {
  const theta_search search(host_.model(), theta, positions_);
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
