// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/engine_host.h"

namespace varda {

// The mode of a subject's random effects given its data, at the parameters in force, the objective
// (negative log joint density) there, and the lower Cholesky factor of its Hessian; that of omega's
// inverse where the Hessian is not positive definite.
struct posterior_mode {
  Eigen::VectorXd eta;
  double objective = 0.0;
  Eigen::MatrixXd factor;
  bool definite = false;
};

// Newton's method on central differences from zero deviations; a search without derivatives where
// the objective cannot be differenced or Newton's method does not arrive.
posterior_mode find_mode(engine_host& host, int subject);

// Those of the subjects of this process that have observations, by subject, found by its threads;
// not all of them after a stop.
std::vector<posterior_mode> find_own_modes(engine_host& host);

// Modes of all subjects, one a column, zero for a subject without observations. Subjects are shared
// among the processes; every one ends with the same. Collective. Not complete when a stop was asked
// for.
struct mode_search {
  bool complete = false;
  Eigen::MatrixXd modes;
  std::vector<Eigen::MatrixXd> hessian_factors;  // lower Cholesky factors, by subject
  std::vector<int> indefinite;  // subjects (from 0) whose Hessian was not positive definite
};
mode_search find_every_mode(engine_host& host);

}  // namespace varda
