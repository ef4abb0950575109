// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/modes.h"

#include <Eigen/Cholesky>
#include <Eigen/LU>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "varda/fit/minimise.h"

namespace varda {

namespace gv = statsubs::global_variables;

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

posterior_curvature curvature_at(engine_host& host, int subject, const Eigen::VectorXd& mode) {
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
      return {precision.llt().matrixL(), false};
    }
    step = curvature_step * curvature.inverse().diagonal().cwiseSqrt();
  }
  const Eigen::VectorXd inverse_scale = scale.cwiseInverse();
  const Eigen::MatrixXd unscaled =
      inverse_scale.asDiagonal() * curvature * inverse_scale.asDiagonal();
  return {unscaled.llt().matrixL(), true};
}

mode_search find_every_mode(engine_host& host) {
  const population_model& model = host.model();
  const int effects = model.random_effects();
  mode_search found;
  found.modes.setZero(effects, model.subjects());
  Eigen::VectorXd indefinite = Eigen::VectorXd::Zero(model.subjects());
  Eigen::Map<Eigen::MatrixXd> packed(gv::cholsub.data(), gv::cholsub.rows(), model.subjects());
  packed.setZero();
  int stop = 0;
  for (int i = 0; i < model.subjects() && stop == 0; ++i) {
    stop = statsubs::host::stoprequested();
    // The library's rule: subject i, from 1, belongs to the process mod(i, numprocs).
    if ((i + 1) % host.peers().size() != host.peers().rank() || model.observations(i) == 0)
      continue;
    found.modes.col(i) = find_mode(host, i).eta;
    const posterior_curvature curvature = curvature_at(host, i, found.modes.col(i));
    indefinite(i) = curvature.definite ? 0.0 : 1.0;
    int row_of_packed = 0;
    for (int column = 0; column < effects; ++column)
      for (int row = column; row < effects; ++row)
        packed(row_of_packed++, i) = curvature.factor(row, column);
  }
  statsubs::host::checkforstop(stop);
  if (engine_host::stopped()) return found;
  host.peers().sum(found.modes.data(), static_cast<int>(found.modes.size()));
  host.peers().sum(packed.data(), static_cast<int>(packed.size()));
  host.peers().sum(indefinite.data(), static_cast<int>(indefinite.size()));
  for (int i = 0; i < model.subjects(); ++i)
    if (indefinite(i) > 0.0) found.indefinite.push_back(i);
  found.complete = true;
  return found;
}

}  // namespace varda
