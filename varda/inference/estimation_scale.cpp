// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/estimation_scale.h"

#include <cmath>

namespace varda {

estimation_scale::estimation_scale(const population_model& model, const Eigen::VectorXd& theta,
                                   const Eigen::MatrixXd& omega)
    : theta_(theta), omega_(omega) {
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    if (t.fixed) continue;
    entry e;
    e.name = t.name;
    e.theta = static_cast<int>(k);
    e.logarithm = t.is_positive();
    entries_.push_back(e);
  }
  for (const omega_element& element : model.omega_elements()) {
    if (element.fixed) continue;
    entry e;
    e.name = element.name;
    e.row = element.row();
    e.column = element.column();
    e.places = element.places;
    entries_.push_back(e);
  }
  estimates_.resize(size());
  for (int k = 0; k < size(); ++k) {
    const entry& e = entries_[static_cast<std::size_t>(k)];
    const double value = e.theta < 0 ? omega_(e.row, e.column) : theta_(e.theta);
    estimates_(k) = e.logarithm ? std::log(value) : value;
  }
}

Eigen::VectorXd estimation_scale::theta_at(const Eigen::VectorXd& psi) const {
  Eigen::VectorXd theta = theta_;
  for (int k = 0; k < size(); ++k) {
    const entry& e = entries_[static_cast<std::size_t>(k)];
    if (e.theta >= 0) theta(e.theta) = e.logarithm ? std::exp(psi(k)) : psi(k);
  }
  return theta;
}

Eigen::MatrixXd estimation_scale::omega_at(const Eigen::VectorXd& psi) const {
  Eigen::MatrixXd omega = omega_;
  for (int k = 0; k < size(); ++k) {
    const entry& e = entries_[static_cast<std::size_t>(k)];
    for (const auto& [row, column] : e.places) omega(row, column) = omega(column, row) = psi(k);
  }
  return omega;
}

double estimation_scale::slope(int k) const {
  const entry& e = entries_[static_cast<std::size_t>(k)];
  return e.logarithm ? theta_(e.theta) : 1.0;
}

}  // namespace varda
