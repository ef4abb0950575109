// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/sampler_health.h"

#include <algorithm>
#include <vector>

namespace varda {

sampler_health sampler_health_of(const population_model& model, const likelihood_estimate& found) {
  sampler_health result;
  if (!found.complete) return result;
  std::vector<double> effective;
  for (int i = 0; i < model.subjects(); ++i) {
    if (model.observations(i) == 0) continue;
    const subject_integral& s = found.subjects[static_cast<std::size_t>(i)];
    if (effective.empty() || s.effective_samples < result.least_effective) {
      result.least_effective = s.effective_samples;
      result.least_effective_subject = i;
    }
    if (s.largest_weight > result.largest_weight) {
      result.largest_weight = s.largest_weight;
      result.largest_weight_subject = i;
    }
    effective.push_back(s.effective_samples);
  }
  if (effective.empty()) return result;
  const auto middle = effective.begin() + static_cast<std::ptrdiff_t>(effective.size() / 2);
  std::nth_element(effective.begin(), middle, effective.end());
  result.median_effective = *middle;
  return result;
}

}  // namespace varda
