// SPDX-License-Identifier: Apache-2.0
//
// The library's weighted least squares for fixed effects that enter the means of the random
// effects.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/engine_host.h"

namespace varda {

// The coefficients, on the regression scale, of the columns `columns` of the C matrix (positions in
// the model's columns) that fit phi best, weighted by the inverse of omega. `phi`: random effects x
// subjects, what other columns contribute taken off.
Eigen::VectorXd fit_means(engine_host& host, const std::vector<int>& columns,
                          const Eigen::MatrixXd& phi);

// C_i beta of every subject (random effects x subjects) for those columns alone.
Eigen::MatrixXd predict_means(engine_host& host, const std::vector<int>& columns,
                              const Eigen::VectorXd& beta);

}  // namespace varda
