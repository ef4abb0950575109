// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/engine_host.h"

namespace varda {

// The proposals of all subjects: centres in deviations from C beta, and lower Cholesky factors of
// the conditional covariances, which stand in the library's shared `choleskyfactor`.
class proposals {
 public:
  explicit proposals(engine_host& host);

  // Mode and exact curvature of every subject at the parameters in force; subjects are shared among
  // the processes. A subject whose curvature is not positive definite gets omega's factor.
  // Collective. False when a stop was asked for.
  bool from_modes();

  // Conditional means and covariances estimated from samples of the population, without any mode;
  // the setting `start` has switched presampling on, and the points stand where they shall begin.
  // Collective. False when a stop was asked for.
  bool from_presamples();

  // Hands the proposal of a subject (from 0) to the library, widened by the acceptance ratio.
  void offer(int subject) const;

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

  // All proposals as they stand, to come back to.
  struct state {
    Eigen::MatrixXd centres;
    std::vector<Eigen::MatrixXd> factors;
    int kept_factors = 0;
  };
  state snapshot() const;
  void restore(const state& from);

 private:
  Eigen::MatrixXd factor(int subject) const;
  void set_factor(int subject, const Eigen::MatrixXd& lower);

  engine_host& host_;
  Eigen::MatrixXd centres_;  // random effects x subjects
  double widening_;
  int kept_factors_ = 0;
};

}  // namespace varda
