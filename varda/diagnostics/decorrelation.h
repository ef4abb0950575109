// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>

#include "varda/model/lanes/kernel.h"

namespace varda {

// Of simulated values less their means, `y` with a row for each of n observations and a column for
// each of K simulations: `factor` becomes the lower Cholesky factor of their covariance matrix,
// y y' / (K - 1), and y becomes factor^-1 y. False, and y as it was, where the covariance is not
// positive definite. n^2 K + n^3 / 3 multiplications.
bool decorrelate(Eigen::MatrixXd& y, Eigen::MatrixXd& factor,
                 const lane_kernel& with = best_lane_kernel());

}  // namespace varda
