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

// The error of -2 log-likelihood: every subject's replicates tell the variance of its likelihood,
// and the subjects' points are independent, so that the variances add up. The standard deviation of
// a few replicates of the total would itself be known only roughly.
double pooled_error(const Eigen::MatrixXd& log_likelihoods) {
  const auto n = static_cast<double>(log_likelihoods.rows());
  double variance = 0.0;
  for (Eigen::Index i = 0; i < log_likelihoods.cols(); ++i) {
    const Eigen::VectorXd x = log_likelihoods.col(i);
    const Eigen::ArrayXd ratio = (x.array() - log_mean_exp(x)).exp();
    variance += (ratio - 1.0).square().sum() / (n - 1.0) / n;
  }
  return 2.0 * std::sqrt(variance);
}

}  // namespace

likelihood_estimate estimate_likelihood(engine_host& host, const proposals& frozen, int samples,
                                        int replicates) {
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
    integrate_all(host, frozen, {point_pass::purpose::replicate, r}, samples, found);
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
  result.mc_se = pooled_error(log_likelihoods);
  result.by_subject = log_likelihoods;
  result.complete = true;
  return result;
}

}  // namespace varda
