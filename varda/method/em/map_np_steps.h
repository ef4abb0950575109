// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/host/engine_host.h"

namespace varda {

// The MAP-NP start-up with this engine's searches: see host/map_np.h. Collective. False when a stop
// was asked for.
bool start_by_map_np(engine_host& host);

}  // namespace varda
