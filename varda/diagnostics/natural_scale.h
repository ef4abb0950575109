// SPDX-License-Identifier: Apache-2.0
//
// Estimates and their covariance on the scale that a user reads ("natural scale"). It differs from
// that of theta for logit-normal parameters, and from the estimation scale for every logarithm.
#pragma once

#include <Eigen/Core>

#include "varda/inference/standard_errors.h"
#include "varda/model/population.h"

namespace varda {

Eigen::VectorXd natural_theta(const population_model& model, const Eigen::VectorXd& theta);

// The covariance of the kind that was asked for, over the estimated quantities in their order;
// empty where it is not known.
Eigen::MatrixXd natural_covariance(const standard_errors& errors);

}  // namespace varda
