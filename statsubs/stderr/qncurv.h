// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// From a subject's curvature to its proposal: cholsub(:, isub) holds the lower factor of the
// inverse covariance of its random effects, packed by columns; the lower triangle of
// choleskyfactor(:, :, isub) becomes the Cholesky factor of the covariance. What stands above the
// diagonal there does not change.
//   isub  in: the subject, from 1; the process with rank mod(isub, numprocs) owns it
//   info  out: LAPACK's status, 0 or the place of the pivot that failed: that of the final
//         factorisation, which also hides a failed inversion
// A subject without observations keeps its factor, with info 0. Collective: every process calls it
// for the same subject; the owner's column replaces that of the others, through globalvec.
// Reads: leneta, newsub, myid, numprocs
// Writes: izub, nobs, cholsub, omegasubnew, choleskyfactor
STATSUBS_API void qncurv(const int& isub, int& info);

}  // namespace statsubs
