// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <vector>

#include "varda/inference/proposals.h"

namespace varda {

struct e_step {
  bool complete = false;  // false: a stop was asked for and the integrals are not all there
  double log_likelihood = 0.0;
  std::vector<subject_integral> subjects;
};

// Told of the samples of each subject (from 0) of this process that has observations, one after the
// other.
using sample_visitor = std::function<void(int subject, weighted_samples&)>;

// Integrates over the random effects of every subject with the parameters in force. A subject
// without observations contributes nothing: its integral is 1 and its conditional distribution the
// population's. Processes share the subjects; every one ends with all integrals. Collective.
// `result` is overwritten; handing in the last one saves its memory from being asked for again,
// subject by subject.
void integrate_all(engine_host& host, const proposals& from, const point_pass& pass, int samples,
                   e_step& result, const sample_visitor& visit = nullptr);

}  // namespace varda
