// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/host/engine_host.h"

namespace varda {

// The MAP-NP start-up: the library's itmapnp with this engine's callables. Moves the fixed effects
// in the host towards those that explain the subjects' modes; omega and the residual deviations
// keep their start values. Collective. False when a stop was asked for.
bool map_np_start(engine_host& host);

}  // namespace varda
