// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The condition number of a covariance matrix, scaled to a correlation matrix first so that units
// do not count: the ratio of the largest eigenvalue to the smallest. Also written to standard
// output, with both eigenvalues, by every process that calls.
//   c(n x n)  in: the covariance, of which the lower triangle decides; a negative diagonal element
//             scales by its magnitude
//   n         in: its order, at least 1
//   m         in: length of the eigenvalue vector and measure of the workspace, at least n
//   cond      out: infinite when the smallest eigenvalue is 0; meaningless, without notice, when
//             LAPACK finds no eigenvalues, as for a zero on the diagonal
// Reads: none
// Writes: none
STATSUBS_API void eigencor(const double* c, const int& n, const int& m, double& cond);

}  // namespace statsubs
