// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Counts one evaluation of the gradient.
// Reads: none
// Writes: icountgrad
STATSUBS_API void incrementgrad();

}  // namespace statsubs
