// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/objective.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace varda {

int normal_observations(const population_model& model, int subject) {
  const auto& all = model.data().subjects[static_cast<std::size_t>(subject)].observations;
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const observation& at) {
    return model.observed().is_normal(at);
  }));
}

int normal_observations(const population_model& model) {
  int count = 0;
  for (int i = 0; i < model.subjects(); ++i) count += normal_observations(model, i);
  return count;
}

double without_constant(double minus2ll, int observations) {
  return minus2ll - observations * std::log(2.0 * std::numbers::pi);
}

namespace {

int estimated_quantities(const population_model& model) {
  int count = 0;
  for (const fixed_effect& t : model.thetas()) count += t.fixed ? 0 : 1;
  for (const omega_element& e : model.omega_elements()) count += e.fixed ? 0 : 1;
  return count;
}

int subjects_with_observations(const population_model& model) {
  int count = 0;
  for (int i = 0; i < model.subjects(); ++i) count += model.observations(i) > 0 ? 1 : 0;
  return count;
}

// BIC penalises by the number of independent units, which in a population model lies between the
// subjects and the observations: Delattre, Lavielle and Poursat (2014), Electron. J. Stat. 8,
// 456-475.
void take_criteria(const population_model& model, double minus2ll, objective_figures& result) {
  result.estimated = estimated_quantities(model);
  result.aic = minus2ll + 2.0 * result.estimated;
  result.bic_observations = minus2ll + result.estimated * std::log(model.data().observations());
  result.bic_subjects = minus2ll + result.estimated * std::log(subjects_with_observations(model));
}

}  // namespace

objective_figures objective_figures_of(const population_model& model,
                                       const likelihood_estimate& sampled,
                                       const quadrature_estimate& quadrature) {
  objective_figures result;
  const int observations = normal_observations(model);
  result.minus2ll = without_constant(sampled.minus2ll, observations);
  for (int i = 0; i < model.subjects() && sampled.complete; ++i)
    result.subjects.push_back(
        without_constant(-2.0 * sampled.subjects[static_cast<std::size_t>(i)].log_likelihood,
                         normal_observations(model, i)));
  take_criteria(model, sampled.minus2ll, result);
  if (!quadrature.complete) return result;
  result.by_quadrature = without_constant(quadrature.minus2ll, observations);
  for (int i = 0; i < model.subjects(); ++i)
    result.subjects_by_quadrature.push_back(
        without_constant(-2.0 * quadrature.log_likelihoods[static_cast<std::size_t>(i)],
                         normal_observations(model, i)));
  result.difference = quadrature.minus2ll - sampled.minus2ll;
  result.difference_in_mc_se = result.difference / sampled.mc_se;
  return result;
}

}  // namespace varda
