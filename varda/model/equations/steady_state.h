// SPDX-License-Identifier: Apache-2.0
//
// The state at which a system comes to rest, or repeats itself: the zero of a residual, by Newton's
// method with differences. The Jacobian is kept while the residual falls quickly, so that a linear
// system takes one.
#pragma once

#include <Eigen/Core>
#include <Eigen/LU>
#include <functional>
#include <span>

namespace varda {

struct steady_state_problem {
  // Writes the residual at x; false where it cannot be evaluated.
  std::function<bool(std::span<const double> x, std::span<double> residual)> residual;
  std::span<const double> sizes;  // of the components of x: what is small for each
  double tolerance = 1e-8;        // of a last correction, in units of the sizes
  double difference = 1e-3;       // step of the differences, likewise
};

class steady_state_search {
 public:
  explicit steady_state_search(std::size_t size);

  // Takes x from a start to the solution. A solution in which a state that was positive has become
  // negative is not taken: a system whose input exceeds its capacity has such a spurious one.
  // False where none is found.
  bool find(const steady_state_problem& problem, std::span<double> x);

 private:
  bool differentiate(const steady_state_problem& problem);

  Eigen::VectorXd x_;
  Eigen::VectorXd next_x_;
  Eigen::VectorXd residual_;
  Eigen::VectorXd moved_residual_;
  Eigen::VectorXd correction_;
  Eigen::MatrixXd jacobian_;
  Eigen::PartialPivLU<Eigen::MatrixXd> solver_;
};

}  // namespace varda
