// SPDX-License-Identifier: Apache-2.0
//
// From a subject's curvature to the factor that places its quadrature grid.
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// A lower-triangular factor of order n from packed(n (n + 1) / 2), by columns as in cholsub, into
// full storage: full, leading dimension ldf >= n, out, with zeros above the diagonal.
// Reads: none
// Writes: none
STATSUBS_API void choltofull(const int& n, const double* packed, double* full, const int& ldf);

// The lower triangle of omegacholsub becomes the Cholesky factor of the inverse of the subject's
// curvature, whose own factor stands in cholsub(:, isub). What stands above the diagonal does not
// change.
//   isub  in: the subject, from 1
//   info  out: 0; 1 when the curvature is of no use and omega's factor was taken instead: it cannot
//         be inverted, or it gives a random effect a standard deviation above ten times that in
//         stddeveta, which happens where the mode is all but flat; 2 when omega is not positive
//         definite either, and omegacholsub has not been written
// Local: unlike qncurv it takes the column as this process holds it.
// Reads: leneta, cholsub, omega, stddeveta
// Writes: omegacholsub
STATSUBS_API void updatedecomp(const int& isub, int& info);

}  // namespace statsubs
