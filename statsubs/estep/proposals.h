// SPDX-License-Identifier: Apache-2.0
//
// Small routines of importance sampling: univariate quantiles and densities, the affine map from a
// standardised vector to a sample, and the weighted moments of a set of samples.
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Quantile of the standard normal distribution, relative error below 1.15e-9: P. J. Acklam's
// rational approximation without a refining step. -1e300 for p <= 0 and 1e300 for p >= 1, so that a
// caller never sees an infinity.
// Reads: none
// Writes: none
STATSUBS_API double dnorminv(const double& p);

// Quantile of the two-sided exponential (Laplace) distribution of unit variance, 0 <= p <= 1;
// infinite at the ends. Its scale is 1/sqrt(2) cut to 14 decimals, whereas densexp2sidev1 has full
// precision: the two differ by 5e-15, relatively.
// Reads: none
// Writes: none
STATSUBS_API double dexp2sideinv(const double& p);

// Density of the standard normal distribution, its constant to 14 decimals.
// Reads: none
// Writes: none
STATSUBS_API double densnormv1(const double& x);

// Density of the two-sided exponential distribution of unit variance.
// Reads: none
// Writes: none
STATSUBS_API double densexp2sidev1(const double& x);

// eta(n) out: mu(n) + L z(n), L the lower triangle of l (leading dimension ldl >= n); what stands
// above the diagonal is not read. With n < 1 nothing happens. eta overlaps neither l nor z.
// Reads: none
// Writes: none
STATSUBS_API void simmn(const int& n, const double* mu, const double* l, const int& ldl,
                        const double* z, double* eta);

// Weighted mean and covariance of m samples of dimension n.
//   x    in: samples in columns, leading dimension ldx >= n
//   w(m)  in: weights, used as they are: the caller makes them sum to one
//   mean(n)  out: sum of w(j) x(:, j)
//   cov  out: sum of w(j) times the outer product of x(:, j) - mean, both triangles of n x n;
//        leading dimension ldc >= n, rows beyond n are not touched
// Two passes, the sums in the order of the samples.
// Reads: none
// Writes: none
STATSUBS_API void discretestat(const int& m, const int& n, const double* x, const int& ldx,
                               const double* w, double* mean, double* cov, const int& ldc);

}  // namespace statsubs
