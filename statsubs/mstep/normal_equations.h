// SPDX-License-Identifier: Apache-2.0
//
// The least-squares problem behind the update of the fixed effects. A random effect k that is
// mu-referenced has the mean C_i(r, :) beta for subject i, r = muetamap(k), and the deviations from
// the means have covariance omega = L Lt. The subjects' conditional means m_i therefore give
//
//   beta = argmin sum_i | L^-1 (m_i - C_i beta) |^2 = (sum_i Wt W)^-1 sum_i Wt z,
//
// with W = L^-1 C_i and z = L^-1 m_i: generalised least squares, whitened.
#pragma once

#include "statsubs/support/array.h"

namespace statsubs {

// inverse <- the inverse of the lower triangle of `factor`, zero above the diagonal; both square of
// the same order. A singular factor leaves an unusable inverse and is not reported.
void invert_lower_factor(matrix_view<const double> factor, matrix_view<double> inverse);

// Adds one subject: ata += Wt W and atb += Wt z, where row muetamap(k) of `whitened` and entry k of
// `means` make one equation for every k with muetamap(k) != 0. The order of the problem is that of
// `ata` (nreg x nreg, the full square); columns of `whitened` beyond it are not read.
void add_equations(matrix_view<const double> whitened, vector_view<const double> means,
                   vector_view<const int> muetamap, matrix_view<double> ata,
                   vector_view<double> atb);

// Solves the normal equations by Cholesky factorisation: `atb` becomes the solution and the lower
// triangle of `ata` its factor. False, with `atb` as it was, when `ata` is not positive definite.
bool solve_normal_equations(matrix_view<double> ata, vector_view<double> atb);

}  // namespace statsubs
