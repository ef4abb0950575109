// SPDX-License-Identifier: Apache-2.0
//
// The integral over one subject's random effects: a proposal goes in, moments and weighted points
// come out.
#pragma once

#include <Eigen/Core>

#include "varda/host/engine_host.h"
#include "varda/host/points.h"

namespace varda {

// Where the samples of a subject are drawn: about a centre in deviations from C beta, with a lower
// Cholesky factor of their covariance. The family is the run's.
struct proposal {
  Eigen::VectorXd centre;
  Eigen::MatrixXd factor;
};

struct weighted_samples {
  Eigen::MatrixXd etas;     // random effects x samples
  Eigen::VectorXd weights;  // sum to one
};

// What one integration found of a subject.
struct subject_integral {
  double log_likelihood = 0.0;
  Eigen::VectorXd mean;  // of the deviations, given the data
  Eigen::MatrixXd covariance;
  double scaled_squares = 0.0;     // weighted mean of the squared scaled residuals per observation
  double effective_samples = 0.0;  // 1 / sum of squared weights
  double largest_weight = 0.0;     // share of the total

  template <class A>
  void visit(A& archive) {
    archive(log_likelihood, mean, covariance, scaled_squares, effective_samples, largest_weight);
  }
};

// Integrates over the random effects of a subject (from 0) with observations, at the parameters in
// force. `drawn` has the size of the samples wanted and receives them. This process alone. False
// when a stop was asked for; the results are then of no use.
bool integrate(engine_host& host, int subject, const proposal& from, const point_pass& pass,
               weighted_samples& drawn, subject_integral& found);

// Conditional mean and lower Cholesky factor of the conditional covariance of a subject from
// samples of the population, whose number the setting `presamples` gives. This process alone. False
// when a stop was asked for.
bool presample(engine_host& host, int subject, const point_pass& pass, proposal& found);

// The lower Cholesky factor of the conditional covariance that a mode's curvature stands for.
// `hessian_factor`: lower Cholesky factor of the Hessian there. This process alone. False where the
// covariance is not positive definite.
bool covariance_factor(engine_host& host, int subject, const Eigen::MatrixXd& hessian_factor,
                       Eigen::MatrixXd& factor);

// The log-likelihood of a subject by adaptive Gauss-Hermite quadrature with `nodes` per random
// effect about its mode, scaled by the curvature there. `placed` becomes false where the curvature
// is of no use and omega places the grid. This process alone. False when a stop was asked for.
// Throws
// std::runtime_error when the nodes cannot be had.
bool integrate_on_grid(engine_host& host, int subject, const Eigen::VectorXd& mode,
                       const Eigen::MatrixXd& hessian_factor, int nodes, double& log_likelihood,
                       bool& placed);

}  // namespace varda
