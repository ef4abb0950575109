// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

namespace varda {

// Acceleration of a fixed-point iteration x -> g(x) by the secants of its last steps.
//
//   D. G. Anderson, "Iterative procedures for nonlinear integral equations", J. ACM 12 (1965)
//   547-560, in the form of H. F. Walker and P. Ni, "Anderson acceleration for fixed-point
//   iterations", SIAM J. Numer. Anal. 49 (2011) 1715-1735.
//
// With f = g(x) - x, and dX, dF the differences of successive x and f, the next point is
// g(x) - (dX + dF) c, where c minimises |f - dF c|.
class anderson_acceleration {
 public:
  anderson_acceleration() = default;
  explicit anderson_acceleration(int memory) : memory_(memory) {}

  // The point to go on from, given that the map makes g of x.
  Eigen::VectorXd advance(const Eigen::VectorXd& x, const Eigen::VectorXd& g);

  // The map has become a slightly different one: no secant leads from the points before to those
  // that follow, while the secants that are known stay good approximations.
  void map_changed();

  // Forgets everything.
  void restart();

  // An estimate of the largest rate at which errors of the plain iteration shrink, from at least
  // two secants of the map as it is: the spectral radius of its derivative on their span. 1 while
  // there are fewer.
  double rate() const;

  template <class A>
  void visit(A& archive) {
    archive(memory_, secants_, last_x_, last_f_);
  }

 private:
  struct secant {
    Eigen::VectorXd dx, df;
    bool of_this_map = true;
    template <class A>
    void visit(A& archive) {
      archive(dx, df, of_this_map);
    }
  };
  int memory_ = 0;
  std::vector<secant> secants_;  // the latest last
  Eigen::VectorXd last_x_, last_f_;
};

}  // namespace varda
