// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/map_np_steps.h"

#include <limits>
#include <vector>

#include "varda/host/map_np.h"
#include "varda/inference/modes.h"
#include "varda/method/em/theta_search.h"

namespace varda {

namespace {

bool is_own(const engine_host& host, int subject) {
  return owns(host, subject) && host.model().observations(subject) > 0;
}

// The sum over the subjects in their order, from what each process holds of its own.
double sum_over_subjects(const engine_host& host, Eigen::VectorXd& own) {
  host.peers().sum(own.data(), static_cast<int>(own.size()));
  return own.sum();
}

double find_modes(engine_host& host, Eigen::Map<Eigen::MatrixXd> etas) {
  Eigen::VectorXd own = Eigen::VectorXd::Zero(host.model().subjects());
  etas.setZero();
  for (int i = 0; i < host.model().subjects(); ++i) {
    if (!is_own(host, i)) continue;
    const posterior_mode found = find_mode(host, i);
    etas.col(i) = found.eta;
    own(i) = found.objective;
  }
  return sum_over_subjects(host, own);
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
  const auto value = [&](const Eigen::VectorXd& x) {
    host.set_theta(search.theta_at(x));
    Eigen::VectorXd own = Eigen::VectorXd::Zero(host.model().subjects());
    for (int i = 0; i < host.model().subjects(); ++i)
      if (is_own(host, i)) own(i) = host.objective(i, etas.col(i).data());
    return sum_over_subjects(host, own);
  };
  const minimum best = search.minimise(value, near ? 0.05 : 0.3, 1e-5);
  host.set_theta(search.theta_at(best.x));
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
