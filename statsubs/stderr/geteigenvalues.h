// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Eigenvalues of a symmetric matrix: LAPACK's dsyev for the lower triangle, without eigenvectors.
//   a(n x n)     in: the matrix, its lower triangle; destroyed
//   w(n)         out: the eigenvalues, ascending
//   work(lwork)  workspace, lwork at least max(1, 3 n - 1); lwork = -1 only asks for the best
//                length, which is left in work(1)
//   info         out: 0, or LAPACK's status
// Reads: none
// Writes: none
STATSUBS_API void geteigenvalues(const int& n, double* a, double* w, double* work, const int& lwork,
                                 int& info);

}  // namespace statsubs
