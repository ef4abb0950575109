// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/conditional_maximum.h"

#include <algorithm>
#include <cmath>

#include "varda/fit/minimise.h"

namespace varda {

namespace {

constexpr double first_step = 0.05;
// An inexact maximum makes the EM map jump; this is far below any tolerance on the estimates.
constexpr double search_precision = 1e-7;

}  // namespace

conditional_maximum::conditional_maximum(const population_model& model, const e_step& found,
                                         const Eigen::VectorXd& theta,
                                         const std::vector<int>& positions)
    : model_(model), positions_(positions), trial_(theta) {
  for (std::size_t k = 0; k < positions_.size(); ++k)
    predictions_move_ = predictions_move_ || entry(k).role == theta_role::flat_parameter;
  for (int i = 0; i < model.subjects(); ++i) {
    const Eigen::MatrixXd& phi = found.subjects[static_cast<std::size_t>(i)].resampled.phi;
    weights_.push_back(found.subjects[static_cast<std::size_t>(i)].resampled.weights);
    individuals_.emplace_back(model.structural_parameters(), phi.cols());
    predictions_.emplace_back(model.observations(i), phi.cols());
    for (Eigen::Index point = 0; point < phi.cols(); ++point) {
      model.individual_parameters(theta.data(), phi.col(point).data(),
                                  individuals_.back().col(point).data());
      predict(i, point);
    }
  }
}

bool conditional_maximum::on_log_scale(std::size_t k) const {
  const fixed_effect& t = entry(k);
  const bool may_be_negative = std::isfinite(t.lower) && t.lower < 0.0;
  return t.role == theta_role::residual_deviation || (t.start > 0.0 && !may_be_negative);
}

double conditional_maximum::to_search(std::size_t k, double theta) const {
  return on_log_scale(k) ? std::log(std::max(theta, 0.0)) : theta;
}

double conditional_maximum::from_search(std::size_t k, double x) const {
  return on_log_scale(k) ? std::exp(x) : x;
}

void conditional_maximum::predict(int subject, Eigen::Index point) {
  const auto i = static_cast<std::size_t>(subject);
  const Eigen::MatrixXd& p = individuals_[i];
  Eigen::MatrixXd& f = predictions_[i];
  model_.structure().predict(model_.data().subjects[i],
                             {p.col(point).data(), static_cast<std::size_t>(p.rows())},
                             {f.col(point).data(), static_cast<std::size_t>(f.rows())});
}

double conditional_maximum::objective(const Eigen::VectorXd& x) {
  for (std::size_t k = 0; k < positions_.size(); ++k)
    trial_(positions_[k]) = from_search(k, x(static_cast<Eigen::Index>(k)));
  const residual_deviations sd = model_.deviations(trial_.data());
  double total = 0.0;
  for (int i = 0; i < model_.subjects(); ++i) {
    const Eigen::MatrixXd& f = predictions_[static_cast<std::size_t>(i)];
    const Eigen::VectorXd& weights = weights_[static_cast<std::size_t>(i)];
    for (Eigen::Index point = 0; point < f.cols(); ++point) {
      if (predictions_move_) {
        for (const int position : positions_)
          if (position < model_.structural_parameters())
            individuals_[static_cast<std::size_t>(i)](position, point) = trial_(position);
        predict(i, point);
      }
      double squares = 0.0;
      total += weights(point) * model_.residual_objective(i, f.col(point).data(), sd, squares);
    }
  }
  return total;
}

std::vector<int> conditional_maximum::move(Eigen::VectorXd& theta) {
  const auto n = static_cast<Eigen::Index>(positions_.size());
  Eigen::VectorXd start(n);
  Eigen::VectorXd step(n);
  Eigen::VectorXd lower(n);
  Eigen::VectorXd upper(n);
  for (std::size_t k = 0; k < positions_.size(); ++k) {
    const auto at = static_cast<Eigen::Index>(k);
    start(at) = to_search(k, theta(positions_[k]));
    lower(at) = to_search(k, entry(k).lower);
    upper(at) = to_search(k, entry(k).upper);
    step(at) = on_log_scale(k) ? first_step : first_step * std::max(std::fabs(start(at)), 1.0);
  }
  const minimum best = minimise([this](const Eigen::VectorXd& x) { return objective(x); }, start,
                                step, lower, upper, search_precision);
  std::vector<int> held;
  for (std::size_t k = 0; k < positions_.size(); ++k) {
    const double x = best.x(static_cast<Eigen::Index>(k));
    theta(positions_[k]) = from_search(k, x);
    if (x <= lower(static_cast<Eigen::Index>(k)) || x >= upper(static_cast<Eigen::Index>(k)))
      held.push_back(positions_[k]);
  }
  return held;
}

}  // namespace varda
