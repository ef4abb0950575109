// SPDX-License-Identifier: Apache-2.0
#include "varda/host/proposals.h"

#include <Eigen/Cholesky>
#include <cmath>

#include "statsubs/estep/fgpresampledir2.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/stderr/qncurv.h"
#include "varda/inference/modes.h"

namespace varda {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

namespace {

// Effective samples per random effect that a covariance is trusted by itself with, as in the
// library's presampling; and the share of one that is singular for all that.
constexpr double enough_per_effect = 5.0;
constexpr double trust_in_a_singular_one = 0.5;

}  // namespace

proposals::proposals(engine_host& host)
    : host_(host),
      centres_(Eigen::MatrixXd::Zero(host.model().random_effects(), host.model().subjects())),
      widening_(std::pow(host.model().specification().estimation.acceptance_ratio,
                         -1.0 / host.model().random_effects())) {
  for (int i = 0; i < host.model().subjects(); ++i) set_factor(i, host.omega().llt().matrixL());
}

bool proposals::from_modes() {
  const mode_search found = find_every_mode(host_);
  if (!found.complete) return false;
  centres_ = found.modes;
  for (int i = 0; i < host_.model().subjects(); ++i) {
    int info = 0;
    statsubs::qncurv(i + 1, info);
    if (info != 0) {
      set_factor(i, host_.omega().llt().matrixL());
      ++kept_factors_;
    }
  }
  return true;
}

bool proposals::from_presamples() {
  centres_.setZero();
  for (int i = 0; i < host_.model().subjects(); ++i) {
    if (host_.model().observations(i) == 0) continue;
    double log_likelihood = 0.0;
    int info = 0;
    statsubs::fgpresampledir2(i + 1, log_likelihood, info);
    if (engine_host::stopped()) return false;
    centres_.col(i) = Eigen::Map<const Eigen::VectorXd>(gv::xmusubnew.data(), centres_.rows());
  }
  return true;
}

Eigen::MatrixXd proposals::factor(int subject) const {
  const auto slice = qv::choleskyfactor.slice(subject + 1);
  const Eigen::Map<const Eigen::MatrixXd> stored(slice.data(), slice.rows(), slice.columns());
  return stored.triangularView<Eigen::Lower>();
}

void proposals::set_factor(int subject, const Eigen::MatrixXd& lower) {
  const auto slice = qv::choleskyfactor.slice(subject + 1);
  Eigen::Map<Eigen::MatrixXd>(slice.data(), slice.rows(), slice.columns()) = lower;
}

proposals::state proposals::snapshot() const {
  state result{centres_, {}, kept_factors_};
  for (int i = 0; i < host_.model().subjects(); ++i) result.factors.push_back(factor(i));
  return result;
}

void proposals::restore(const state& from) {
  centres_ = from.centres;
  for (int i = 0; i < host_.model().subjects(); ++i)
    set_factor(i, from.factors[static_cast<std::size_t>(i)]);
  kept_factors_ = from.kept_factors;
}

void proposals::offer(int subject) const {
  const Eigen::Index n = centres_.rows();
  const auto slice = qv::choleskyfactor.slice(subject + 1);
  const Eigen::Map<const Eigen::MatrixXd> stored(slice.data(), n, n);
  Eigen::Map<Eigen::VectorXd>(gv::xmusub.data(), n) = centres_.col(subject);
  Eigen::Map<Eigen::MatrixXd> offered(gv::omegacholsub.data(), n, n);
  offered.setZero();
  offered.triangularView<Eigen::Lower>() = widening_ * stored;
}

void proposals::follow(int subject, const Eigen::VectorXd& mean, const Eigen::MatrixXd& covariance,
                       double effective_samples) {
  const Eigen::LLT<Eigen::MatrixXd> lower(covariance);
  const bool definite = mean.allFinite() && lower.info() == Eigen::Success;
  const auto effects = static_cast<double>(centres_.rows());
  if (!definite || effective_samples <= effects + 1.0) ++kept_factors_;
  if (!mean.allFinite()) return;

  const Eigen::VectorXd moved = mean - centres_.col(subject);
  centres_.col(subject) = mean;
  const double trust = effective_samples / (enough_per_effect * effects);
  if (definite && trust >= 1.0) return set_factor(subject, lower.matrixL());
  const double share = trust < 1.0 ? trust : trust_in_a_singular_one;
  const Eigen::MatrixXd last = factor(subject);
  const Eigen::MatrixXd blended =
      share * covariance +
      (1.0 - share) * (last * last.transpose() + share * moved * moved.transpose());
  const Eigen::LLT<Eigen::MatrixXd> blended_lower(blended);
  if (blended_lower.info() == Eigen::Success) set_factor(subject, blended_lower.matrixL());
}

}  // namespace varda
