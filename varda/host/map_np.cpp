// SPDX-License-Identifier: Apache-2.0
#include "varda/host/map_np.h"

#include <cmath>

#include "statsubs/mstep/itmapnp.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"

namespace varda {

namespace gv = statsubs::global_variables;

namespace {

// The callables of the library have no argument for this.
struct running_start {
  engine_host& host;
  const map_np_steps& steps;
};
running_start* running = nullptr;

Eigen::Map<Eigen::MatrixXd> eta_table() {
  return {gv::etatable.data(), gv::etatable.rows(), gv::etatable.columns()};
}

}  // namespace

bool map_np_start(engine_host& host, const map_np_steps& steps) {
  running_start now{host, steps};
  running = &now;
  statsubs::host_table& table = statsubs::installed_host();
  table.estblups = [](const int&, double& objective) {
    objective = running->steps.find_modes(eta_table());
  };
  table.estflattheta = [](double& objective) {
    const double value = running->steps.fit_fixed_effects(eta_table(), gv::iflathess != 0);
    if (!std::isnan(value)) objective = value;
  };
  Eigen::MatrixXd etas(host.model().random_effects(), host.model().subjects());
  statsubs::itmapnp(host.model().random_effects(), etas.data());
  // theta was moved through its shared storage; sigmalchol and sigmasq follow it.
  host.set_theta(host.theta());
  running = nullptr;
  return !engine_host::agree_on_stop();
}

}  // namespace varda
