// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/theta_search.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace varda {

bool is_positive(const fixed_effect& t) {
  switch (t.role) {
    case theta_role::residual_deviation:
      return true;
    case theta_role::typical_value:
      return t.law == distribution::log_normal;
    case theta_role::flat_parameter:
      return t.start > 0.0 && !(std::isfinite(t.lower) && t.lower < 0.0);
    case theta_role::covariate_effect:
    case theta_role::direct_effect:
      break;
  }
  return false;
}

theta_search::theta_search(const population_model& model, const Eigen::VectorXd& theta,
                           std::vector<int> positions)
    : theta_(theta), positions_(std::move(positions)) {
  const auto n = static_cast<Eigen::Index>(positions_.size());
  start_.resize(n);
  lower_.resize(n);
  upper_.resize(n);
  for (Eigen::Index k = 0; k < n; ++k) {
    const int position = positions_[static_cast<std::size_t>(k)];
    const fixed_effect& t = model.thetas()[static_cast<std::size_t>(position)];
    logarithm_.push_back(is_positive(t));
    const auto coordinate = [&](double value) {
      return logarithm_.back() ? std::log(std::max(value, 0.0)) : value;
    };
    start_(k) = coordinate(theta(position));
    lower_(k) = coordinate(t.lower);
    upper_(k) = coordinate(t.upper);
  }
}

Eigen::VectorXd theta_search::theta_at(const Eigen::VectorXd& x) const {
  Eigen::VectorXd theta = theta_;
  for (std::size_t k = 0; k < positions_.size(); ++k) {
    const double coordinate = x(static_cast<Eigen::Index>(k));
    theta(positions_[k]) = logarithm_[k] ? std::exp(coordinate) : coordinate;
  }
  return theta;
}

minimum theta_search::minimise(const objective_function& f, double step, double precision) const {
  Eigen::VectorXd steps(start_.size());
  for (Eigen::Index k = 0; k < steps.size(); ++k)
    steps(k) =
        logarithm_[static_cast<std::size_t>(k)] ? step : step * std::max(std::fabs(start_(k)), 1.0);
  return varda::minimise(f, start_, steps, lower_, upper_, precision);
}

std::vector<int> theta_search::at_bounds(const Eigen::VectorXd& x) const {
  std::vector<int> held;
  for (std::size_t k = 0; k < positions_.size(); ++k) {
    const auto at = static_cast<Eigen::Index>(k);
    if (x(at) <= lower_(at) || x(at) >= upper_(at)) held.push_back(positions_[k]);
  }
  return held;
}

}  // namespace varda
