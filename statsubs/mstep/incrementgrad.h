// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace statsubs {

// Counts one evaluation of the gradient.
// Reads: none
// Writes: icountgrad
void incrementgrad();

}  // namespace statsubs
