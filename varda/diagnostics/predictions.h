// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>

#include "varda/model/population.h"

namespace varda {

// A subject's observations in their order, against the population and against the subject itself.
struct subject_predictions {
  Eigen::VectorXd phi;         // conditional mean of phi; of every subject
  Eigen::VectorXd population;  // predictions at eta = 0
  Eigen::VectorXd individual;  // predictions at the conditional mean of phi
  // y - population, and (y - individual) over the residual deviation at the individual prediction,
  // of the logarithms for log-normal error. NaN for a censored observation, and the latter for one
  // of an endpoint that is not normal. A row without an event is no censored value here: y is 0.
  Eigen::VectorXd residuals;
  Eigen::VectorXd weighted_residuals;
  Eigen::MatrixXd parameters;  // in force at each observation, at the conditional mean of phi
};

// From the conditional mean of the random effects.
subject_predictions predictions_of(const population_model& model, int subject,
                                   const Eigen::VectorXd& theta, const Eigen::VectorXd& eta);

}  // namespace varda
