// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/natural_scale.h"

#include <cmath>

namespace varda {

Eigen::VectorXd natural_theta(const population_model& model, const Eigen::VectorXd& theta) {
  Eigen::VectorXd natural(theta.size());
  for (Eigen::Index k = 0; k < theta.size(); ++k)
    natural(k) = model.thetas()[static_cast<std::size_t>(k)].natural(theta(k));
  return natural;
}

// The ratio of the two errors of a quantity is the slope of one scale against the other.
Eigen::MatrixXd natural_covariance(const standard_errors& errors) {
  if (errors.chosen().empty()) return {};
  const Eigen::MatrixXd& known = errors.chosen_covariance().covariance;
  Eigen::VectorXd slope(known.rows());
  for (Eigen::Index k = 0; k < slope.size(); ++k)
    slope(k) = errors.chosen()[static_cast<std::size_t>(k)].se / std::sqrt(known(k, k));
  return slope.asDiagonal() * known * slope.asDiagonal();
}

}  // namespace varda
