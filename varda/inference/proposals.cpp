// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/proposals.h"

#include <Eigen/Cholesky>
#include <cmath>

#include "varda/host/subjects.h"
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

namespace {

// Centres and factors that each process has found of its own subjects, a column each.
struct own_proposals {
  explicit own_proposals(const population_model& model)
      : effects(model.random_effects()),
        packed(Eigen::MatrixXd::Zero(1 + effects + Eigen::Index{effects} * effects,
                                     model.subjects())) {}

  void keep(int subject, bool known, const Eigen::VectorXd& centre, const Eigen::MatrixXd& factor) {
    packed.col(subject) << (known ? 1.0 : 0.0), centre, factor.reshaped();
  }
  bool known(int subject) const { return packed(0, subject) != 0.0; }
  Eigen::VectorXd centre(int subject) const { return packed.col(subject).segment(1, effects); }
  Eigen::MatrixXd factor(int subject) const {
    return packed.col(subject).tail(Eigen::Index{effects} * effects).reshaped(effects, effects);
  }

  int effects;
  Eigen::MatrixXd packed;
};

}  // namespace

bool propose_from_modes(engine_host& host, proposals& to) {
  const mode_search found = find_every_mode(host);
  if (!found.complete) return false;
  own_proposals own(host.model());
  Eigen::MatrixXd factor(own.effects, own.effects);
  for (const int i : own_subjects(host)) {
    factor.setZero();
    const auto at = static_cast<std::size_t>(i);
    const bool known = covariance_factor(host, i, found.hessian_factors[at], factor);
    own.keep(i, known, found.modes.col(i), factor);
  }
  if (!engine_host::share(own.packed)) return false;
  const Eigen::MatrixXd population = host.omega().llt().matrixL();
  for (int i = 0; i < host.model().subjects(); ++i) {
    if (host.model().observations(i) > 0 && !own.known(i)) to.count_kept_factor();
    to.set(i, found.modes.col(i), own.known(i) ? own.factor(i) : population);
  }
  return true;
}

bool propose_from_presamples(engine_host& host, proposals& to) {
  own_proposals own(host.model());
  proposal found;
  for (const int i : own_subjects(host)) {
    if (!presample(host, i, {point_pass::purpose::presampling, 0}, found)) break;
    own.keep(i, true, found.centre, found.factor);
  }
  if (!engine_host::share(own.packed)) return false;
  const Eigen::MatrixXd population = host.omega().llt().matrixL();
  for (int i = 0; i < host.model().subjects(); ++i)
    to.set(i, own.centre(i), own.known(i) ? own.factor(i) : population);
  return true;
}

}  // namespace varda
