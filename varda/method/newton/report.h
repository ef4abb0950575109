// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/inference/likelihood.h"
#include "varda/inference/standard_errors.h"
#include "varda/method/newton/newton.h"

namespace varda {

// What fresh points say of the parameters in force at the end of a fit.
struct newton_report {
  likelihood_estimate likelihood;
  std::vector<subject_health> health;  // of every subject; of one without observations, nothing
  sampled_errors errors;
  // Fixed effects that the data tell together and not apart: "V, S", an entry for each direction.
  std::vector<std::string> unidentified;
  double gain = 0.0;  // still ahead by these points, in -2 log-likelihood
  double noise = 0.0;
  // Newton's, of psi; empty where what is ahead does not follow from these points alone.
  Eigen::VectorXd step;

  template <class A>
  void visit(A& archive) {
    archive(likelihood, health, errors, unidentified, gain, noise, step);
  }
};

// One draw of `replicates` randomisations x `samples` points a subject, with the state's proposals:
// the likelihood with its error, the information and the scores come from the same points, none of
// which the fit has used. Collective. Not complete after a stop.
// Subjects that turn out badly sampled get better proposals, a few times.
newton_report report_at(engine_host& host, const newton_method& method, run_state& state,
                        int replicates, int samples);

}  // namespace varda
