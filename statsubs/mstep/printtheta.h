// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Writes thetasforprint(ntheta) to output unit `iunit`, four to a free-format record; one empty
// record when there are none. Only the process with myid = 0 writes.
// Reads: myid, ntheta
// Writes: none
STATSUBS_API void printtheta(const double* thetasforprint, const int& iunit);

}  // namespace statsubs
