// SPDX-License-Identifier: Apache-2.0
//
// The update of the mu-referenced fixed effects by linear regression, and the two triangular
// products that whiten its equations.
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The fixed effects that best explain the subjects' conditional means in the metric of omega, by
// the normal equations of normal_equations.h. Every process solves the whole problem, so
// `eta_mean2` must be complete on every process.
//   n          in: order that the work matrices are given, at least nreg = ncolc - nextra
//   atb(ntheta)  out: entries 1..nreg the solution on the regression scale, entry k belonging to
//              the fixed effect iseqtheta(k); the rest 0. All 0 when nreg <= 0
//   eta_mean2(leneta x nsub)  in: what the regression explains by C beta, one column a subject: the
//              conditional means of the individual parameters on the regression scale, which are
//              C beta + eta at the fixed effects in force. Where the random effects of the E-step
//              are zero-mean deviations, as in the objective of fcnxeta, that is xmusubnew plus the
//              subject's C beta; deviations by themselves would be regressed to about zero
//   (fourth and fifth)  not used
//   nrowbase, nextra  in: the C matrix has nrowbase + nextra rows, and its last nextra columns are
//              not regressed
//   ncolc      in: columns of the C matrix
//   muetamap(leneta)  in: the row of the C matrix that carries the mean of each random effect, 0
//              for none, at most leneta. Equations are formed for the first ntheta random effects
// The C matrix is zero when getsaemcmatrix is asked for it.
// A column that no equation touches is reported and its fixed effect gets class 4 in itypetheta.
// Then, and when the normal matrix is not positive definite, `atb` is what forward substitution
// with the lower triangle of the normal matrix gives, which is no least-squares solution; the event
// is reported on standard output and in the engine log. Only the process with myid = 0 writes.
// Reads: leneta, ntheta, nsub, newsub, omegalchol, myid, fixedeffectnames, iseqtheta
// Writes: omegalcholinv, nobs, itypetheta
STATSUBS_API void lrtheta(const int& n, double* atb, const double* eta_mean2, const double*,
                          const double*, const int& nrowbase, const int& nextra, const int& ncolc,
                          const int* muetamap);

// vec(1..m) <- L vec(1..m) with the lower triangle L of cholfac(m x m, leading dimension ldc). With
// m < 1 nothing happens.
// Reads: none
// Writes: none
STATSUBS_API void ldmaxpv(const double* cholfac, const int& ldc, const int& m, double* vec);

// Replaces, in every column of vecmat(ldv x ncol), the rows that muetamap(m) names by L times those
// rows, L as in ldmaxpv: row muetamap(i) by the sum over j <= i of L(i, j) times row muetamap(j),
// rows and columns of L with muetamap 0 left out. Rows that are not named do not change. Entries of
// muetamap lie in 0..min(m, ldv).
// Reads: none
// Writes: none
STATSUBS_API void ldmaxpy(const double* cholfac, const int& ldc, const int& m, double* vecmat,
                          const int& ldv, const int& ncol, const int* muetamap);

}  // namespace statsubs
