// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The next pseudo-random number of the process's one stream, between 0 and 1: the
// subtract-with-borrow generator with lags 24 and 10 and borrow 2^-24 (G. Marsaglia and A. Zaman,
// "A new class of random number generators", Annals of Applied Probability 1 (1991) 462-480). There
// is no seeding: the n-th number is the same in every run and process. Not for use by two threads.
// Reads: none
// Writes: none
STATSUBS_API double uni();

}  // namespace statsubs
