// SPDX-License-Identifier: Apache-2.0
#include "statsubs/sequences/bdsobl.h"

namespace statsubs::bdsobl {
STATSUBS_BDSOBL(STATSUBS_DEFINE_SHARED)
}
