// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/state/standarderrorvariables.h"

namespace statsubs {
namespace global_variables {
STATSUBS_GLOBAL_VARIABLES(STATSUBS_DEFINE_SHARED)
}
namespace qrpemlocalvariables {
STATSUBS_QRPEMLOCALVARIABLES(STATSUBS_DEFINE_SHARED)
}
namespace standarderrorvariables {
STATSUBS_STANDARDERRORVARIABLES(STATSUBS_DEFINE_SHARED)
}
namespace saveearlyvars {
STATSUBS_SAVEEARLYVARS(STATSUBS_DEFINE_SHARED)
}
}  // namespace statsubs
