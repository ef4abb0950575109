// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// One subject's likelihood, integrated over its random effects by adaptive Gauss-Hermite quadrature
// on the product grid (agqgrid.h) that xmusub, the mode, and omegacholsub, the factor of the
// inverse curvature there (updatedecomp.h), place. A deterministic yardstick for the sampled
// integrals.
//
//   isub    in: the subject, from 1
//   nnodes  in: nodes per random effect
//   loglik  out: log of the subject's marginal likelihood; Laplace's approximation with one node
//   info    out: agqinit's status, with which the host has not been called, or 3 after a stop.
//           Unless it is 0 nothing else has been written
//
// xmusubnew and omegasubnew become the conditional mean and covariance of the random effects; with
// one node, which knows neither, the mode and the inverse curvature, the moments of Laplace's
// approximation.
//
// A collective call: point k is evaluated by the process with number k mod numprocs, through seteta
// and fcneta, after one setmainstdev(sigmalchol) for the subject; every process ends with the same
// results, equal to the last bit for any number of processes. The grid is passed in blocks of 4,096
// points, each with one sum over the processes, so that a process holds 4,096 (leneta + 1) reals
// whatever the number of points.
//
// A host that has fcnxetas gets up to 256 points in one call of it instead.
//
// An evaluation that fails isgoodr8 counts as log-likelihood -1e50, which is a weight of zero
// unless all of them fail. A stop leaves the block at once; with globalstop set after checkforstop,
// asked after every block, the routine returns and no result has been written. theta is as on entry
// after every return. A host whose checkforstop is told of a stop and does not set globalstop gets
// results that mean nothing. A factor with a zero on the diagonal gives results that are not
// numbers.
//
// Reads: leneta, ntheta, theta, sigmalchol, xmusub, omegacholsub, myid, numprocs, globalstop
// Writes: izub, xmusubnew, omegasubnew, theta
STATSUBS_API void agqintjoint(const int& isub, const int& nnodes, double& loglik, int& info);

}  // namespace statsubs
