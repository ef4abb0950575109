// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/iteration_scale.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace varda {

namespace {

// Coefficients on an additive scale are measured against at least this size.
constexpr double smallest_scale = 0.05;

bool is_logarithmic(const fixed_effect& t) {
  return t.role == theta_role::residual_deviation || t.law == distribution::log_normal;
}

double additive_scale(const fixed_effect& t) {
  return std::max(std::fabs(t.start), smallest_scale);
}

}  // namespace

iteration_scale::iteration_scale(const population_model& model) : model_(model) {
  for (const fixed_effect& t : model.thetas())
    if (!t.fixed) names_.push_back(t.name);
  for (const omega_element& e : model.omega_elements()) {
    if (e.fixed) continue;
    const std::string& row = model.effects()[static_cast<std::size_t>(e.row())].name;
    const std::string& column = model.effects()[static_cast<std::size_t>(e.column())].name;
    names_.push_back(e.is_variance() ? fmt::format("omega({})", row)
                                     : fmt::format("corr({},{})", column, row));
  }
}

Eigen::VectorXd iteration_scale::values(const Eigen::VectorXd& theta,
                                        const Eigen::MatrixXd& omega) const {
  Eigen::VectorXd result(static_cast<Eigen::Index>(names_.size()));
  Eigen::Index at = 0;
  for (std::size_t k = 0; k < model_.thetas().size(); ++k) {
    const fixed_effect& t = model_.thetas()[k];
    const double value = theta(static_cast<Eigen::Index>(k));
    if (!t.fixed) result(at++) = is_logarithmic(t) ? std::log(value) : value / additive_scale(t);
  }
  for (const omega_element& e : model_.omega_elements()) {
    if (e.fixed) continue;
    const double value = omega(e.row(), e.column());
    const double variances = omega(e.row(), e.row()) * omega(e.column(), e.column());
    result(at++) = e.is_variance() ? std::log(value) : value / std::sqrt(variances);
  }
  return result;
}

void iteration_scale::put(const Eigen::VectorXd& values, Eigen::VectorXd& theta,
                          Eigen::MatrixXd& omega) const {
  Eigen::Index at = 0;
  for (std::size_t k = 0; k < model_.thetas().size(); ++k) {
    const fixed_effect& t = model_.thetas()[k];
    if (t.fixed) continue;
    const double value = values(at++);
    theta(static_cast<Eigen::Index>(k)) = std::clamp(
        is_logarithmic(t) ? std::exp(value) : value * additive_scale(t), t.lower, t.upper);
  }
  // A covariance needs both variances, so the correlations wait for the whole diagonal.
  for (const bool variances : {true, false}) {
    Eigen::Index entry = at;
    for (const omega_element& e : model_.omega_elements()) {
      if (e.fixed) continue;
      const double value = values(entry++);
      if (e.is_variance() != variances) continue;
      for (const auto& [i, j] : e.places)
        omega(i, j) = omega(j, i) =
            variances ? std::exp(value) : value * std::sqrt(omega(i, i) * omega(j, j));
    }
  }
}

}  // namespace varda
