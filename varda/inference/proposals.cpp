// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/proposals.h"

#include <Eigen/Cholesky>
#include <cmath>

#include "varda/inference/modes.h"

namespace varda {

namespace {

// Effective samples per random effect that a covariance is trusted by itself with, as in the
// library's presampling; and the share of one that is singular for all that.
constexpr double enough_per_effect = 5.0;
constexpr double trust_in_a_singular_one = 0.5;

}  // namespace

proposals::proposals(const population_model& model, const Eigen::MatrixXd& omega)
    : centres_(Eigen::MatrixXd::Zero(model.random_effects(), model.subjects())),
      factors_(static_cast<std::size_t>(model.subjects()), omega.llt().matrixL()),
      widening_(std::pow(model.specification().estimation.acceptance_ratio,
                         -1.0 / model.random_effects())) {}

proposal proposals::of(int subject) const {
  return {centres_.col(subject), widening_ * factors_[static_cast<std::size_t>(subject)]};
}

void proposals::set(int subject, const Eigen::VectorXd& centre, const Eigen::MatrixXd& factor) {
  centres_.col(subject) = centre;
  factors_[static_cast<std::size_t>(subject)] = factor;
}

void proposals::follow(int subject, const Eigen::VectorXd& mean, const Eigen::MatrixXd& covariance,
                       double effective_samples) {
  const auto at = static_cast<std::size_t>(subject);
  const Eigen::LLT<Eigen::MatrixXd> lower(covariance);
  const bool definite = mean.allFinite() && lower.info() == Eigen::Success;
  const auto effects = static_cast<double>(centres_.rows());
  if (!definite || effective_samples <= effects + 1.0) ++kept_factors_;
  if (!mean.allFinite()) return;

  const Eigen::VectorXd moved = mean - centres_.col(subject);
  centres_.col(subject) = mean;
  const double trust = effective_samples / (enough_per_effect * effects);
  if (definite && trust >= 1.0) {
    factors_[at] = lower.matrixL();
    return;
  }
  const double share = trust < 1.0 ? trust : trust_in_a_singular_one;
  const Eigen::MatrixXd last = factors_[at];
  const Eigen::MatrixXd blended =
      share * covariance +
      (1.0 - share) * (last * last.transpose() + share * moved * moved.transpose());
  const Eigen::LLT<Eigen::MatrixXd> blended_lower(blended);
  if (blended_lower.info() == Eigen::Success) factors_[at] = blended_lower.matrixL();
}

bool propose_from_modes(engine_host& host, proposals& to) {
  const mode_search found = find_every_mode(host);
  if (!found.complete) return false;
  for (int i = 0; i < host.model().subjects(); ++i) {
    const auto at = static_cast<std::size_t>(i);
    Eigen::MatrixXd factor = host.omega().llt().matrixL();
    if (host.model().observations(i) > 0 &&
        !covariance_factor(host, i, found.hessian_factors[at], factor))
      to.count_kept_factor();
    to.set(i, found.modes.col(i), factor);
  }
  return true;
}

bool propose_from_presamples(engine_host& host, proposals& to) {
  proposal found;
  for (int i = 0; i < host.model().subjects(); ++i) {
    found = {Eigen::VectorXd::Zero(host.omega().rows()), host.omega().llt().matrixL()};
    if (host.model().observations(i) > 0 &&
        !presample(host, i, {point_pass::purpose::presampling, 0}, found))
      return false;
    to.set(i, found.centre, found.factor);
  }
  return true;
}

}  // namespace varda
