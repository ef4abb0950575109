// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <string>
#include <utility>
#include <vector>

#include "varda/model/population.h"

namespace varda {

// Everything that is estimated as one unbounded vector psi: typical values and covariate effects on
// the regression scale; logarithms of residual deviations and of positive parameters without a
// random effect; and of every free block of omega its lower Cholesky factor L, the diagonal as
// logarithms. Any psi stands for a positive definite omega.
class coordinates {
 public:
  struct entry {
    std::string name;
    int theta = -1;          // position in theta, or -1 for an entry of L
    bool logarithm = false;  // of theta's entry; entries that the C matrix carries are on the
                             // regression scale whatever this says
    std::vector<std::pair<int, int>> places;  // in L, one for each occasion; none of a theta
    bool diagonal = false;
    double lower = 0.0;  // bounds of psi
    double upper = 0.0;
  };

  explicit coordinates(const population_model& model);

  int size() const { return static_cast<int>(entries_.size()); }
  const std::vector<entry>& entries() const { return entries_; }

  // theta and omega give what is fixed, too.
  Eigen::VectorXd of(const Eigen::VectorXd& theta, const Eigen::MatrixXd& omega) const;
  // The free entries of theta and of the lower factor L of omega from psi; the others stay.
  void put(const Eigen::VectorXd& psi, Eigen::VectorXd& theta, Eigen::MatrixXd& omega) const;

 private:
  const population_model& model_;
  std::vector<entry> entries_;
};

}  // namespace varda
