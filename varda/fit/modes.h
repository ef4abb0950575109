// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>

#include "varda/host/engine_host.h"

namespace varda {

// The mode of a subject's random effects given its data, at the parameters in force, and the
// objective (negative log joint density) there. The search starts at zero deviations.
struct posterior_mode {
  Eigen::VectorXd eta;
  double objective = 0.0;
};
posterior_mode find_mode(engine_host& host, int subject);

// Lower Cholesky factor of the exact Hessian of the objective at the mode; that of omega's inverse
// where the Hessian is not positive definite.
Eigen::MatrixXd curvature_factor(engine_host& host, int subject, const Eigen::VectorXd& mode);

}  // namespace varda
