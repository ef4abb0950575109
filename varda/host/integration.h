// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/engine_host.h"
#include "varda/host/proposals.h"
#include "varda/method/em/resampler.h"

namespace varda {

// What one integration found of a subject.
struct subject_integral {
  double log_likelihood = 0.0;
  Eigen::VectorXd mean;  // of the deviations, given the data
  Eigen::MatrixXd covariance;
  double scaled_squares = 0.0;     // weighted mean of the squared scaled residuals per observation
  double effective_samples = 0.0;  // 1 / sum of squared weights
  double largest_weight = 0.0;     // share of the total
  resampled_points resampled;      // empty when none were asked for
};

struct e_step {
  bool complete = false;  // false: a stop was asked for and the integrals are not all there
  double log_likelihood = 0.0;
  std::vector<subject_integral> subjects;
};

// Integrates over the random effects of every subject with the parameters in force, and resamples
// where `points` is given. A subject without observations contributes nothing: its integral is 1
// and its conditional distribution the population's. Collective. `result` is overwritten; handing
// in the last one saves its memory from being asked for again, subject by subject.
void integrate(engine_host& host, const proposals& from, int samples, e_step& result,
               resampler* points = nullptr);

}  // namespace varda
