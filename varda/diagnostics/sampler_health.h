// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/inference/likelihood.h"
#include "varda/model/population.h"

namespace varda {

// How well the points stood, over the subjects with observations: the effective samples of the
// median and of the worst subject, and the largest weight that a single point had.
struct sampler_health {
  double median_effective = 0.0;  // the upper one of an even number of subjects
  double least_effective = 0.0;
  int least_effective_subject = 0;  // from 0
  double largest_weight = 0.0;      // share of the subject's total
  int largest_weight_subject = 0;
};

// All zero where the likelihood is not known.
sampler_health sampler_health_of(const population_model& model, const likelihood_estimate& found);

}  // namespace varda
