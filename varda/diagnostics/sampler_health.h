// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

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
  // From the points of the verdict, where there were any.
  bool shaped = false;         // whether any subject's weights have a tail to speak of
  double largest_shape = 0.0;  // k-hat
  int largest_shape_subject = 0;
  std::vector<int> sick;  // subjects (from 0) that are badly sampled
  // Subjects with clearly more points than the others have, and the most that one of them has.
  int subjects_with_more = 0;
  int most_points = 0;
};

// All zero where the likelihood is not known. `health`: of every subject, or empty. `points`: of a
// subject in one randomisation, without those that it has besides.
sampler_health sampler_health_of(const population_model& model, const likelihood_estimate& found,
                                 const std::vector<subject_health>& health, int points);

}  // namespace varda
