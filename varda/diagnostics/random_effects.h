// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>

#include "varda/inference/likelihood.h"
#include "varda/model/population.h"

namespace varda {

// What omega and the conditional means say of the random effects.
struct random_effect_figures {
  // Per random effect: 1 - sqrt(mean of the squared conditional means / omega), over the subjects
  // that have it; effects per occasion count together. NaN where the likelihood is not known.
  Eigen::VectorXd shrinkage;
  // Per random effect the coefficient of variation of a log-normal parameter, sqrt(exp(omega) - 1);
  // NaN for other parameters.
  Eigen::VectorXd cv;
  Eigen::MatrixXd correlations;  // of omega; the standard deviations in the diagonal
};

random_effect_figures random_effect_figures_of(const population_model& model,
                                               const Eigen::MatrixXd& omega,
                                               const likelihood_estimate& found);

// Condition number of omega scaled to a correlation matrix. The library records its eigenvalues.
double condition_of_correlations(const Eigen::MatrixXd& omega);

}  // namespace varda
