// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/proposals.h"

#include <Eigen/Cholesky>
#include <cmath>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/stderr/qncurv.h"
#include "varda/fit/modes.h"

namespace varda {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

namespace {

// A factor that is kept grows by this much, so that a proposal which missed the mass finds it.
constexpr double rescue_widening = 1.5;

}  // namespace

proposals::proposals(engine_host& host)
    : host_(host),
      centres_(Eigen::MatrixXd::Zero(host.model().random_effects(), host.model().subjects())),
      widening_(std::pow(host.model().file().estimation.acceptance_ratio,
                         -1.0 / host.model().random_effects())) {
  for (int i = 0; i < host.model().subjects(); ++i) set_factor(i, host.omega().llt().matrixL());
}

bool proposals::from_modes() {
  const population_model& model = host_.model();
  const int effects = model.random_effects();
  centres_.setZero();
  int stop = 0;
  for (int i = 0; i < model.subjects() && stop == 0; ++i) {
    stop = statsubs::host::stoprequested();
    // The library's rule: subject i, from 1, belongs to the process mod(i, numprocs).
    if ((i + 1) % host_.peers().size() != host_.peers().rank() || model.observations(i) == 0)
      continue;
    const posterior_mode found = find_mode(host_, i);
    centres_.col(i) = found.eta;
    const Eigen::MatrixXd lower = curvature_factor(host_, i, found.eta);
    int packed = 1;
    for (int column = 0; column < effects; ++column)
      for (int row = column; row < effects; ++row)
        gv::cholsub(packed++, i + 1) = lower(row, column);
  }
  statsubs::host::checkforstop(stop);
  if (engine_host::stopped()) return false;

  host_.peers().sum(centres_.data(), static_cast<int>(centres_.size()));
  for (int i = 0; i < model.subjects(); ++i) {
    int info = 0;
    statsubs::qncurv(i + 1, info);
    if (info != 0) {
      set_factor(i, host_.omega().llt().matrixL());
      ++kept_factors_;
    }
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

void proposals::offer(int subject) const {
  const Eigen::Index n = centres_.rows();
  Eigen::Map<Eigen::VectorXd>(gv::xmusub.data(), n) = centres_.col(subject);
  Eigen::Map<Eigen::MatrixXd>(gv::omegacholsub.data(), n, n) = widening_ * factor(subject);
}

void proposals::follow(int subject, const Eigen::VectorXd& mean, const Eigen::MatrixXd& covariance,
                       double effective_samples) {
  centres_.col(subject) = mean;
  const Eigen::LLT<Eigen::MatrixXd> lower(covariance);
  const double enough = static_cast<double>(centres_.rows()) + 1.0;
  if (lower.info() == Eigen::Success && effective_samples > enough) {
    set_factor(subject, lower.matrixL());
    return;
  }
  set_factor(subject, rescue_widening * factor(subject));
  ++kept_factors_;
}

}  // namespace varda
