// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/engine_host.h"
#include "varda/inference/estimation_scale.h"

namespace varda {

// A subject's log-likelihood at many parameters from samples drawn once. With phi_j = C beta +
// eta_j as it was drawn at the estimates psi_0, and w_j the weights there,
//
//   l(psi) - l(psi_0) = ln sum_j w_j p(y | phi_j; psi) p(phi_j; psi) / [the same at psi_0].
//
// The individual parameters phi are common to all psi, so that the sampling error is common too and
// cancels from differences; and predictions are made once unless psi holds a structural parameter.
class sampled_likelihood {
 public:
  // `points`: parameters on the estimation scale, one a column.
  sampled_likelihood(const engine_host& host, const estimation_scale& scale,
                     const Eigen::MatrixXd& points);

  // l(psi) - l(psi_0) of a subject (from 0) at every point, from its samples (random effects x
  // samples) and weights at the parameters in force; minus infinity where omega is not positive
  // definite.
  Eigen::VectorXd changes(int subject, const Eigen::MatrixXd& etas,
                          const Eigen::VectorXd& weights) const;

 private:
  // Parameters with what their densities need of them.
  struct parameters {
    parameters(const Eigen::VectorXd& theta, const Eigen::MatrixXd& omega);
    Eigen::VectorXd theta;
    Eigen::MatrixXd whitener;  // inverse of omega's lower factor
    double log_constant = 0.0;
    bool usable = false;  // omega is positive definite
  };

  class subject_densities;

  const engine_host& host_;
  parameters estimates_;
  std::vector<parameters> points_;
  std::vector<int> residual_positions_;  // free entries of theta that p(y | phi) depends on
  bool predictions_move_ = false;
};

}  // namespace varda
