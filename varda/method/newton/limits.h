// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "varda/host/draws.h"

namespace varda::newton_limits {

// Points a subject, for up to four random effects: of the first draw, the least for a verdict (on
// up to so many subjects), of a trial, the most.
inline constexpr int first_samples = 64;
inline constexpr int verdict_samples = 256;
inline constexpr double subjects_of_verdict_samples = 25000.0;
inline constexpr int trial_samples = 1024;
inline constexpr int most_samples_of_a_draw = 4096;
inline constexpr int groups_of_a_draw = 4;

// What the samples of a draw may take in a process where an evaluation is dear, and where it is
// not, in bytes.
inline constexpr std::size_t memory_of_dear_draws = 1024UL << 20;
inline constexpr std::size_t memory_of_cheap_draws = 128UL << 20;

// About what a subject takes beside its samples: where there are many, fewer samples are kept.
inline constexpr std::size_t bytes_beside_samples = 1024;
inline std::size_t memory_for_samples(std::size_t memory, std::size_t subjects) {
  const std::size_t beside = subjects * bytes_beside_samples;
  return std::max(memory - std::min(memory, beside), memory / 8);
}

// Of the information with unit diagonal.
inline constexpr double least_eigenvalue = 1e-3;

// Of log L_aa: a variance that is poorly determined.
inline constexpr double undetermined_error = 1.5;

// A proposal's volume to that of the conditional covariance, as in the settings' acceptance ratio.
inline constexpr double target_ratio = 0.5;

// A proposal of one normal density with this covariance, widened.
inline std::vector<draw_component> single(const Eigen::VectorXd& centre,
                                          const Eigen::MatrixXd& covariance, double ratio) {
  const double widening = std::pow(ratio, -1.0 / static_cast<double>(centre.size()));
  return {{1.0, centre, widening * Eigen::MatrixXd(covariance.llt().matrixL())}};
}

}  // namespace varda::newton_limits
