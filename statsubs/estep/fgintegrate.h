// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The E-step of one subject: integrates its likelihood over the random effects by importance
// sampling. Samples are drawn around xmusub with the factor omegacholsub (omegalchol when
// impsampdof is 2), from the family that impsampdof names (proposal_family.h):
//
//   >= 3   multivariate t with that many degrees of freedom
//   1      two-sided exponential
//   -2, -3  defensive mixtures of two and three normals with scales from accratio
//   else   normal
//
// Points are pseudo-random (the host's dran3, state 1 at every entry) when iflagmcpem is 1 and for
// the t, Sobol points otherwise; with iflagmcpem 0 the t's chi-square probabilities are stratified,
// (2 j - 1) / (2 nsamp) for sample j. The Sobol sequence has been started with leneta dimensions
// and moves on by nsamp points.
//
//   isub    in: the subject, from 1
//   nsamp   in: samples, at least 1
//   dsample2(leneta x nsamp)  out: the samples, one per column
//   wtcond2(nsamp)  out: their weights, which sum to one
//   loglik  out: log of the subject's marginal likelihood
//
// A collective call: every process draws all samples, evaluates those whose number is myid modulo
// numprocs, and ends with the same results, equal to the last bit for any number of processes.
//
// A host that has fcnxetas gets its samples in blocks of up to 256 instead of one at a time, with
// the same results; one stop is then asked for after each block, which is not recorded where it is
// seen.
//
// An evaluation that fails isgoodr8 counts as log-likelihood -1e50 with score 1. A stop leaves the
// sampling loop at once; with globalstop set after checkforstop (asked after the evaluation at the
// mean, of which nothing else is used, and after the sampling loop) the routine returns and no
// weight or result has been written. A host whose checkforstop is told of a stop and does not set
// globalstop gets results in which the samples not reached count as log-likelihood 0.
// theta is as on entry after every return. wtsumzscore is not finite for a subject without
// observations. A factor with a zero on the diagonal gives results that are not numbers.
//
// An argument or a shared array that cannot hold what is needed, a Sobol sequence of other
// dimensions and a call from inside one of the routines that evaluate the model are refused
// (refusal.h).
//
// Reads: leneta, ntheta, theta, xmusub, omegacholsub, omegalchol, accratio, impsampdof, iflagmcpem,
// myid, numprocs, newsub, globalstop, zscoresub, izub
// Writes: izub, zscoresub, wtsumzscore, xmusubnew, omegasubnew, theta
STATSUBS_API void fgintegrate(const int& isub, const int& nsamp, double* dsample2, double* wtcond2,
                              double& loglik);

}  // namespace statsubs
