// SPDX-License-Identifier: Apache-2.0
#include "varda/method/newton/report.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>

#include "varda/inference/estimation_scale.h"

namespace varda {

namespace {

// The derivatives of the quantities of the estimation scale by psi. All are polynomials of second
// degree in the entries of L or equal to psi, so that central differences are as good as exact.
Eigen::MatrixXd jacobian(const population_model& model, const coordinates& scale,
                         const Eigen::VectorXd& theta, const Eigen::MatrixXd& omega) {
  constexpr double step = 1e-5;
  const Eigen::VectorXd psi = scale.of(theta, omega);
  Eigen::MatrixXd result(scale.size(), scale.size());
  const auto values = [&](const Eigen::VectorXd& at) {
    Eigen::VectorXd moved_theta = theta;
    Eigen::MatrixXd moved_omega = omega;
    scale.put(at, moved_theta, moved_omega);
    return Eigen::VectorXd(estimation_scale(model, moved_theta, moved_omega).estimates());
  };
  for (Eigen::Index k = 0; k < psi.size(); ++k) {
    const Eigen::VectorXd by = step * Eigen::VectorXd::Unit(psi.size(), k);
    result.col(k) = (values(psi + by) - values(psi - by)) / (2.0 * step);
  }
  return result;
}

}  // namespace

namespace {

// What the derivatives of a draw say of the errors of the estimates.
void find_errors(const newton_method& method, const std::vector<weak_direction>& weak,
                 const draw_measure& found, const Eigen::MatrixXd& slopes, newton_report& result) {
  // A move of 1 along a flat direction that changes a quantity by more than this share of its error
  // leaves it without one.
  constexpr double touched = 0.3;
  sampled_errors& errors = result.errors;
  std::vector<Eigen::VectorXd> flat;
  for (const weak_direction& w : weak) {
    if (w.is_of_scores()) errors.from_scores.push_back(method.names_along(w.along));
    if (!w.is_flat()) continue;
    flat.push_back(w.along);
    if (method.is_of_fixed_effects(w.along))
      result.unidentified.push_back(method.names_along(w.along));
  }
  errors.information = method.invert(newton_method::strengthened(found.information, weak), flat);
  errors.known.assign(static_cast<std::size_t>(slopes.cols()), 1);
  if (errors.information.known) {
    Eigen::MatrixXd& covariance = errors.information.covariance;
    covariance = slopes * covariance * slopes.transpose();
    for (const Eigen::VectorXd& direction : flat) {
      const Eigen::VectorXd change = slopes * direction;
      for (Eigen::Index k = 0; k < change.size(); ++k)
        if (std::fabs(change(k)) > touched * std::sqrt(std::max(covariance(k, k), 0.0)))
          errors.known[static_cast<std::size_t>(k)] = 0;
    }
  }
  const Eigen::MatrixXd inverse = slopes.inverse();
  errors.scores = inverse.transpose() * found.outer_products * inverse;
}

}  // namespace

newton_report report_at(engine_host& host, const newton_method& method, run_state& state,
                        int replicates, int samples) {
  constexpr int most_repairs = 3;
  const population_model& model = host.model();
  const int effects = model.random_effects();
  newton_report result;
  const Eigen::VectorXd psi = method.scale().of(host.theta(), host.omega());
  draw_measure found;
  whole_draw drawn;
  if (!method.draw_once(state, {point_pass::purpose::report, state.newton.resumptions},
                        replicates * samples, replicates, drawn))
    return result;
  found = method.measure(drawn, psi, detail::derivatives);
  for (int repair = 0; repair < most_repairs && found.finite; ++repair) {
    bool changed = false;
    if (std::none_of(found.subjects.begin(), found.subjects.end(), is_sick)) break;
    if (!method.mend(state, psi, drawn, found, changed)) return result;
    if (!changed) break;
  }
  if (engine_host::stopped()) return result;
  std::vector<weak_direction> weak;
  if (found.finite) {
    weak = method.weak_directions(drawn, psi, found);
    method.stiffen(weak, drawn, psi, found);
  }
  if (engine_host::stopped()) return result;
  result.gain = found.gain;
  result.noise = found.noise;
  if (method.trusts_step(found)) result.step = found.step;

  // Moments stand on the process that owns the subject.
  host.peers().gather(found.moments.data(), found.moments.rows(), found.moments.cols());

  likelihood_estimate& likelihood = result.likelihood;
  likelihood.minus2ll = -2.0 * found.log_likelihood;
  likelihood.mc_se = found.error();
  likelihood.replicates.assign(static_cast<std::size_t>(replicates), 0.0);
  likelihood.by_subject = found.group_log_likelihood;
  Eigen::VectorXd mu(effects);
  for (int i = 0; i < model.subjects(); ++i) {
    subject_integral& s = likelihood.subjects.emplace_back();
    s.mean = Eigen::VectorXd::Zero(effects);
    s.covariance = host.omega();
    subject_health& health = result.health.emplace_back();
    if (model.observations(i) == 0) continue;
    const subject_measure& m = found.subjects[static_cast<std::size_t>(i)];
    model.means(i, host.theta().data(), mu.data());
    s.log_likelihood = m.log_likelihood;
    s.mean = found.moments.col(i).head(effects) - mu;
    s.covariance = found.moments.col(i).tail(effects * effects).reshaped(effects, effects);
    s.scaled_squares = m.scaled_squares;
    const int points = drawn.plan.samples_of_group(*components_of(model, drawn, i));
    s.effective_samples = m.effective_share * points;
    // Of one randomisation's points, as the effective samples are.
    s.largest_weight = std::min(m.largest_weight * replicates, 1.0);
    health = {m.effective_share, m.largest_weight, m.shape, m.failed, m.error, is_sick(m), points};
    for (int r = 0; r < replicates; ++r)
      likelihood.replicates[static_cast<std::size_t>(r)] -= 2.0 * likelihood.by_subject(r, i);
  }
  likelihood.complete = found.finite;
  if (found.finite)
    find_errors(method, weak, found, jacobian(model, method.scale(), host.theta(), host.omega()),
                result);
  return result;
}

}  // namespace varda
