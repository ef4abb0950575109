// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "varda/data/columns.h"
#include "varda/data/dataset.h"
#include "varda/data/oddities.h"

namespace varda {

// Reads a record as an observation at `time`; nothing when MDV leaves it out. Throws bad_input.
std::optional<observation> read_observation(const record_view& from, double time, oddities& odd);

}  // namespace varda
