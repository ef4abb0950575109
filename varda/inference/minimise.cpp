// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/minimise.h"

#include <nlopt.h>

#include <cmath>
#include <limits>
#include <memory>

namespace varda {

namespace {

struct problem {
  const objective_function& f;
  Eigen::VectorXd x;
};

// The quadratic models of BOBYQA must not see infinities.
constexpr double very_large = 1e30;

double evaluate(unsigned n, const double* x, double* /*gradient*/, void* data) {
  problem& p = *static_cast<problem*>(data);
  p.x = Eigen::Map<const Eigen::VectorXd>(x, static_cast<Eigen::Index>(n));
  const double value = p.f(p.x);
  return std::isfinite(value) ? value : very_large;
}

}  // namespace

minimum minimise(const objective_function& f, const Eigen::VectorXd& start,
                 const Eigen::VectorXd& step, const Eigen::VectorXd& lower,
                 const Eigen::VectorXd& upper, double precision) {
  const auto n = static_cast<unsigned>(start.size());
  // BOBYQA needs two dimensions at least; Subplex is the derivative-free search for one.
  const nlopt_algorithm algorithm = n == 1 ? NLOPT_LN_SBPLX : NLOPT_LN_BOBYQA;
  const std::unique_ptr<nlopt_opt_s, void (*)(nlopt_opt)> search(nlopt_create(algorithm, n),
                                                                 nlopt_destroy);
  problem p{f, start};
  nlopt_set_min_objective(search.get(), evaluate, &p);
  nlopt_set_lower_bounds(search.get(), lower.data());
  nlopt_set_upper_bounds(search.get(), upper.data());
  nlopt_set_initial_step(search.get(), step.data());
  nlopt_set_xtol_abs1(search.get(), precision);
  nlopt_set_maxeval(search.get(), 2000 * static_cast<int>(n));

  minimum result;
  result.x = start.cwiseMax(lower).cwiseMin(upper);
  const nlopt_result status = nlopt_optimize(search.get(), result.x.data(), &result.value);
  // Rounding stops a search at the bottom of a flat valley: the best point is an answer there too.
  result.found = status > 0 || status == NLOPT_ROUNDOFF_LIMITED;
  return result;
}

minimum minimise(const objective_function& f, const Eigen::VectorXd& start,
                 const Eigen::VectorXd& step, double precision) {
  const Eigen::VectorXd infinite =
      Eigen::VectorXd::Constant(start.size(), std::numeric_limits<double>::infinity());
  return minimise(f, start, step, -infinite, infinite, precision);
}

difference_stencil::difference_stencil(const Eigen::VectorXd& centre, const Eigen::VectorXd& step)
    : step_(step) {
  const Eigen::Index n = centre.size();
  points_ = centre.replicate(1, 1 + 2 * n * n);
  Eigen::Index at = 1;
  for (Eigen::Index i = 0; i < n; ++i)
    for (const double side : {1.0, -1.0}) points_(i, at++) += side * step(i);
  for (Eigen::Index i = 0; i < n; ++i)
    for (Eigen::Index j = 0; j < i; ++j)
      for (const double side_i : {1.0, -1.0})
        for (const double side_j : {1.0, -1.0}) {
          points_(i, at) += side_i * step(i);
          points_(j, at++) += side_j * step(j);
        }
}

Eigen::VectorXd difference_stencil::gradient(const Eigen::VectorXd& values) const {
  Eigen::VectorXd slopes(step_.size());
  for (Eigen::Index i = 0; i < step_.size(); ++i)
    slopes(i) = (values(1 + 2 * i) - values(2 + 2 * i)) / (2.0 * step_(i));
  return slopes;
}

Eigen::VectorXd difference_stencil::curvatures(const Eigen::VectorXd& values) const {
  Eigen::VectorXd diagonal(step_.size());
  for (Eigen::Index i = 0; i < step_.size(); ++i)
    diagonal(i) = (values(1 + 2 * i) - 2.0 * values(0) + values(2 + 2 * i)) / (step_(i) * step_(i));
  return diagonal;
}

Eigen::MatrixXd difference_stencil::hessian(const Eigen::VectorXd& values) const {
  Eigen::MatrixXd h = curvatures(values).asDiagonal();
  Eigen::Index at = 1 + 2 * step_.size();
  for (Eigen::Index i = 0; i < step_.size(); ++i)
    for (Eigen::Index j = 0; j < i; ++j, at += 4) {
      h(i, j) = (values(at) - values(at + 1) - values(at + 2) + values(at + 3)) /
                (4.0 * step_(i) * step_(j));
      h(j, i) = h(i, j);
    }
  return h;
}

Eigen::MatrixXd hessian(const objective_function& f, const Eigen::VectorXd& x,
                        const Eigen::VectorXd& step) {
  const difference_stencil stencil(x, step);
  Eigen::VectorXd values(stencil.points().cols());
  for (Eigen::Index k = 0; k < values.size(); ++k) values(k) = f(stencil.points().col(k));
  return stencil.hessian(values);
}

}  // namespace varda
