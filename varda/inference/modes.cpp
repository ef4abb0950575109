// SPDX-License-Identifier: Apache-2.0
//
// Newton's method with the Hessian's eigenvalues made positive and a backtracking line search
// (J. Nocedal and S. J. Wright, "Numerical Optimization", 2nd ed., 2006, algorithm 3.2). The
// coordinates are the random effects in units of omega's standard deviations, where the prior alone
// has the unit matrix as Hessian.
#include "varda/inference/modes.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <Eigen/LU>
#include <cmath>
#include <optional>

#include "varda/host/map_np.h"
#include "varda/inference/minimise.h"

namespace varda {

namespace {

constexpr int most_steps = 30;
// Of the differences: in the coordinates at first, then in conditional standard deviations, where
// truncation and rounding are both near 1e-7.
constexpr double first_difference = 1e-2;
constexpr double difference = 1e-3;
// The search ends when a step would lower the objective by less. The Hessian is the one before that
// step, some 1e-5 conditional standard deviations from the mode.
constexpr double least_decrease = 1e-10;
constexpr double least_curvature = 0.1;
constexpr double longest_step = 2.0;
constexpr double sufficient_decrease = 1e-4;
constexpr int most_halvings = 12;
// Of the search without derivatives.
constexpr double search_step = 0.5;
constexpr double search_precision = 1e-5;

class scaled_objective {
 public:
  scaled_objective(engine_host& host, int subject)
      : host_(host), subject_(subject), scale_(host.omega().diagonal().cwiseSqrt()) {}

  double operator()(const Eigen::VectorXd& x) const {
    const Eigen::VectorXd eta = x.cwiseProduct(scale_);
    return host_.objective(subject_, eta.data());
  }
  const Eigen::VectorXd& scale() const { return scale_; }

