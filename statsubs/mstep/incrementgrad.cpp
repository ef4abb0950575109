// SPDX-License-Identifier: Apache-2.0
#include "statsubs/mstep/incrementgrad.h"

#include "statsubs/state/global_variables.h"

namespace statsubs {

namespace gv = statsubs::global_variables;

void incrementgrad() {
  ++gv::icountgrad;
}

}  // namespace statsubs
