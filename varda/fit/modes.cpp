// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/modes.h"

#include <Eigen/Cholesky>
#include <Eigen/LU>

#include "varda/fit/minimise.h"

namespace varda {

namespace {

// Modes are searched in units of omega's standard deviations.
constexpr double first_step = 0.5;
constexpr double mode_precision = 1e-5;
// In units of the conditional standard deviations: truncation and rounding of the second
// differences are then both near 1e-7.
constexpr double curvature_step = 1e-3;

objective_function scaled_objective(engine_host& host, int subject, const Eigen::VectorXd& scale) {
  return [&host, subject, scale](const Eigen::VectorXd& x) {
    const Eigen::VectorXd eta = x.cwiseProduct(scale);
    return host.objective(subject, eta.data());
  };
}

Eigen::VectorXd population_deviations(const engine_host& host) {
  return host.omega().diagonal().cwiseSqrt();
}

}  // namespace

posterior_mode find_mode(engine_host& host, int subject) {
  const Eigen::VectorXd scale = population_deviations(host);
  const Eigen::Index n = scale.size();
  const minimum lowest = minimise(scaled_objective(host, subject, scale), Eigen::VectorXd::Zero(n),
                                  Eigen::VectorXd::Constant(n, first_step), mode_precision);
  return {lowest.x.cwiseProduct(scale), lowest.value};
}

Eigen::MatrixXd curvature_factor(engine_host& host, int subject, const Eigen::VectorXd& mode) {
  const Eigen::VectorXd scale = population_deviations(host);
  const Eigen::Index n = scale.size();
  const objective_function objective = scaled_objective(host, subject, scale);
  const Eigen::VectorXd at = mode.cwiseQuotient(scale);

  // A rough Hessian gives the conditional standard deviations that the exact one is stepped by.
  Eigen::MatrixXd curvature;
  Eigen::VectorXd step = Eigen::VectorXd::Constant(n, 10.0 * curvature_step);
  for (int pass = 0; pass < 2; ++pass) {
    curvature = hessian(objective, at, step);
    const bool definite =
        curvature.allFinite() && Eigen::LLT<Eigen::MatrixXd>(curvature).info() == Eigen::Success;
    if (!definite) {
      const Eigen::MatrixXd precision = host.omega().llt().solve(Eigen::MatrixXd::Identity(n, n));
      return precision.llt().matrixL();
    }
    step = curvature_step * curvature.inverse().diagonal().cwiseSqrt();
  }
  const Eigen::VectorXd inverse_scale = scale.cwiseInverse();
  const Eigen::MatrixXd unscaled =
      inverse_scale.asDiagonal() * curvature * inverse_scale.asDiagonal();
  return unscaled.llt().matrixL();
}

}  // namespace varda