 private:
  engine_host& host_;
  int subject_;
  Eigen::VectorXd scale_;
};

struct local_model {
  double value = 0.0;
  Eigen::VectorXd gradient;
  Eigen::MatrixXd hessian;
};

local_model difference_about(const scaled_objective& f, const Eigen::VectorXd& x,
                             const Eigen::VectorXd& step) {
  const difference_stencil stencil(x, step);
  Eigen::VectorXd values(stencil.points().cols());
  for (Eigen::Index k = 0; k < values.size(); ++k) values(k) = f(stencil.points().col(k));
  return {values(0), stencil.gradient(values), stencil.hessian(values)};
}

bool is_positive_definite(const Eigen::MatrixXd& matrix) {
  return matrix.allFinite() && Eigen::LLT<Eigen::MatrixXd>(matrix).info() == Eigen::Success;
}

Eigen::VectorXd newton_step(const local_model& at) {
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(at.hessian);
  const Eigen::VectorXd curvature = solver.eigenvalues().cwiseAbs().cwiseMax(least_curvature);
  const Eigen::VectorXd along = solver.eigenvectors().transpose() * at.gradient;
  const Eigen::VectorXd step = -(solver.eigenvectors() * along.cwiseQuotient(curvature));
  const double length = step.cwiseAbs().maxCoeff();
  return length > longest_step ? (longest_step / length) * step : step;
}

struct scaled_mode {
  Eigen::VectorXd x;
  double value = 0.0;
  Eigen::MatrixXd hessian;
};

std::optional<scaled_mode> newton_search(const scaled_objective& f) {
  const Eigen::Index n = f.scale().size();
  Eigen::VectorXd x = Eigen::VectorXd::Zero(n);
  Eigen::VectorXd steps = Eigen::VectorXd::Constant(n, first_difference);
  for (int k = 0; k < most_steps; ++k) {
    const local_model at = difference_about(f, x, steps);
    if (!at.gradient.allFinite() || !at.hessian.allFinite()) return std::nullopt;
    const bool definite = is_positive_definite(at.hessian);
    if (definite) steps = difference * at.hessian.inverse().diagonal().cwiseSqrt();
    const Eigen::VectorXd step = newton_step(at);
    const double slope = at.gradient.dot(step);

    double share = 1.0;
    double value = f(x + step);
    for (int half = 0; half < most_halvings; ++half) {
      if (value <= at.value + sufficient_decrease * share * slope) break;
      share *= 0.5;
      value = f(x + share * step);
    }
    const bool lower = value <= at.value;
    if (lower) x += share * step;
    if (-0.5 * slope < least_decrease && definite)
      return scaled_mode{x, lower ? value : at.value, at.hessian};
    if (!lower) return std::nullopt;
  }
  return std::nullopt;
}

scaled_mode search_without_derivatives(const scaled_objective& f) {
  const Eigen::Index n = f.scale().size();
  const minimum lowest =
      minimise([&](const Eigen::VectorXd& x) { return f(x); }, Eigen::VectorXd::Zero(n),
               Eigen::VectorXd::Constant(n, search_step), search_precision);
  // A rough Hessian gives the conditional standard deviations that a better one is stepped by.
  const Eigen::VectorXd rough = Eigen::VectorXd::Constant(n, first_difference);
  Eigen::MatrixXd curvature = difference_about(f, lowest.x, rough).hessian;
  if (is_positive_definite(curvature))
    curvature =
        difference_about(f, lowest.x, difference * curvature.inverse().diagonal().cwiseSqrt())
            .hessian;
  return {lowest.x, lowest.value, curvature};
}

}  // namespace

posterior_mode find_mode(engine_host& host, int subject) {
  const scaled_objective f(host, subject);
  const std::optional<scaled_mode> by_newton = newton_search(f);
  const scaled_mode found = by_newton ? *by_newton : search_without_derivatives(f);
  const Eigen::VectorXd inverse_scale = f.scale().cwiseInverse();
  Eigen::MatrixXd hessian = inverse_scale.asDiagonal() * found.hessian * inverse_scale.asDiagonal();
  const bool definite = is_positive_definite(hessian);
  if (!definite)
    hessian = host.omega().llt().solve(
        Eigen::MatrixXd::Identity(host.omega().rows(), host.omega().cols()));
  return {found.x.cwiseProduct(f.scale()), found.value, hessian.llt().matrixL(), definite};
}

mode_search find_every_mode(engine_host& host) {
  const population_model& model = host.model();
  const int effects = model.random_effects();
  const Eigen::Index packed_size = effects * (effects + 1) / 2;
  mode_search found;
  found.modes.setZero(effects, model.subjects());
  Eigen::VectorXd indefinite = Eigen::VectorXd::Zero(model.subjects());
  Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(packed_size, model.subjects());
  for (int i = 0; i < model.subjects() && !engine_host::stop_requested(); ++i) {
    if (!owns(host, i) || model.observations(i) == 0) continue;
    const posterior_mode mode = find_mode(host, i);
    found.modes.col(i) = mode.eta;
    indefinite(i) = mode.definite ? 0.0 : 1.0;
    int row_of_packed = 0;
    for (int column = 0; column < effects; ++column)
      for (int row = column; row < effects; ++row)
        packed(row_of_packed++, i) = mode.factor(row, column);
  }
  if (engine_host::agree_on_stop()) return found;
  host.peers().sum(found.modes.data(), static_cast<int>(found.modes.size()));
  host.peers().sum(packed.data(), static_cast<int>(packed.size()));
  host.peers().sum(indefinite.data(), static_cast<int>(indefinite.size()));
  for (int i = 0; i < model.subjects(); ++i) {
    if (indefinite(i) > 0.0) found.indefinite.push_back(i);
    Eigen::MatrixXd& factor =
        found.hessian_factors.emplace_back(Eigen::MatrixXd::Zero(effects, effects));
    int row_of_packed = 0;
    for (int column = 0; column < effects; ++column)
      for (int row = column; row < effects; ++row) factor(row, column) = packed(row_of_packed++, i);
  }
  found.complete = true;
  return found;
}

}  // namespace varda
