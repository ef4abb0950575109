// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Hands the variances of the estimates of omega to the host's packparameters1, which lays them out
// in xbase next to theta and sigmalchol. They go as a leneta x leneta matrix with the variance of
// the estimate at every free element of the lower triangle and 0 elsewhere.
//   sesq(n x n), n = ntheta + nomegafree  in: covariance of the estimates, theta first, then the
//               free elements of omega in the order of free_omega.h; only their diagonal is read
//   nomegafree  in: free elements of omega in sesq
// Reads: leneta, ntheta, theta, omegamask, sigmalchol, npackglobal
// Writes: xbase
STATSUBS_API void stderromega(const double* sesq, const int& nomegafree);

}  // namespace statsubs
