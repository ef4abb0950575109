// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <limits>
#include <vector>

#include "varda/host/integration.h"

namespace varda {

// How one subject's points stood at a verdict, all randomisations together.
struct subject_health {
  double effective_share = 0.0;  // effective samples / samples
  double largest_weight = 0.0;   // share of the total
  // Of the weights' tail (k-hat); not finite where too few samples weigh.
  double shape = std::numeric_limits<double>::quiet_NaN();
  double failed = 0.0;  // share of the samples in the bulk that cannot be evaluated
  double error = 0.0;   // of the subject's -2 log-likelihood
  bool sick = false;
  int points = 0;  // of one randomisation

  template <class A>
  void visit(A& archive) {
    archive(effective_share, largest_weight, shape, failed, error, sick, points);
  }
};

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

  template <class A>
  void visit(A& archive) {
    archive(complete, minus2ll, mc_se, replicates, by_subject, subjects);
  }
};

}  // namespace varda
