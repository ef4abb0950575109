// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>

#include "varda/model/population.h"

namespace varda {

// Start values of a fit: theta on its own scale and omega.
struct start_values {
  Eigen::VectorXd theta;
  Eigen::MatrixXd omega;
};

// The start values that the model states, for number 0, and others about them: typical values and
// parameters without a random effect move by a standard normal deviate on the scale of estimation
// (half of one for a coefficient of a covariate, three standard deviations of the random effect for
// a normal parameter), variances by a factor between 0.1 and 10 that leaves correlations as they
// are, residual deviations by one between 0.32 and 3.2. What is fixed stays, and so do bounds.
// Nothing but the seed and `number` decides.
start_values dispersed_start(const population_model& model, int number);

}  // namespace varda
