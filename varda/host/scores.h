// SPDX-License-Identifier: Apache-2.0
//
// The library's routines for standard errors.
#pragma once

#include <Eigen/Core>

#include "varda/host/integration.h"

namespace varda {

// Where the library packs a free element of omega: lower triangle row by row; -1 elsewhere.
Eigen::MatrixXi packed_positions(const population_model& model);

// Adds the outer product of a subject's score to `sums` (all of theta, then the free elements of
// omega; the library's scale and signs: differences of the objective for residual deviations and
// what moves predictions, scores of the log density for the others). Collective where samples are
// shared.
void add_score(engine_host& host, int subject, weighted_samples& drawn, Eigen::MatrixXd& sums);

// Whether a fixed effect lies at its bound.
bool is_at_bound(engine_host& host);

// Writes the variances of the free elements of omega (in packed order) to the shared state.
void keep_omega_variances(const Eigen::VectorXd& variances, int thetas);

}  // namespace varda
