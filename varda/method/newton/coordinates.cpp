// SPDX-License-Identifier: Apache-2.0
#include "varda/method/newton/coordinates.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <limits>

namespace varda {

namespace {

bool on_regression_scale(const fixed_effect& t) {
  return t.role == theta_role::typical_value || t.role == theta_role::covariate_effect;
}

double psi_of(const fixed_effect& t, bool logarithm, double value) {
  if (on_regression_scale(t)) return t.regression(value);
  return logarithm ? std::log(value) : value;
}

double theta_of(const fixed_effect& t, bool logarithm, double psi) {
  if (on_regression_scale(t)) return t.from_regression(psi);
  return logarithm ? std::exp(psi) : psi;
}

}  // namespace

coordinates::coordinates(const population_model& model) : model_(model) {
  constexpr double infinite = std::numeric_limits<double>::infinity();
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    if (t.fixed) continue;
    entry e;
    e.name = t.name;
    e.theta = static_cast<int>(k);
    e.logarithm = t.is_positive();
    const auto bound = [&](double value, double none) {
      if (!std::isfinite(value) || (e.logarithm && value <= 0.0)) return none;
      return psi_of(t, e.logarithm, value);
    };
    e.lower = bound(t.lower, -infinite);
    e.upper = bound(t.upper, infinite);
    entries_.push_back(e);
  }
  for (const omega_element& element : model.omega_elements()) {
    if (element.fixed) continue;
    entry e;
    e.name = element.name;
    e.places = element.places;
    e.diagonal = element.is_variance();
    e.lower = -infinite;
    e.upper = infinite;
    entries_.push_back(e);
  }
}

Eigen::VectorXd coordinates::of(const Eigen::VectorXd& theta, const Eigen::MatrixXd& omega) const {
  const Eigen::MatrixXd factor = omega.llt().matrixL();
  Eigen::VectorXd psi(size());
  for (int k = 0; k < size(); ++k) {
    const entry& e = entries_[static_cast<std::size_t>(k)];
    if (e.theta >= 0) {
      psi(k) =
          psi_of(model_.thetas()[static_cast<std::size_t>(e.theta)], e.logarithm, theta(e.theta));
      continue;
    }
    const double value = factor(e.places.front().first, e.places.front().second);
    psi(k) = e.diagonal ? std::log(value) : value;
  }
  return psi;
}

void coordinates::put(const Eigen::VectorXd& psi, Eigen::VectorXd& theta,
                      Eigen::MatrixXd& omega) const {
  Eigen::MatrixXd factor = omega.llt().matrixL();
  for (int k = 0; k < size(); ++k) {
    const entry& e = entries_[static_cast<std::size_t>(k)];
    if (e.theta >= 0) {
      const fixed_effect& t = model_.thetas()[static_cast<std::size_t>(e.theta)];
      theta(e.theta) = std::clamp(theta_of(t, e.logarithm, psi(k)), t.lower, t.upper);
    }
    for (const auto& [row, column] : e.places)
      factor(row, column) = e.diagonal ? std::exp(psi(k)) : psi(k);
  }
  omega = factor * factor.transpose();
}

}  // namespace varda
