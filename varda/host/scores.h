// SPDX-License-Identifier: Apache-2.0
//
// The library's routines for standard errors.
#pragma once

#include <Eigen/Core>

#include "varda/host/integration.h"

namespace varda {

// Where the library packs a free element of omega: lower triangle row by row; -1 elsewhere.
Eigen::MatrixXi packed_positions(const population_model& model);

// The score of a subject (from 0) from its samples: all of theta, then the free elements of omega;
// the library's scale and signs: differences of the objective for residual deviations and what
// moves predictions, scores of the log density for the others. This process alone.
Eigen::VectorXd score_of(engine_host& host, int subject, weighted_samples& drawn);

// Whether a fixed effect lies at its bound.
bool is_at_bound(engine_host& host);

// Writes the variances of the free elements of omega (in packed order) to the shared state.
void keep_omega_variances(const Eigen::VectorXd& variances, int thetas);

}  // namespace varda
