// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/draws.h"

namespace varda {

// Puts the moments that samples of a density gave in its place: `moments` are the mean, the
// covariance by columns and, or not, the third moments of subject_details. With many random effects
// and few samples the covariance is a blend with the density's own.
void follow_moments(const Eigen::VectorXd& moments, double effective_share,
                    double effective_samples, draw_component& density);

// Effective samples with which moments are better than what a badly sampled subject was drawn from:
// ten for each entry of the covariance, and less of each where there are many.
double enough_for_moments(Eigen::Index random_effects);

// Of all components.
double total_share(const std::vector<draw_component>& of);

}  // namespace varda
