// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/sampler_health.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace varda {

sampler_health sampler_health_of(const population_model& model, const likelihood_estimate& found,
                                 const std::vector<subject_health>& health, int points) {
  constexpr double clearly_more = 1.5;
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
  for (std::size_t i = 0; i < health.size(); ++i) {
    if (health[i].sick) result.sick.push_back(static_cast<int>(i));
    if (health[i].points > clearly_more * points) {
      ++result.subjects_with_more;
      result.most_points = std::max(result.most_points, health[i].points);
    }
    if (!std::isfinite(health[i].shape) || model.observations(static_cast<int>(i)) == 0) continue;
    if (!result.shaped || health[i].shape > result.largest_shape) {
      result.largest_shape = health[i].shape;
      result.largest_shape_subject = static_cast<int>(i);
    }
    result.shaped = true;
  }
  if (effective.empty()) return result;
  const auto middle = effective.begin() + static_cast<std::ptrdiff_t>(effective.size() / 2);
  std::nth_element(effective.begin(), middle, effective.end());
  result.median_effective = *middle;
  return result;
}

}  // namespace varda
