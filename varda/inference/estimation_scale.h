// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <string>
#include <utility>
#include <vector>

#include "varda/model/population.h"

namespace varda {

// The estimated quantities as one vector psi: free fixed effects in the order of theta (regression
// scale; logarithms of residual deviations and positive flat parameters), then the free elements of
// omega, lower triangle row by row.
class estimation_scale {
 public:
  struct entry {
    std::string name;
    int theta = -1;  // position in theta, or -1
    int row = -1;    // of omega, or -1
    int column = -1;
    std::vector<std::pair<int, int>> places;  // all of them, for effects per occasion
    bool logarithm = false;                   // psi is the logarithm of theta's entry
  };

  estimation_scale(const population_model& model, const Eigen::VectorXd& theta,
                   const Eigen::MatrixXd& omega);

  int size() const { return static_cast<int>(entries_.size()); }
  const std::vector<entry>& entries() const { return entries_; }
  const Eigen::VectorXd& estimates() const { return estimates_; }

  Eigen::VectorXd theta_at(const Eigen::VectorXd& psi) const;
  Eigen::MatrixXd omega_at(const Eigen::VectorXd& psi) const;

  // d theta / d psi of an entry at the estimates; 1 for omega.
  double slope(int k) const;

 private:
  Eigen::VectorXd theta_;
  Eigen::MatrixXd omega_;
  std::vector<entry> entries_;
  Eigen::VectorXd estimates_;
};

}  // namespace varda
