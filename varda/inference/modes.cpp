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

#include "varda/host/subjects.h"
#include "varda/inference/minimise.h"

namespace varda {

namespace {

constexpr int most_steps = 30;
// About so many are made for a mode with few random effects.
constexpr int evaluations_of_a_mode = 64;
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

// The parameters in force, as all searches need them.
struct search_parameters {
  explicit search_parameters(const engine_host& host)
      : joint(host.joint()),
        theta(host.theta()),
        omega(host.omega()),
        prior(omega),
        scale(omega.diagonal().cwiseSqrt()) {}
  const density& joint;
  Eigen::VectorXd theta;
  Eigen::MatrixXd omega;
  random_effect_density prior;
  Eigen::VectorXd scale;
};

// One subject's negative log joint density; of one thread.
class scaled_objective {
 public:
  scaled_objective(const search_parameters& at, int subject, worker_scratch& scratch)
      : at_(at), subject_(subject), scratch_(scratch), means_(at.scale.size()) {
    at.joint.model().means(subject, at.theta.data(), means_.data());
  }

  double operator()(const Eigen::VectorXd& x) const {
    const Eigen::VectorXd eta = x.cwiseProduct(at_.scale);
    double squares = 0.0;
    ++scratch_.evaluations;
    return at_.joint.of_data(subject_, at_.theta.data(), means_ + eta, squares,
                             scratch_.densities) +
           at_.prior.negative_log(eta.data());
  }
  const Eigen::VectorXd& scale() const { return at_.scale; }

 private:
  const search_parameters& at_;
  int subject_;
  worker_scratch& scratch_;
  Eigen::VectorXd means_;
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

posterior_mode find_mode(const search_parameters& at, int subject, worker_scratch& scratch) {
  const scaled_objective f(at, subject, scratch);
  const std::optional<scaled_mode> by_newton = newton_search(f);
  const scaled_mode found = by_newton ? *by_newton : search_without_derivatives(f);
  const Eigen::VectorXd inverse_scale = f.scale().cwiseInverse();
  Eigen::MatrixXd hessian = inverse_scale.asDiagonal() * found.hessian * inverse_scale.asDiagonal();
  const bool definite = is_positive_definite(hessian);
  if (!definite)
    hessian = at.omega.llt().solve(Eigen::MatrixXd::Identity(at.omega.rows(), at.omega.cols()));
  return {found.x.cwiseProduct(f.scale()), found.value, hessian.llt().matrixL(), definite};
}

}  // namespace

posterior_mode find_mode(engine_host& host, int subject) {
  worker_scratch scratch(host.model());
  const posterior_mode found = find_mode(search_parameters(host), subject, scratch);
  host.count_evaluations(scratch.evaluations);
  return found;
}

std::vector<posterior_mode> find_own_modes(engine_host& host) {
  const search_parameters at(host);
  std::vector<posterior_mode> modes(static_cast<std::size_t>(host.model().subjects()));
  scratch_of_workers scratch(host);
  for_each_own_subject(host, evaluations_of_a_mode, [&](int i, int worker) {
    if (engine_host::stop_requested()) return;
    modes[static_cast<std::size_t>(i)] = find_mode(at, i, scratch[worker]);
  });
  host.count_evaluations(scratch.evaluations());
  return modes;
}

mode_search find_every_mode(engine_host& host) {
  const population_model& model = host.model();
  const int effects = model.random_effects();
  mode_search found;
  found.modes.setZero(effects, model.subjects());
  // Whether the Hessian was indefinite, the mode and the factor's lower triangle.
  Eigen::MatrixXd packed =
      Eigen::MatrixXd::Zero(1 + effects + effects * (effects + 1) / 2, model.subjects());
  {
    const std::vector<posterior_mode> own = find_own_modes(host);
    for (const int i : own_subjects(host)) {
      const posterior_mode& mode = own[static_cast<std::size_t>(i)];
      if (mode.eta.size() != effects) continue;  // a stop came first
      packed(0, i) = mode.definite ? 0.0 : 1.0;
      packed.col(i).segment(1, effects) = mode.eta;
      int at = 1 + effects;
      for (int column = 0; column < effects; ++column)
        for (int row = column; row < effects; ++row) packed(at++, i) = mode.factor(row, column);
    }
  }
  if (!engine_host::share(packed)) return found;
  for (int i = 0; i < model.subjects(); ++i) {
    if (packed(0, i) > 0.0) found.indefinite.push_back(i);
    found.modes.col(i) = packed.col(i).segment(1, effects);
    Eigen::MatrixXd& factor =
        found.hessian_factors.emplace_back(Eigen::MatrixXd::Zero(effects, effects));
    int at = 1 + effects;
    for (int column = 0; column < effects; ++column)
      for (int row = column; row < effects; ++row) factor(row, column) = packed(at++, i);
  }
  found.complete = true;
  return found;
}

}  // namespace varda
