// SPDX-License-Identifier: Apache-2.0
#include "varda/host/integration.h"

#include <stdexcept>

#include "statsubs/estep/fgintegrate.h"
#include "statsubs/estep/fgpresampledir2.h"
#include "statsubs/estep/sample_quality.h"
#include "statsubs/quadrature/agqintjoint.h"
#include "statsubs/quadrature/updatedecomp.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/stderr/qncurv.h"

namespace varda {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

namespace {

// The factor that the library keeps of a subject.
Eigen::MatrixXd kept_factor(int subject) {
  const auto slice = qv::choleskyfactor.slice(subject + 1);
  const Eigen::Map<const Eigen::MatrixXd> stored(slice.data(), slice.rows(), slice.columns());
  return stored.triangularView<Eigen::Lower>();
}

void leave_curvature(int subject, const Eigen::MatrixXd& hessian_factor) {
  const auto packed = gv::cholsub.column(subject + 1);
  int at = 1;
  for (Eigen::Index column = 0; column < hessian_factor.cols(); ++column)
    for (Eigen::Index row = column; row < hessian_factor.rows(); ++row)
      packed(at++) = hessian_factor(row, column);
}

}  // namespace

bool integrate(engine_host& host, int subject, const proposal& from, const point_pass& pass,
               weighted_samples& drawn, subject_integral& found) {
  const Eigen::Index effects = from.centre.size();
  const auto samples = static_cast<int>(drawn.weights.size());
  Eigen::Map<Eigen::VectorXd>(gv::xmusub.data(), effects) = from.centre;
  Eigen::Map<Eigen::MatrixXd>(gv::omegacholsub.data(), effects, effects) = from.factor;
  host.place_points(pass, subject, samples);
  statsubs::fgintegrate(subject + 1, samples, drawn.etas.data(), drawn.weights.data(),
                        found.log_likelihood);
  if (engine_host::stopped()) return false;

  found.mean = Eigen::Map<const Eigen::VectorXd>(gv::xmusubnew.data(), effects);
  found.covariance = Eigen::Map<const Eigen::MatrixXd>(gv::omegasubnew.data(), effects, effects);
  found.scaled_squares = gv::wtsumzscore;
  double rms = 0.0;
  double peak = 0.0;
  double informative = 0.0;
  statsubs::imp_merit(drawn.weights.data(), samples, rms, peak, informative);
  found.effective_samples = samples / (rms * rms);
  found.largest_weight = peak / samples;
  return true;
}

bool presample(engine_host& host, int subject, const point_pass& pass, proposal& found) {
  double log_likelihood = 0.0;
  int info = 0;
  host.place_points(pass, subject, gv::npresample);
  statsubs::fgpresampledir2(subject + 1, log_likelihood, info);
  if (engine_host::stopped()) return false;
  found.centre =
      Eigen::Map<const Eigen::VectorXd>(gv::xmusubnew.data(), host.model().random_effects());
  found.factor = kept_factor(subject);
  return true;
}

bool covariance_factor(engine_host&, int subject, const Eigen::MatrixXd& hessian_factor,
                       Eigen::MatrixXd& factor) {
  leave_curvature(subject, hessian_factor);
  int info = 0;
  statsubs::qncurv(subject + 1, info);
  if (info != 0) return false;
  factor = kept_factor(subject);
  return true;
}

bool integrate_on_grid(engine_host& host, int subject, const Eigen::VectorXd& mode,
                       const Eigen::MatrixXd& hessian_factor, int nodes, double& log_likelihood,
                       bool& placed) {
  leave_curvature(subject, hessian_factor);
  Eigen::Map<Eigen::VectorXd>(gv::xmusub.data(), host.model().random_effects()) = mode;
  int info = 0;
  statsubs::updatedecomp(subject + 1, info);
  placed = info == 0;
  statsubs::agqintjoint(subject + 1, nodes, log_likelihood, info);
  if (engine_host::stopped()) return false;
  // The model was checked for the size of its grid.
  if (info != 0) throw std::runtime_error("the nodes of the quadrature cannot be computed");
  return true;
}

}  // namespace varda
