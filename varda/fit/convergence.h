// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "varda/model/population_model.h"

namespace varda {

// The verdict on a series of iterations.
struct verdict {
  bool converged = false;
  std::string reason;
};

// Decides when the iterations may end. It watches every estimated quantity on a scale on which a
// change of 0.01 means about one per cent: regression-scale fixed effects (logarithms where the
// parameter is log-normal), logarithms of variances and residual deviations, correlations.
//
// A quantity is at rest when the movement that still lies ahead of it is below the tolerance. An
// EM iteration is a contraction with an almost constant rate r near its end, so what lies ahead is
// about (last step) r / (1 - r), with r from the shrinkage of the steps over the window. Where the
// points change from one iteration to the next the steps are noise, and a quantity is also at rest
// when the slope over the window does not differ from zero by the library's trend test.
// The iterations have converged when every quantity and the objective have been at rest for three
// iterations in a row.
class convergence_monitor {
 public:
  convergence_monitor(const population_model& model, double tolerance, bool noisy);

  // One iteration's parameters (after the update) and -2 log-likelihood (before it).
  void add(const Eigen::VectorXd& theta, const Eigen::MatrixXd& omega, double minus2ll);

  bool converged() const { return calm_ >= calm_iterations; }
  // The rule in words with the figures that decided, or what still moves.
  verdict conclusion() const;

  // Names of the watched quantities, and their values per iteration.
  const std::vector<std::string>& names() const { return names_; }

  static constexpr int calm_iterations = 3;

 private:
  static constexpr int window = 6;
  static constexpr int noisy_window = 20;

  struct movement {
    double ahead = 0.0;
    bool at_rest = false;
  };
  Eigen::VectorXd watched(const Eigen::VectorXd& theta, const Eigen::MatrixXd& omega) const;
  double rate() const;
  bool flat(const std::vector<double>& series) const;
  void judge();

  const population_model& model_;
  double tolerance_;
  bool noisy_;
  std::vector<std::string> names_;
  std::vector<Eigen::VectorXd> history_;
  std::vector<double> objective_;
  std::vector<movement> movements_;  // of the watched quantities, then of the objective
  int calm_ = 0;
};

}  // namespace varda
