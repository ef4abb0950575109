// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/model/population.h"
#include "varda/simulation/simulate.h"

namespace varda {

struct prediction_plan {
  int samples = 2000;  // a subject
  int seed = 1;
  int threads = 1;
  double lower = 0.05;  // ends of the band, as probabilities
  double upper = 0.95;
};

// What is known of a subject's random effects before: their conditional mean and covariance from a
// fit. Empty where nothing is.
struct conditional_moments {
  Eigen::VectorXd mean;
  Eigen::MatrixXd covariance;
};

// Predictions of one subject's wanted observations.
struct predicted_subject {
  Eigen::VectorXd population;  // at eta = 0
  Eigen::VectorXd individual;  // at the conditional mean of phi
  // Of the individual prediction given the subject's data, without residual error: quantiles of its
  // conditional distribution, by importance sampling.
  Eigen::VectorXd lower, upper;
  double effective_samples = 0.0;
};

// Predictions for `wanted` given the observations of `given`: two models of the same file and the
// same subjects, whose observations may differ. A subject without observations has the population's
// band. `moments`: of every subject, or none at all. The draws follow from the seed and the
// subject's position; the result is the same for any number of threads.
std::vector<predicted_subject> predict(const population_model& given,
                                       const population_model& wanted, const drawn_parameters& at,
                                       const std::vector<conditional_moments>& moments,
                                       const prediction_plan& plan);

}  // namespace varda
