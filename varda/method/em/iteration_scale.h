// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "varda/model/population.h"

namespace varda {

// Everything that is estimated as one vector on which a change of 0.01 means about one per cent:
// the logarithms of log-normal typical values, residual deviations and variances; the correlations;
// other fixed effects divided by the size of their start value or by 0.05 where that is larger.
// Iterations are accelerated and judged on this scale.
class iteration_scale {
 public:
  explicit iteration_scale(const population_model& model);

  const std::vector<std::string>& names() const { return names_; }

  Eigen::VectorXd values(const Eigen::VectorXd& theta, const Eigen::MatrixXd& omega) const;

  // The inverse: the free entries from `values`, moved inside their bounds, the others as they
  // stand in theta and omega. omega need not be positive definite.
  void put(const Eigen::VectorXd& values, Eigen::VectorXd& theta, Eigen::MatrixXd& omega) const;

 private:
  const population_model& model_;
  std::vector<std::string> names_;
};

}  // namespace varda
