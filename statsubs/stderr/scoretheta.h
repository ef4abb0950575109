// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The score of one subject: the derivative of its log-likelihood with respect to the fixed effects
// and the free elements of omega, as the mean over its conditional distribution of the derivative
// of the complete-data log density (Fisher's identity; Louis, J. R. Stat. Soc. B 44, 1982). Summed
// over subjects, the outer products are the empirical information matrix.
//
//   isub       in: the subject, from 1
//   nsample    in: samples of its random effects, at least 1
//   dsample2(leneta x nsample)  in: the samples, zero-mean deviations, one per column
//   wtcond2(nsample)  in: their weights, which sum to one; a sample of weight <= 1e-10 is left out
//   scoremat_qrpem(n x n), n = ntheta + nomegafree  in/out: the outer product of the score is added
//   nomegafree  in: free elements of omega that get a score, those of free_omega.h; 0 for none
//
// With d = omegainv eta, the derivative of ln N(eta; 0, omega) with respect to the mean, a fixed
// effect's score in a sample is the first of these that applies:
//
//   itypetheta_etamap(j) = m, not -99   d(m), divided by theta(j) (1e-15 for 0) where the mean is
//                                       its logarithm
//   itypetheta(j) = 0, and cmatrix_3d has leneta rows   sum of d(e) C(muetamap(e), p) over the
//                                       random effects e with muetamap(e) != 0
//   else     central difference of fcnxeta with step max(0.01 |theta(j)|, 1e-10)
//
// where p is the column of theta(j), its place in iseqtheta. A fixed effect that has none is taken
// for its own mean, or as a covariate coefficient has score 0. The score of an element (i, j) of
// omega is that of (d dt - omegainv) / 2, twice that off the diagonal since (j, i) moves along.
//
// The differences are of the objective, so they have its sign: that of a negative log density where
// the other scores have that of the log density. The host evaluates at the shared theta, sigmalchol
// and sigmasq; neither settheta nor seteta is called. With freesigmafound the last fixed effect is
// the residual deviation, and sigmalchol and sigmasq follow it through its difference. All three
// are as on entry afterwards. Every sample is first evaluated at the parameters as they are; the
// value is not used.
//
// A host that has fcnxetas gets up to 256 samples in one call of it instead of one of fcnxeta.
//
// A component that isgoodr8 rejects counts as 0. Collective: every process calls it for every
// subject, evaluates the samples whose number is myid modulo numprocs, and ends with the same
// results, equal to the last bit for any number of processes.
//
// Reads: leneta, ntheta, omegainv, omegamask, muetamap, ibaccolislog, freesigmafound, numprocs,
// myid, itypetheta, itypetheta_etamap, iseqtheta, cmatrix_3d
// Writes: izub, scorevec, scorevec_expanded, theta, sigmalchol, sigmasq
STATSUBS_API void scoretheta(const int& isub, const int& nsample, const double* dsample2,
                             const double* wtcond2, double* scoremat_qrpem, const int& nomegafree);

}  // namespace statsubs
