// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The presampling pass of one subject: a first proposal without a search for its mode. npresample
// points are drawn about the population's centre, zero, with the factor omegalchol, and weighted by
// the likelihood of the subject's data. The family is that which impsampdof names, as in
// fgintegrate, with the same scales and the same source of points.
//
//   isub    in: the subject, from 1
//   loglik  out: log of the subject's marginal likelihood, a rough estimate; not a number with info
//           2 and 3
//   info    out: 0 when the covariance of the samples stands by itself, 1 when omega was blended
//           in, 2 when presampling is off, 3 after a stop
//
// xmusubnew and etatable(:, isub) become the weighted mean of the samples, omegasubnew the
// covariance to propose with, the lower triangle of choleskyfactor(:, :, isub) its Cholesky factor,
// and wtsumzscore the weighted mean of the host's scores per observation.
//
// A subject with much data leaves few of the population's samples effective (1 / sum of squared
// weights), and their covariance is then too narrow or singular. With fewer than 5 leneta effective
// ones it counts for its share of that number and omega for the rest; where there are enough and it
// is not positive definite for all that, the two count for one half each. omegalchol is the factor
// of last resort.
//
// With npresample at 1, presampling is off: nothing else is done or written.
//
// A collective call: every process draws all samples, evaluates those whose number is myid modulo
// numprocs, and ends with the same results, equal to the last bit for any number of processes.
// Points, the Sobol sequence, blocks, failed evaluations, stops and theta are as in fgintegrate,
// but there is no evaluation before the samples: checkforstop is asked once, after them.
//
// Reads: leneta, ntheta, npresample, theta, omega, omegalchol, accratio, impsampdof, iflagmcpem,
// myid, numprocs, newsub, globalstop, zscoresub
// Writes: izub, zscoresub, wtsumzscore, xmusubnew, omegasubnew, choleskyfactor, etatable, theta
STATSUBS_API void fgpresampledir2(const int& isub, double& loglik, int& info);

}  // namespace statsubs
