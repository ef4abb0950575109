// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "varda/inference/e_step.h"

namespace varda {

// The exact -2 log-likelihood at the parameters in force, with the error of its own.
struct likelihood_estimate {
  bool complete = false;
  double minus2ll = 0.0;           // every constant included, of all replicates together
  double mc_se = 0.0;              // from the variances of the subjects' replicates
  std::vector<double> replicates;  // -2 log-likelihood of each
  Eigen::MatrixXd by_subject;      // log-likelihoods, replicates x subjects
  // Per subject the means over the replicates, of the likelihood itself and not of its logarithm;
  // the largest weight is the largest of all.
  std::vector<subject_integral> subjects;
};

// From replicates with fresh points and the proposals frozen. The points that the proposals were
// tuned on would give a value that is too good by several of its errors.
likelihood_estimate estimate_likelihood(engine_host& host, const proposals& frozen, int samples,
                                        int replicates);

}  // namespace varda
