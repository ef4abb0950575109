// SPDX-License-Identifier: Apache-2.0
//
// Zero of a monotone function on an interval, by reverse communication: the search steps outward
// from a starting value until the root is bracketed, then narrows the bracket with the zero finder
// of dzror (a copy of its own). One search at a time in a process: the state is kept between the
// calls.
// Reads: none
// Writes: none
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Parameters of the searches to come, until the next call: the interval [small, big]; the first
// step max(absstp, relstp |x0|), x0 the starting value; the factor stpmul of each further step; the
// tolerances of the zero finder.
STATSUBS_API void dstinv(const double& small, const double& big, const double& absstp,
                         const double& relstp, const double& stpmul, const double& abstol,
                         const double& reltol);

// One step of the search. The caller starts with status = 0 and x = x0. While status comes back as
// 1, he sets fval = f(x), leaves everything else alone and calls again; f is asked for at small,
// big and x0 first. At the end status is
//    0: x is the root (the best point of the bracket should f not be monotone)
//   -1: no root in [small, big]; atlow tells whether it lies below, fhigh whether f stays above 0
// A search that is started while another is unfinished replaces it. A starting value outside
// [small, big] stops the process with " SMALL, X, BIG not monotone in INVR".
STATSUBS_API void dinvr(int& status, double& x, const double& fval, bool& atlow, bool& fhigh);

}  // namespace statsubs
