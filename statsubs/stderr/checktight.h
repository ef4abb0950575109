// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Asks the host's boundmap which fixed effects lie at or near a bound, where the likelihood need
// not be stationary and standard errors mean nothing, and warns about each.
//   flag  out: 1 when there is one, else 0; the same on every process
// The process with myid = 0 writes a block per fixed effect, to standard output and to the engine
// log, which it opens and closes for each. When the first or the second line of a block cannot be
// written to the log, the rest of the block is left out on standard output too, which then has its
// first line only.
// Reads: ntheta, theta, thetalo, thetahi, ibtight, myid
// Writes: none
STATSUBS_API void checktight(int& flag);

}  // namespace statsubs
