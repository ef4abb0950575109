// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace statsubs {

// Writes thetasforprint(ntheta) to output unit `iunit`, four to a free-format record; one empty
// record when there are none. Only the process with myid = 0 writes.
// Reads: myid, ntheta
// Writes: none
void printtheta(const double* thetasforprint, const int& iunit);

}  // namespace statsubs
