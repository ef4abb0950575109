// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/likelihood.h"

#include <algorithm>
#include <cmath>

namespace varda {

likelihood_estimate estimate_likelihood(engine_host& host, const proposals& frozen,
                                        point_source& points, int samples, int replicates) {
  likelihood_estimate result;
  const int effects = host.model().random_effects();
  subject_integral zero;
  zero.mean = Eigen::VectorXd::Zero(effects);
  zero.covariance = Eigen::MatrixXd::Zero(effects, effects);
  result.subjects.assign(static_cast<std::size_t>(host.model().subjects()), zero);

  const double share = 1.0 / replicates;
  for (int r = 1; r <= replicates; ++r) {
    points.begin_replicate(r);
    const e_step found = integrate(host, frozen, samples);
    if (!found.complete) return result;
    result.replicates.push_back(-2.0 * found.log_likelihood);
    for (std::size_t i = 0; i < result.subjects.size(); ++i) {
      subject_integral& mean = result.subjects[i];
      const subject_integral& one = found.subjects[i];
      mean.log_likelihood += share * one.log_likelihood;
      mean.mean += share * one.mean;
      mean.covariance += share * one.covariance;
      mean.scaled_squares += share * one.scaled_squares;
      mean.effective_samples += share * one.effective_samples;
      mean.largest_weight = std::max(mean.largest_weight, one.largest_weight);
    }
  }

  double sum = 0.0;
  for (const double value : result.replicates) sum += value;
  result.minus2ll = sum * share;
  double squares = 0.0;
  for (const double value : result.replicates)
    squares += (value - result.minus2ll) * (value - result.minus2ll);
  result.mc_se = std::sqrt(squares / (replicates - 1.0) / replicates);
  result.complete = true;
  return result;
}

}  // namespace varda
