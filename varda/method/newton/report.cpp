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

newton_report report_at(engine_host& host, const newton_method& method, run_state& state,
                        int replicates, int samples) {
  constexpr int most_repairs = 3;
  // With so many points a subject's error is known: a tail that does not show in it is harmless.
  constexpr double harmless_error = 0.03;
  const auto is_bad = [](const subject_measure& m) {
    return is_sick(m) && m.error > harmless_error;
  };
  const population_model& model = host.model();
  const int effects = model.random_effects();
  newton_report result;
  const Eigen::VectorXd psi = method.scale().of(host.theta(), host.omega());
  draw_measure found;
  for (int repair = 0; repair <= most_repairs; ++repair) {
    whole_draw drawn;
    if (!method.draw(state, {point_pass::purpose::report, repair}, replicates * samples, replicates,
                     drawn))
      return result;
    found = method.measure(drawn, psi, detail::derivatives);
    result.sick.clear();
    for (int i = 0; i < model.subjects(); ++i)
      if (model.observations(i) > 0 && is_bad(found.subjects[static_cast<std::size_t>(i)]))
        result.sick.push_back(i);
    if (result.sick.empty() || !found.finite || repair == most_repairs) break;
    bool changed = false;
    if (!method.look_widely(state, found, changed)) return result;
    if (!changed) break;
  }
  result.gain = found.gain;
  result.noise = found.noise;

  // Moments and group values stand on the process that owns the subject.
  const Eigen::Index figures = effects + effects * effects + replicates;
  const Eigen::Index p = psi.size();
  Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(figures + p, model.subjects());
  for (int i = 0; i < model.subjects(); ++i) {
    const subject_measure& m = found.subjects[static_cast<std::size_t>(i)];
    if (m.mean.size() != effects) continue;
    packed.col(i) << m.mean, m.covariance.reshaped(), m.group_log_likelihood, m.gradient;
  }
  host.peers().gather(packed.data(), packed.rows(), packed.cols());

  likelihood_estimate& likelihood = result.likelihood;
  likelihood.minus2ll = -2.0 * found.log_likelihood;
  likelihood.mc_se = found.error;
  likelihood.replicates.assign(static_cast<std::size_t>(replicates), 0.0);
  Eigen::VectorXd mu(effects);
  Eigen::MatrixXd opg = Eigen::MatrixXd::Zero(p, p);
  for (int i = 0; i < model.subjects(); ++i) {
    subject_integral& s = likelihood.subjects.emplace_back();
    s.mean = Eigen::VectorXd::Zero(effects);
    s.covariance = host.omega();
    if (model.observations(i) == 0) continue;
    const subject_measure& m = found.subjects[static_cast<std::size_t>(i)];
    model.means(i, host.theta().data(), mu.data());
    s.log_likelihood = m.log_likelihood;
    s.mean = packed.col(i).head(effects) - mu;
    s.covariance = packed.col(i).segment(effects, effects * effects).reshaped(effects, effects);
    s.scaled_squares = m.scaled_squares;
    s.effective_samples = m.effective_share * samples;
    // Of one randomisation's points, as the effective samples are.
    s.largest_weight = std::min(m.largest_weight * replicates, 1.0);
    for (int r = 0; r < replicates; ++r)
      likelihood.replicates[static_cast<std::size_t>(r)] -=
          2.0 * packed(effects + effects * effects + r, i);
    const Eigen::VectorXd gradient = packed.col(i).tail(p);
    opg += gradient * gradient.transpose();
  }
  const Eigen::MatrixXd inverse =
      jacobian(model, method.scale(), host.theta(), host.omega()).inverse();
  result.information = inverse.transpose() * found.information * inverse;
  result.scores = inverse.transpose() * opg * inverse;
  likelihood.complete = found.finite;
  return result;
}

}  // namespace varda
