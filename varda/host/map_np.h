// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <functional>

#include "varda/host/engine_host.h"

namespace varda {

// What the library's MAP-NP start-up asks of an engine.
struct map_np_steps {
  // Modes of all subjects into `etas` (random effects x subjects); the sum of all objectives.
  std::function<double(Eigen::Map<Eigen::MatrixXd> etas)> find_modes;
  // Fixed effects in the host that maximise the likelihood at these random effects; `near` says
  // that the ones in force are good already. The objective there; NaN where none are free.
  std::function<double(const Eigen::Map<Eigen::MatrixXd>& etas, bool near)> fit_fixed_effects;
};

// The MAP-NP start-up: the library's itmapnp. Moves the fixed effects in the host towards those
// that explain the subjects' modes; omega and the residual deviations keep their start values.
// Collective. False when a stop was asked for.
bool map_np_start(engine_host& host, const map_np_steps& steps);

}  // namespace varda
