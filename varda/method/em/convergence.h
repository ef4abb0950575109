// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

namespace varda {

// The verdict on a series of iterations.
struct verdict {
  bool converged = false;
  std::string reason;
};

// Decides when the iterations may end. It watches the step that an EM iteration makes of every
// estimated quantity, on the iteration scale.
//
// A quantity is at rest when the movement that still lies ahead of it is below the tolerance. An
// EM iteration is a contraction with an almost constant rate r near its end, so what lies ahead is
// about (last step) r / (1 - r). Where the points change from one iteration to the next the steps
// are noise, and a quantity is also at rest when the slope over the window does not differ from
// zero by the library's trend test. The iterations have converged when every quantity and the
// objective have been at rest for several iterations in a row.
class convergence_monitor {
 public:
  convergence_monitor() = default;
  // `names`: of the watched quantities.
  convergence_monitor(std::vector<std::string> names, double tolerance, bool noisy);

  // One EM iteration from `before` to `after`, -2 log-likelihood before it, and the rate of the
  // contraction. Where the steps are noise the rate is not used: it is then the shrinkage of the
  // steps over the window.
  void add(const Eigen::VectorXd& before, const Eigen::VectorXd& after, double minus2ll,
           double rate);

  bool converged() const { return calm_ >= (noisy_ ? noisy_calm_iterations : calm_iterations); }
  // The rule in words with the figures that decided, or what still moves.
  verdict conclusion() const;
  // The quantity that has most ahead of it: "CL 0.02 ahead". Empty where no trend is known yet.
  std::string slowest() const;

  template <class A>
  void visit(A& archive) {
    archive(names_, tolerance_, noisy_, history_, steps_, objective_, movements_, calm_);
  }

 private:
  static constexpr int calm_iterations = 2;
  static constexpr int noisy_calm_iterations = 3;
  static constexpr int window = 6;
  static constexpr int noisy_window = 20;

  struct movement {
    double ahead = 0.0;
    bool at_rest = false;
    template <class A>
    void visit(A& archive) {
      archive(ahead, at_rest);
    }
  };
  double shrinkage() const;
  bool flat(const std::vector<double>& series) const;
  void judge(double rate);

  std::vector<std::string> names_;
  double tolerance_ = 0.0;
  bool noisy_ = false;
  std::vector<Eigen::VectorXd> history_;  // after the steps
  std::vector<Eigen::VectorXd> steps_;
  std::vector<double> objective_;
  std::vector<movement> movements_;  // of the watched quantities, then of the objective
  int calm_ = 0;
};

}  // namespace varda
