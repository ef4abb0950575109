// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/minimise.h"

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

Eigen::MatrixXd hessian(const objective_function& f, const Eigen::VectorXd& x,
                        const Eigen::VectorXd& step) {
  const Eigen::Index n = x.size();
  const double centre = f(x);
  Eigen::MatrixXd h(n, n);
  Eigen::VectorXd at = x;
  const auto shifted = [&](Eigen::Index i, double di, Eigen::Index j, double dj) {
    at = x;
    at(i) += di * step(i);
    if (j != i) at(j) += dj * step(j);
    return f(at);
  };
  for (Eigen::Index i = 0; i < n; ++i) {
    h(i, i) = (shifted(i, 1, i, 0) - 2.0 * centre + shifted(i, -1, i, 0)) / (step(i) * step(i));
    for (Eigen::Index j = 0; j < i; ++j) {
      h(i, j) = (shifted(i, 1, j, 1) - shifted(i, 1, j, -1) - shifted(i, -1, j, 1) +
                 shifted(i, -1, j, -1)) /
                (4.0 * step(i) * step(j));
      h(j, i) = h(i, j);
    }
  }
  return h;
}

}  // namespace varda
