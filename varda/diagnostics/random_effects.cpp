// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/random_effects.h"

#include <cmath>
#include <limits>

#include "statsubs/stderr/eigencor.h"

namespace varda {

namespace {

constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

Eigen::VectorXd shrinkage(const population_model& model, const Eigen::MatrixXd& omega,
                          const likelihood_estimate& found) {
  Eigen::VectorXd result = Eigen::VectorXd::Constant(model.random_effects(), unknown);
  if (!found.complete) return result;
  for (const omega_element& e : model.omega_elements()) {
    if (!e.is_variance()) continue;
    double squares = 0.0;
    double count = 0.0;
    for (const auto& [effect, same] : e.places)
      for (int i = 0; i < model.subjects(); ++i) {
        if (!model.has_effect(i, effect)) continue;
        squares += std::pow(found.subjects[static_cast<std::size_t>(i)].mean(effect), 2);
        count += 1.0;
      }
    const double share = std::sqrt(squares / count / omega(e.row(), e.row()));
    for (const auto& [effect, same] : e.places) result(effect) = 1.0 - share;
  }
  return result;
}

Eigen::VectorXd coefficients_of_variation(const population_model& model,
                                          const Eigen::MatrixXd& omega) {
  Eigen::VectorXd result = Eigen::VectorXd::Constant(model.random_effects(), unknown);
  for (std::size_t e = 0; e < model.effects().size(); ++e) {
    const auto at = static_cast<Eigen::Index>(e);
    const auto parameter = static_cast<std::size_t>(model.effects()[e].parameter);
    if (model.thetas()[parameter].law == distribution::log_normal)
      result(at) = std::sqrt(std::expm1(omega(at, at)));
  }
  return result;
}

Eigen::MatrixXd correlations(const Eigen::MatrixXd& omega) {
  Eigen::MatrixXd result(omega.rows(), omega.cols());
  for (Eigen::Index i = 0; i < omega.rows(); ++i)
    for (Eigen::Index j = 0; j < omega.cols(); ++j)
      result(i, j) =
          i == j ? std::sqrt(omega(i, i)) : omega(i, j) / std::sqrt(omega(i, i) * omega(j, j));
  return result;
}

}  // namespace

random_effect_figures random_effect_figures_of(const population_model& model,
                                               const Eigen::MatrixXd& omega,
                                               const likelihood_estimate& found) {
  random_effect_figures result;
  result.shrinkage = shrinkage(model, omega, found);
  result.cv = coefficients_of_variation(model, omega);
  result.correlations = correlations(omega);
  return result;
}

double condition_of_correlations(const Eigen::MatrixXd& omega) {
  double condition = 0.0;
  const int n = static_cast<int>(omega.rows());
  statsubs::eigencor(omega.data(), n, n, condition);
  return condition;
}

}  // namespace varda
