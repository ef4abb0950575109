// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/objective.h"

#include <cmath>
#include <numbers>

namespace varda {

double without_constant(double minus2ll, int observations) {
  return minus2ll - observations * std::log(2.0 * std::numbers::pi);
}

objective_figures objective_figures_of(const population_model& model,
                                       const likelihood_estimate& sampled,
                                       const quadrature_estimate& quadrature) {
  objective_figures result;
  const int observations = model.data().observations();
  result.minus2ll = without_constant(sampled.minus2ll, observations);
  for (int i = 0; i < model.subjects() && sampled.complete; ++i)
    result.subjects.push_back(
        without_constant(-2.0 * sampled.subjects[static_cast<std::size_t>(i)].log_likelihood,
                         model.observations(i)));
  if (!quadrature.complete) return result;
  result.by_quadrature = without_constant(quadrature.minus2ll, observations);
  for (int i = 0; i < model.subjects(); ++i)
    result.subjects_by_quadrature.push_back(without_constant(
        -2.0 * quadrature.log_likelihoods[static_cast<std::size_t>(i)], model.observations(i)));
  result.difference = quadrature.minus2ll - sampled.minus2ll;
  result.difference_in_mc_se = result.difference / sampled.mc_se;
  return result;
}

}  // namespace varda
