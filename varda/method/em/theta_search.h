// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <optional>
#include <vector>

#include "varda/inference/minimise.h"
#include "varda/model/population.h"

namespace varda {

// Some entries of theta as the coordinates of a search: logarithms where an entry is positive by
// its nature or its start, the entry itself otherwise.
class theta_search {
 public:
  theta_search(const population_model& model, const Eigen::VectorXd& theta,
               std::vector<int> positions);

  // theta with the entries at x.
  Eigen::VectorXd theta_at(const Eigen::VectorXd& x) const;

  // The minimum from the entries as given, inside their bounds.
  minimum minimise(const objective_function& f, double step, double precision) const;

  // One Newton step towards the minimum by central differences with `step`. Nothing where f is not
  // convex, the step is longer than `reach` or leaves the bounds, or f does not fall: the start is
  // then too far away. Points that differ in the last entries only are evaluated one after the
  // other.
  std::optional<minimum> newton_step(const objective_function& f, double step, double reach) const;

  // Positions whose coordinate lies at a bound.
  std::vector<int> at_bounds(const Eigen::VectorXd& x) const;

 private:
  Eigen::VectorXd steps(double step) const;

  Eigen::VectorXd theta_;
  std::vector<int> positions_;
  std::vector<bool> logarithm_;
  Eigen::VectorXd start_, lower_, upper_;
};

}  // namespace varda
