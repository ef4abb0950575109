// SPDX-License-Identifier: Apache-2.0
//
// The library's routines for standard errors.
#pragma once

#include <Eigen/Core>

#include "varda/host/engine_host.h"

namespace varda {

// Where the library packs a free element of omega: lower triangle row by row; -1 elsewhere.
Eigen::MatrixXi packed_positions(const population_model& model);

// Whether a fixed effect lies at its bound.
bool is_at_bound(engine_host& host);

// Writes the variances of the free elements of omega (in packed order) to the shared state.
void keep_omega_variances(const Eigen::VectorXd& variances, int thetas);

}  // namespace varda
