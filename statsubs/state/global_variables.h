// SPDX-License-Identifier: Apache-2.0
//
// Shared module global_variables: the state of the estimation, one copy per process. One row per
// variable: kind, name, extent ("" for a scalar), meaning, writer. The host writes what names no
// other writer. Everything here is on the
// scale of the model. Routine files say `namespace gv = statsubs::global_variables;`.
#pragma once

#include "statsubs/state/shared_types.h"

// clang-format off
#define STATSUBS_GLOBAL_VARIABLES(X) \
  X(real_vector, theta, "ntheta", "fixed effects now in force", "host; fgintegrate, fgpresampledir2 and agqintjoint restore it, scoretheta perturbs and restores it") \
  X(real_vector, thetalo, "ntheta", "lower bound of each fixed effect", "host") \
  X(real_vector, thetahi, "ntheta", "upper bound of each fixed effect", "host") \
  X(integer, ntheta, "", "number of fixed effects", "getworkingstoragesizes") \
  X(integer, leneta, "", "number of random effects of a subject; 0 for a model without", "getworkingstoragesizes") \
  X(integer, nsub, "", "number of subjects", "getworkingstoragesizes") \
  X(integer, nobs, "", "observations of the subject visited last", "getworkingstoragesizes, lrtheta, qncurv") \
  X(integer, nobsmax, "", "observations of the subject that has most", "getworkingstoragesizes") \
  X(integer, nobstotal, "", "observations of all subjects", "getworkingstoragesizes") \
  X(integer, totalobsnumber, "", "the same; rows of modeljacob", "getworkingstoragesizes") \
  X(real_matrix, omega, "leneta x leneta", "covariance of the random effects; read by fgpresampledir2, updatedecomp", "host") \
  X(real_matrix, omegainv, "leneta x leneta", "its inverse", "host") \
  X(real_matrix, omegalchol, "leneta x leneta", "its lower Cholesky factor", "host") \
  X(real_matrix, omegalcholinv, "leneta x leneta", "inverse of the lower factor, upper triangle zero", "lrtheta") \
  X(real_matrix, omegamask, "leneta x leneta", "which elements of omega are estimated: neither -1 nor 0", "host") \
  X(real_vector, xmusub, "leneta", "proposal mean of the current subject, centre of its quadrature grid; predetamu leaves the mu-referenced means here", "host, predetamu") \
  X(real_matrix, omegacholsub, "leneta x leneta", "proposal Cholesky factor of the current subject, lower triangle; the factor of its quadrature grid", "host, updatedecomp") \
  X(real_vector, xmusubnew, "leneta", "conditional mean of the current subject's random effects", "fgintegrate, fgpresampledir2, agqintjoint") \
  X(real_matrix, omegasubnew, "leneta x leneta", "their conditional covariance; a work matrix of qncurv", "fgintegrate, fgpresampledir2, agqintjoint, qncurv") \
  X(integer_vector, newsub, "nsub + 1", "subject i owns positions newsub(i) .. newsub(i+1) - 1 of the stacked observations", "host") \
  X(real, zscoresub, "", "score of the model evaluation made last", "host; fgintegrate and fgpresampledir2 reset it to 1 after a failed evaluation") \
  X(real, wtsumzscore, "", "weighted mean of zscoresub over the samples, per observation of the subject", "fgintegrate, fgpresampledir2") \
  X(integer, izub, "", "the subject in work, from 1", "fgintegrate, fgpresampledir2, agqintjoint, qncurv, scoretheta") \
  X(real_matrix, etatable, "leneta x nsub", "random effects of every subject, one column each", "host, itmapnp, fgpresampledir2") \
  X(integer_vector, muetamap, "leneta", "row of the subject's C matrix that carries each random effect's mean; 0 for none", "host") \
  X(real_matrix, cholsub, "leneta (leneta + 1) / 2 x nsub", "lower factor of each subject's curvature, packed by columns", "host, qncurv") \
  X(real, sigmalchol, "", "residual standard deviation", "host, itmapnp; scoretheta perturbs and restores it") \
  X(real, sigmasq, "", "its square", "host, itmapnp; scoretheta perturbs and restores it") \
  X(integer, freesigmafound, "", "nonzero: the residual standard deviation is free and the last fixed effect", "host") \
  X(real_vector, stddeveta, "leneta", "standard deviations of the random effects; read by updatedecomp", "host") \
  X(real_vector, scorevec, "ntheta", "score of the current subject for the fixed effects", "scoretheta") \
  X(real_vector, scorevec_expanded, "ntheta + free elements of omega", "the same, followed by the score for omega", "scoretheta") \
  X(integer_vector, ibtight, "ntheta", "1: the fixed effect lies at or near a bound", "host (boundmap)") \
  X(integer_vector, ibaccolislog, "columns of the C matrix", "1: the column's regression scale is the logarithm of its fixed effect", "host") \
  X(integer, npackglobal, "", "number of packed parameters", "getworkingstoragesizes") \
  X(integer, hessiandimension, "", "the larger of npackglobal and leneta", "getworkingstoragesizes") \
  X(name_vector, fixedeffectnames, "ntheta", "display names of the fixed effects", "getworkingstoragesizes (library's storage)") \
  X(name_vector, randomeffectnames, "second argument of getworkingstoragesizes", "display names of the random effects", "getworkingstoragesizes (library's storage)") \
  X(real_matrix, modeljacob, "totalobsnumber x random effects", "working array for the model's Jacobian", "getworkingstoragesizes (library's storage)") \
  X(integer, myid, "", "rank of this process; 0 is the root", "host") \
  X(integer, numprocs, "", "number of processes that share the samples: 1 at load, else all of the job", "host") \
  X(real, accratio, "", "acceptance ratio that widens proposals and sets the mixtures' scales", "getworkingstoragesizes") \
  X(integer, impsampdof, "", "proposal family: >= 3 t degrees of freedom, 1 Laplace, -2 and -3 mixtures, 2 normal with omega's factor, else normal", "getworkingstoragesizes") \
  X(integer, iflagmcpem, "", "1: pseudo-random instead of quasi-random points", "getworkingstoragesizes") \
  X(integer, iflagscramble, "", "scrambling type of the quasi-random sequence, 0 to 3", "getworkingstoragesizes") \
  X(integer, impmapflag, "", "MAP-assisted proposals", "getworkingstoragesizes") \
  X(integer, nsampset, "", "samples per subject, a multiple of 6", "getworkingstoragesizes") \
  X(integer, npresample, "", "presampling points per subject; 1 means off", "getworkingstoragesizes") \
  X(integer, iqrpem, "", "1: the quasi-random EM method is the running engine", "getworkingstoragesizes") \
  X(integer, nqrburn, "", "burn-in iterations", "getworkingstoragesizes") \
  X(integer, ifreezeomegaburn, "", "1: omega does not move during burn-in", "getworkingstoragesizes") \
  X(integer, ngetmapnp, "", "MAP-NP start-up iterations", "getworkingstoragesizes") \
  X(integer, nchain, "", "points a subject that are resampled for the maximisation step", "getworkingstoragesizes") \
  X(integer, ipresample, "", "0: presampling was left off by the flag source", "getworkingstoragesizes") \
  X(integer, itestui, "", "1: settings come from a user interface, 0: from the flag source", "getworkingstoragesizes") \
  X(integer, irunall, "", "run every iteration, converged or not", "getworkingstoragesizes") \
  X(integer, iflathess, "", "flag of the host's flat-parameter estimation", "host, itmapnp") \
  X(integer, idengine, "", "identifier of the running engine", "host, itmapnp") \
  X(integer, icountgrad, "", "gradient evaluations so far", "incrementgrad")
// clang-format on

namespace statsubs::global_variables {
STATSUBS_GLOBAL_VARIABLES(STATSUBS_DECLARE_SHARED)
}
