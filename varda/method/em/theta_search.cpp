// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/theta_search.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

namespace varda {

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
    logarithm_.push_back(t.is_positive());
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

// `step` of a logarithm, and relative to the start where that is larger than 1.
Eigen::VectorXd theta_search::steps(double step) const {
  Eigen::VectorXd result(start_.size());
  for (Eigen::Index k = 0; k < result.size(); ++k)
    result(k) =
        logarithm_[static_cast<std::size_t>(k)] ? step : step * std::max(std::fabs(start_(k)), 1.0);
  return result;
}

minimum theta_search::minimise(const objective_function& f, double step, double precision) const {
  return varda::minimise(f, start_, steps(step), lower_, upper_, precision);
}

std::optional<minimum> theta_search::newton_step(const objective_function& f, double step,
                                                 double reach) const {
  const difference_stencil stencil(start_, steps(step));
  const Eigen::MatrixXd& points = stencil.points();
  std::vector<Eigen::Index> order(static_cast<std::size_t>(points.cols()));
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](Eigen::Index a, Eigen::Index b) {
    return std::lexicographical_compare(points.col(a).begin(), points.col(a).end(),
                                        points.col(b).begin(), points.col(b).end());
  });
  Eigen::VectorXd values(points.cols());
  for (const Eigen::Index k : order) {
    if ((points.col(k).array() < lower_.array()).any() ||
        (points.col(k).array() > upper_.array()).any())
      return std::nullopt;
    values(k) = f(points.col(k));
  }
  if (!values.allFinite()) return std::nullopt;
  const Eigen::LLT<Eigen::MatrixXd> factor(stencil.hessian(values));
  if (factor.info() != Eigen::Success) return std::nullopt;
  minimum result;
  result.x = start_ - factor.solve(stencil.gradient(values));
  const bool near = ((result.x - start_).array().abs() <= steps(reach).array()).all();
  const bool inside =
      (result.x.array() > lower_.array()).all() && (result.x.array() < upper_.array()).all();
  if (!near || !inside) return std::nullopt;
  result.value = f(result.x);
  result.found = result.value <= values(0);
  return result.found ? std::optional(result) : std::nullopt;
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
