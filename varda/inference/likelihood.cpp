// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/likelihood.h"

#include <algorithm>
#include <cmath>

namespace varda {

namespace {

// log of the mean of exp(x): the logarithm of an unbiased estimate of the likelihood. The mean of
// the logarithms would lie below it by half their variance.
double log_mean_exp(const Eigen::VectorXd& x) {
  const double largest = x.maxCoeff();
  return largest + std::log((x.array() - largest).exp().mean());
}

double standard_error_of_mean(const std::vector<double>& values) {
  const Eigen::Map<const Eigen::ArrayXd> x(values.data(), static_cast<Eigen::Index>(values.size()));
  const auto n = static_cast<double>(values.size());
  return std::sqrt((x - x.mean()).square().sum() / (n - 1.0) / n);
}

}  // namespace

likelihood_estimate estimate_likelihood(engine_host& host, const proposals& frozen,
                                        point_source& points, int samples, int replicates) {
  likelihood_estimate result;
  const int effects = host.model().random_effects();
  subject_integral zero;
  zero.mean = Eigen::VectorXd::Zero(effects);
  zero.covariance = Eigen::MatrixXd::Zero(effects, effects);
  result.subjects.assign(static_cast<std::size_t>(host.model().subjects()), zero);

  Eigen::MatrixXd log_likelihoods(replicates, host.model().subjects());
  const double share = 1.0 / replicates;
  e_step found;
  for (int r = 1; r <= replicates; ++r) {
    points.begin_replicate(r, samples);
    integrate(host, frozen, samples, found);
    if (!found.complete) return result;
    result.replicates.push_back(-2.0 * found.log_likelihood);
    for (std::size_t i = 0; i < result.subjects.size(); ++i) {
      subject_integral& mean = result.subjects[i];
      const subject_integral& one = found.subjects[i];
      log_likelihoods(r - 1, static_cast<Eigen::Index>(i)) = one.log_likelihood;
      mean.mean += share * one.mean;
      mean.covariance += share * one.covariance;
      mean.scaled_squares += share * one.scaled_squares;
      mean.effective_samples += share * one.effective_samples;
      mean.largest_weight = std::max(mean.largest_weight, one.largest_weight);
    }
  }
  for (std::size_t i = 0; i < result.subjects.size(); ++i) {
    result.subjects[i].log_likelihood =
        log_mean_exp(log_likelihoods.col(static_cast<Eigen::Index>(i)));
    result.minus2ll -= 2.0 * result.subjects[i].log_likelihood;
  }
  result.mc_se = standard_error_of_mean(result.replicates);
  result.complete = true;
  return result;
}

}  // namespace varda
