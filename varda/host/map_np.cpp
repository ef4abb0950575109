// SPDX-License-Identifier: Apache-2.0
#include "varda/host/map_np.h"

#include <Eigen/Core>
#include <cassert>
#include <cmath>
#include <limits>
#include <vector>

#include "statsubs/mstep/itmapnp.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "varda/inference/minimise.h"
#include "varda/inference/modes.h"
#include "varda/method/em/theta_search.h"

namespace varda {

namespace gv = statsubs::global_variables;

namespace {

engine_host* the_host = nullptr;

Eigen::Map<Eigen::MatrixXd> eta_table() {
  return {gv::etatable.data(), gv::etatable.rows(), gv::etatable.columns()};
}

// The library's rule: subject i, from 1, belongs to the process mod(i, numprocs).
bool is_own(const engine_host& host, int subject) {
  return (subject + 1) % host.peers().size() == host.peers().rank() &&
         host.model().observations(subject) > 0;
}

// The sum over the subjects in their order, from what each process holds of its own.
double sum_over_subjects(const engine_host& host, Eigen::VectorXd& own) {
  host.peers().sum(own.data(), static_cast<int>(own.size()));
  return own.sum();
}

// Modes of the own subjects into etatable, zero elsewhere.
void find_modes(double& objective) {
  engine_host& host = *the_host;
  Eigen::VectorXd own = Eigen::VectorXd::Zero(host.model().subjects());
  eta_table().setZero();
  for (int i = 0; i < host.model().subjects(); ++i) {
    if (!is_own(host, i)) continue;
    const posterior_mode found = find_mode(host, i);
    eta_table().col(i) = found.eta;
    own(i) = found.objective;
  }
  objective = sum_over_subjects(host, own);
}

// Fixed effects that maximise the likelihood with the random effects as they stand in etatable; the
// residual deviations stay. `iflathess` 1 says that the start is good already.
void fit_fixed_effects(double& objective) {
  engine_host& host = *the_host;
  std::vector<int> positions;
  for (std::size_t k = 0; k < host.model().thetas().size(); ++k) {
    const fixed_effect& t = host.model().thetas()[k];
    if (!t.fixed && t.role != theta_role::residual_deviation)
      positions.push_back(static_cast<int>(k));
  }
  if (positions.empty()) return;
  theta_search search(host.model(), host.theta(), positions);
  const auto value = [&](const Eigen::VectorXd& x) {
    host.set_theta(search.theta_at(x));
    Eigen::VectorXd own = Eigen::VectorXd::Zero(host.model().subjects());
    for (int i = 0; i < host.model().subjects(); ++i)
      if (is_own(host, i)) own(i) = host.objective(i, eta_table().col(i).data());
    return sum_over_subjects(host, own);
  };
  const double step = gv::iflathess == 0 ? 0.3 : 0.05;
  const minimum best = search.minimise(value, step, 1e-5);
  host.set_theta(search.theta_at(best.x));
  objective = best.value;
}

}  // namespace

bool map_np_start(engine_host& host) {
  assert(the_host == nullptr);
  the_host = &host;
  statsubs::host_table& table = statsubs::installed_host();
  table.estblups = [](const int&, double& objective) { find_modes(objective); };
  table.estflattheta = fit_fixed_effects;
  table.globalblups2 = [] {
    auto etas = eta_table();
    the_host->peers().sum(etas.data(), static_cast<int>(etas.size()));
  };
  Eigen::MatrixXd etas(host.model().random_effects(), host.model().subjects());
  statsubs::itmapnp(host.model().random_effects(), etas.data());
  // theta was moved through its shared storage; sigmalchol and sigmasq follow it.
  host.set_theta(host.theta());
  the_host = nullptr;
  int stop = statsubs::host::stoprequested();
  statsubs::host::checkforstop(stop);
  return !engine_host::stopped();
}

}  // namespace varda
