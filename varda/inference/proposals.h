// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/integration.h"

namespace varda {

// The proposals of all subjects as plain values: centres in deviations from C beta, and lower
// Cholesky factors of the conditional covariances.
class proposals {
 public:
  proposals() = default;
  // About no deviation, with the covariance omega.
  proposals(const population_model& model, const Eigen::MatrixXd& omega);

  // The proposal of a subject (from 0), widened by the acceptance ratio.
  proposal of(int subject) const;

  void set(int subject, const Eigen::VectorXd& centre, const Eigen::MatrixXd& factor);

  // Takes over what an E-step found. With fewer than five effective samples a random effect, or a
  // covariance that is not positive definite, the proposal becomes as wide as the mixture of what
  // was found and the last one, in the proportion of the trust in either: it then neither collapses
  // onto a few samples nor, as wide as ever, keeps them few. Where hardly more effective samples
  // than random effects are left, that is counted.
  void follow(int subject, const Eigen::VectorXd& mean, const Eigen::MatrixXd& covariance,
              double effective_samples);

  // After a parameter update: the individual parameters stay, so the deviations move.
  void shift(int subject, const Eigen::VectorXd& by) { centres_.col(subject) += by; }

  int kept_factors() const { return kept_factors_; }
  void count_kept_factor() { ++kept_factors_; }

  template <class A>
  void visit(A& archive) {
    archive(centres_, factors_, widening_, kept_factors_);
  }

 private:
  Eigen::MatrixXd centres_;  // random effects x subjects
  std::vector<Eigen::MatrixXd> factors_;
  double widening_ = 1.0;
  int kept_factors_ = 0;
};

// Mode and exact curvature of every subject at the parameters in force; a subject whose curvature
// is not positive definite gets omega's factor. Collective. False when a stop was asked for.
bool propose_from_modes(engine_host& host, proposals& to);

// Conditional means and covariances estimated from samples of the population, without any mode; the
// setting `start` has switched presampling on. Collective. False when a stop was asked for.
bool propose_from_presamples(engine_host& host, proposals& to);

}  // namespace varda
