// SPDX-License-Identifier: Apache-2.0
//
// Shared module saveearlyvars: the stop of a run. Columns of the table as in global_variables.h.
#pragma once

#include "statsubs/state/shared_types.h"

// clang-format off
#define STATSUBS_SAVEEARLYVARS(X) \
  X(integer, globalstop, "", "nonzero: the run is being stopped, every loop is left", "host (checkforstop)")
// clang-format on

namespace statsubs::saveearlyvars {
STATSUBS_SAVEEARLYVARS(STATSUBS_DECLARE_SHARED)
}
