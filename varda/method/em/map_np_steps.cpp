// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/map_np_steps.h"

#include <limits>
#include <vector>

#include "varda/host/map_np.h"
#include "varda/host/subjects.h"
#include "varda/inference/modes.h"
#include "varda/method/em/theta_search.h"

namespace varda {

namespace {

double find_modes(engine_host& host, Eigen::Map<Eigen::MatrixXd> etas) {
  Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(1 + etas.rows(), etas.cols());
  const std::vector<posterior_mode> own = find_own_modes(host);
  for (const int i : own_subjects(host)) {
    const posterior_mode& mode = own[static_cast<std::size_t>(i)];
    if (mode.eta.size() == etas.rows()) packed.col(i) << mode.objective, mode.eta;
  }
  engine_host::share(packed);
  etas = packed.bottomRows(etas.rows());
  return packed.row(0).sum();
}

// The residual deviations stay.
double fit_fixed_effects(engine_host& host, const Eigen::Map<Eigen::MatrixXd>& etas, bool near) {
  std::vector<int> positions;
  for (std::size_t k = 0; k < host.model().thetas().size(); ++k) {
    const fixed_effect& t = host.model().thetas()[k];
    if (!t.fixed && t.role != theta_role::residual_deviation)
      positions.push_back(static_cast<int>(k));
  }
  if (positions.empty()) return std::numeric_limits<double>::quiet_NaN();
  theta_search search(host.model(), host.theta(), positions);
  const random_effect_density prior(host.omega());
  scratch_of_workers scratch(host);
  const auto value = [&](const Eigen::VectorXd& x) {
    const Eigen::VectorXd theta = search.theta_at(x);
    Eigen::MatrixXd own = Eigen::MatrixXd::Zero(1, host.model().subjects());
    for_each_own_subject(host, 1, [&](int i, int worker) {
      Eigen::VectorXd phi(etas.rows());
      host.model().means(i, theta.data(), phi.data());
      phi += etas.col(i);
      double squares = 0.0;
      ++scratch[worker].evaluations;
      own(0, i) = host.joint().of_data(i, theta.data(), phi, squares, scratch[worker].densities) +
                  prior.negative_log(etas.col(i).data());
    });
    engine_host::share(own);
    return own.row(0).sum();
  };
  const minimum best = search.minimise(value, near ? 0.05 : 0.3, 1e-5);
  host.set_theta(search.theta_at(best.x));
  host.count_evaluations(scratch.evaluations());
  return best.value;
}

}  // namespace

bool start_by_map_np(engine_host& host) {
  return map_np_start(host,
                      {[&](Eigen::Map<Eigen::MatrixXd> etas) { return find_modes(host, etas); },
                       [&](const Eigen::Map<Eigen::MatrixXd>& etas, bool near) {
                         return fit_fixed_effects(host, etas, near);
                       }});
}

}  // namespace varda
