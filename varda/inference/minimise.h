// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <functional>
#include <vector>

namespace varda {

using objective_function = std::function<double(const Eigen::VectorXd&)>;

struct minimum {
  Eigen::VectorXd x;
  double value = 0.0;
  bool found = false;  // false: the optimiser gave up; x and value are the best it saw
};

// Local minimum of a smooth function without derivatives, inside the box [lower, upper]. `start` is
// moved into the box; `step` is the size of the first steps; the search ends when no entry of x
// moves by more than `precision`. Values that are not finite count as very large. Deterministic.
minimum minimise(const objective_function& f, const Eigen::VectorXd& start,
                 const Eigen::VectorXd& step, const Eigen::VectorXd& lower,
                 const Eigen::VectorXd& upper, double precision);

// The same without bounds.
minimum minimise(const objective_function& f, const Eigen::VectorXd& start,
                 const Eigen::VectorXd& step, double precision);

// A point that a search asks for.
struct asked_point {
  std::size_t search = 0;  // from 0
  Eigen::VectorXd x;
};
using objective_of_searches = std::function<std::vector<double>(const std::vector<asked_point>&)>;

// Several searches without bounds, a start each: the same as one after the other, but `f` is asked
// for the points of all of them together, by the calling thread, searches in ascending order.
std::vector<minimum> minimise_together(const objective_of_searches& f,
                                       const std::vector<Eigen::VectorXd>& starts,
                                       const Eigen::VectorXd& step, double precision);

// Central second differences about a point: the points at which a function has to be known, and its
// Hessian from the values there. The error is of the order of step^2 times the fourth derivatives.
class difference_stencil {
 public:
  difference_stencil(const Eigen::VectorXd& centre, const Eigen::VectorXd& step);

  // One a column: the centre, then for every coordinate one step up and one down, then for every
  // pair of coordinates the four corners.
  const Eigen::MatrixXd& points() const { return points_; }
  Eigen::MatrixXd hessian(const Eigen::VectorXd& values) const;
  // The gradient, from the values at the first 2 n + 1 points alone.
  Eigen::VectorXd gradient(const Eigen::VectorXd& values) const;
  // The diagonal of the Hessian, from the values at the first 2 n + 1 points alone.
  Eigen::VectorXd curvatures(const Eigen::VectorXd& values) const;

 private:
  Eigen::VectorXd step_;
  Eigen::MatrixXd points_;
};

Eigen::MatrixXd hessian(const objective_function& f, const Eigen::VectorXd& x,
                        const Eigen::VectorXd& step);

}  // namespace varda
