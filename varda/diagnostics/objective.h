// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "varda/inference/likelihood.h"
#include "varda/inference/quadrature.h"
#include "varda/model/population.h"

namespace varda {

// -2 log-likelihoods without the constant N log(2 pi) of their N observations that have residual
// errors (normal endpoints), and how the
// quadrature and the sampled likelihood compare.
struct objective_figures {
  double minus2ll = 0.0;
  // Of -2 log-likelihood with all its constants and the quantities that were estimated: AIC, and
  // BIC with the number of observations or of subjects that have some.
  int estimated = 0;
  double aic = 0.0;
  double bic_observations = 0.0;
  double bic_subjects = 0.0;
  std::vector<double> subjects;
  double by_quadrature = 0.0;                  // 0 without a quadrature
  std::vector<double> subjects_by_quadrature;  // empty without a quadrature
  // The quadrature's value less the sampled one, and in units of the latter's Monte Carlo error.
  double difference = 0.0;
  double difference_in_mc_se = 0.0;
};

// Observations with a residual error: of a subject, and of all.
int normal_observations(const population_model& model, int subject);
int normal_observations(const population_model& model);

double without_constant(double minus2ll, int observations);

objective_figures objective_figures_of(const population_model& model,
                                       const likelihood_estimate& sampled,
                                       const quadrature_estimate& quadrature);

}  // namespace varda
