/* SPDX-License-Identifier: Apache-2.0
 *
 * The shared variables. A scalar is read and written by value. An array that the host owns is bound
 * to the host's storage, column-major without gaps, which stays the host's and is kept alive while
 * the library may be called; statsubs_get_<array> gives the storage now in use and its extents. A
 * name is 100 characters, blank-padded, without a terminating zero.
 * Made by checks/interfaces from the C++ headers; see CONTRIBUTING.md.
 */
/* clang-format off */
#ifndef STATSUBS_C_SHARED_VARIABLES_H
#define STATSUBS_C_SHARED_VARIABLES_H

#include "statsubs/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* global_variables */

// theta(ntheta): fixed effects now in force. Written by: host; fgintegrate, fgpresampledir2 and
// agqintjoint restore it, scoretheta perturbs and restores it
STATSUBS_API int statsubs_bind_theta(double* storage, int n);
STATSUBS_API int statsubs_get_theta(double** storage, int* n);

// thetalo(ntheta): lower bound of each fixed effect. Written by: host
STATSUBS_API int statsubs_bind_thetalo(double* storage, int n);
STATSUBS_API int statsubs_get_thetalo(double** storage, int* n);

// thetahi(ntheta): upper bound of each fixed effect. Written by: host
STATSUBS_API int statsubs_bind_thetahi(double* storage, int n);
STATSUBS_API int statsubs_get_thetahi(double** storage, int* n);

// ntheta: number of fixed effects. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_ntheta(void);
STATSUBS_API void statsubs_set_ntheta(int value);

// leneta: number of random effects of a subject; 0 for a model without. Written by:
// getworkingstoragesizes
STATSUBS_API int statsubs_get_leneta(void);
STATSUBS_API void statsubs_set_leneta(int value);

// nsub: number of subjects. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_nsub(void);
STATSUBS_API void statsubs_set_nsub(int value);

// nobs: observations of the subject visited last. Written by: getworkingstoragesizes, lrtheta,
// qncurv
STATSUBS_API int statsubs_get_nobs(void);
STATSUBS_API void statsubs_set_nobs(int value);

// nobsmax: observations of the subject that has most. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_nobsmax(void);
STATSUBS_API void statsubs_set_nobsmax(int value);

// nobstotal: observations of all subjects. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_nobstotal(void);
STATSUBS_API void statsubs_set_nobstotal(int value);

// totalobsnumber: the same; rows of modeljacob. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_totalobsnumber(void);
STATSUBS_API void statsubs_set_totalobsnumber(int value);

// omega(leneta x leneta): covariance of the random effects; read by fgpresampledir2, updatedecomp.
// Written by: host
STATSUBS_API int statsubs_bind_omega(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_omega(double** storage, int* rows, int* columns);

// omegainv(leneta x leneta): its inverse. Written by: host
STATSUBS_API int statsubs_bind_omegainv(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_omegainv(double** storage, int* rows, int* columns);

// omegalchol(leneta x leneta): its lower Cholesky factor. Written by: host
STATSUBS_API int statsubs_bind_omegalchol(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_omegalchol(double** storage, int* rows, int* columns);

// omegalcholinv(leneta x leneta): inverse of the lower factor, upper triangle zero. Written by:
// lrtheta
STATSUBS_API int statsubs_bind_omegalcholinv(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_omegalcholinv(double** storage, int* rows, int* columns);

// omegamask(leneta x leneta): which elements of omega are estimated: neither -1 nor 0. Written by:
// host
STATSUBS_API int statsubs_bind_omegamask(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_omegamask(double** storage, int* rows, int* columns);

// xmusub(leneta): proposal mean of the current subject, centre of its quadrature grid; predetamu
// leaves the mu-referenced means here. Written by: host, predetamu
STATSUBS_API int statsubs_bind_xmusub(double* storage, int n);
STATSUBS_API int statsubs_get_xmusub(double** storage, int* n);

// omegacholsub(leneta x leneta): proposal Cholesky factor of the current subject, lower triangle;
// the factor of its quadrature grid. Written by: host, updatedecomp
STATSUBS_API int statsubs_bind_omegacholsub(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_omegacholsub(double** storage, int* rows, int* columns);

// xmusubnew(leneta): conditional mean of the current subject's random effects. Written by:
// fgintegrate, fgpresampledir2, agqintjoint
STATSUBS_API int statsubs_bind_xmusubnew(double* storage, int n);
STATSUBS_API int statsubs_get_xmusubnew(double** storage, int* n);

// omegasubnew(leneta x leneta): their conditional covariance; a work matrix of qncurv. Written by:
// fgintegrate, fgpresampledir2, agqintjoint, qncurv
STATSUBS_API int statsubs_bind_omegasubnew(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_omegasubnew(double** storage, int* rows, int* columns);

// newsub(nsub + 1): subject i owns positions newsub(i) .. newsub(i+1) - 1 of the stacked
// observations. Written by: host
STATSUBS_API int statsubs_bind_newsub(int* storage, int n);
STATSUBS_API int statsubs_get_newsub(int** storage, int* n);

// zscoresub: score of the model evaluation made last. Written by: host; fgintegrate and
// fgpresampledir2 reset it to 1 after a failed evaluation
STATSUBS_API double statsubs_get_zscoresub(void);
STATSUBS_API void statsubs_set_zscoresub(double value);

// wtsumzscore: weighted mean of zscoresub over the samples, per observation of the subject. Written
// by: fgintegrate, fgpresampledir2
STATSUBS_API double statsubs_get_wtsumzscore(void);
STATSUBS_API void statsubs_set_wtsumzscore(double value);

// izub: the subject in work, from 1. Written by: fgintegrate, fgpresampledir2, agqintjoint, qncurv,
// scoretheta
STATSUBS_API int statsubs_get_izub(void);
STATSUBS_API void statsubs_set_izub(int value);

// etatable(leneta x nsub): random effects of every subject, one column each. Written by: host,
// itmapnp, fgpresampledir2
STATSUBS_API int statsubs_bind_etatable(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_etatable(double** storage, int* rows, int* columns);

// muetamap(leneta): row of the subject's C matrix that carries each random effect's mean; 0 for
// none. Written by: host
STATSUBS_API int statsubs_bind_muetamap(int* storage, int n);
STATSUBS_API int statsubs_get_muetamap(int** storage, int* n);

// cholsub(leneta (leneta + 1) / 2 x nsub): lower factor of each subject's curvature, packed by
// columns. Written by: host, qncurv
STATSUBS_API int statsubs_bind_cholsub(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_cholsub(double** storage, int* rows, int* columns);

// sigmalchol: residual standard deviation. Written by: host, itmapnp; scoretheta perturbs and
// restores it
STATSUBS_API double statsubs_get_sigmalchol(void);
STATSUBS_API void statsubs_set_sigmalchol(double value);

// sigmasq: its square. Written by: host, itmapnp; scoretheta perturbs and restores it
STATSUBS_API double statsubs_get_sigmasq(void);
STATSUBS_API void statsubs_set_sigmasq(double value);

// freesigmafound: nonzero: the residual standard deviation is free and the last fixed effect.
// Written by: host
STATSUBS_API int statsubs_get_freesigmafound(void);
STATSUBS_API void statsubs_set_freesigmafound(int value);

// stddeveta(leneta): standard deviations of the random effects; read by updatedecomp. Written by:
// host
STATSUBS_API int statsubs_bind_stddeveta(double* storage, int n);
STATSUBS_API int statsubs_get_stddeveta(double** storage, int* n);

// scorevec(ntheta): score of the current subject for the fixed effects. Written by: scoretheta
STATSUBS_API int statsubs_bind_scorevec(double* storage, int n);
STATSUBS_API int statsubs_get_scorevec(double** storage, int* n);

// scorevec_expanded(ntheta + free elements of omega): the same, followed by the score for omega.
// Written by: scoretheta
STATSUBS_API int statsubs_bind_scorevec_expanded(double* storage, int n);
STATSUBS_API int statsubs_get_scorevec_expanded(double** storage, int* n);

// ibtight(ntheta): 1: the fixed effect lies at or near a bound. Written by: host (boundmap)
STATSUBS_API int statsubs_bind_ibtight(int* storage, int n);
STATSUBS_API int statsubs_get_ibtight(int** storage, int* n);

// ibaccolislog(columns of the C matrix): 1: the column's regression scale is the logarithm of its
// fixed effect. Written by: host
STATSUBS_API int statsubs_bind_ibaccolislog(int* storage, int n);
STATSUBS_API int statsubs_get_ibaccolislog(int** storage, int* n);

// npackglobal: number of packed parameters. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_npackglobal(void);
STATSUBS_API void statsubs_set_npackglobal(int value);

// hessiandimension: the larger of npackglobal and leneta. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_hessiandimension(void);
STATSUBS_API void statsubs_set_hessiandimension(int value);

// fixedeffectnames(ntheta): display names of the fixed effects. Written by: getworkingstoragesizes
// (library's storage)
STATSUBS_API int statsubs_bind_fixedeffectnames(char* storage, int n);
STATSUBS_API int statsubs_get_fixedeffectnames(char** storage, int* n);

// randomeffectnames(second argument of getworkingstoragesizes): display names of the random
// effects. Written by: getworkingstoragesizes (library's storage)
STATSUBS_API int statsubs_bind_randomeffectnames(char* storage, int n);
STATSUBS_API int statsubs_get_randomeffectnames(char** storage, int* n);

// modeljacob(totalobsnumber x random effects): working array for the model's Jacobian. Written by:
// getworkingstoragesizes (library's storage)
STATSUBS_API int statsubs_bind_modeljacob(double* storage, int rows, int columns);
STATSUBS_API int statsubs_get_modeljacob(double** storage, int* rows, int* columns);

// myid: rank of this process; 0 is the root. Written by: host
STATSUBS_API int statsubs_get_myid(void);
STATSUBS_API void statsubs_set_myid(int value);

// numprocs: number of processes that share the samples: 1 at load, else all of the job. Written by:
// host
STATSUBS_API int statsubs_get_numprocs(void);
STATSUBS_API void statsubs_set_numprocs(int value);

// accratio: acceptance ratio that widens proposals and sets the mixtures' scales. Written by:
// getworkingstoragesizes
STATSUBS_API double statsubs_get_accratio(void);
STATSUBS_API void statsubs_set_accratio(double value);

// impsampdof: proposal family: >= 3 t degrees of freedom, 1 Laplace, -2 and -3 mixtures, 2 normal
// with omega's factor, else normal. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_impsampdof(void);
STATSUBS_API void statsubs_set_impsampdof(int value);

// iflagmcpem: 1: pseudo-random instead of quasi-random points. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_iflagmcpem(void);
STATSUBS_API void statsubs_set_iflagmcpem(int value);

// iflagscramble: scrambling type of the quasi-random sequence, 0 to 3. Written by:
// getworkingstoragesizes
STATSUBS_API int statsubs_get_iflagscramble(void);
STATSUBS_API void statsubs_set_iflagscramble(int value);

// impmapflag: MAP-assisted proposals. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_impmapflag(void);
STATSUBS_API void statsubs_set_impmapflag(int value);

// nsampset: samples per subject, a multiple of 6. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_nsampset(void);
STATSUBS_API void statsubs_set_nsampset(int value);

// npresample: presampling points per subject; 1 means off. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_npresample(void);
STATSUBS_API void statsubs_set_npresample(int value);

// iqrpem: 1: the quasi-random EM method is the running engine. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_iqrpem(void);
STATSUBS_API void statsubs_set_iqrpem(int value);

// nqrburn: burn-in iterations. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_nqrburn(void);
STATSUBS_API void statsubs_set_nqrburn(int value);

// ifreezeomegaburn: 1: omega does not move during burn-in. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_ifreezeomegaburn(void);
STATSUBS_API void statsubs_set_ifreezeomegaburn(int value);

// ngetmapnp: MAP-NP start-up iterations. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_ngetmapnp(void);
STATSUBS_API void statsubs_set_ngetmapnp(int value);

// nchain: points a subject that are resampled for the maximisation step. Written by:
// getworkingstoragesizes
STATSUBS_API int statsubs_get_nchain(void);
STATSUBS_API void statsubs_set_nchain(int value);

// ipresample: 0: presampling was left off by the flag source. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_ipresample(void);
STATSUBS_API void statsubs_set_ipresample(int value);

// itestui: 1: settings come from a user interface, 0: from the flag source. Written by:
// getworkingstoragesizes
STATSUBS_API int statsubs_get_itestui(void);
STATSUBS_API void statsubs_set_itestui(int value);

// irunall: run every iteration, converged or not. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_irunall(void);
STATSUBS_API void statsubs_set_irunall(int value);

// iflathess: flag of the host's flat-parameter estimation. Written by: host, itmapnp
STATSUBS_API int statsubs_get_iflathess(void);
STATSUBS_API void statsubs_set_iflathess(int value);

// idengine: identifier of the running engine. Written by: host, itmapnp
STATSUBS_API int statsubs_get_idengine(void);
STATSUBS_API void statsubs_set_idengine(int value);

// icountgrad: gradient evaluations so far. Written by: incrementgrad
STATSUBS_API int statsubs_get_icountgrad(void);
STATSUBS_API void statsubs_set_icountgrad(int value);

/* qrpemlocalvariables */

// choleskyfactor(leneta x leneta x nsub): Cholesky factor of each subject's proposal covariance,
// lower triangles. Written by: qncurv, fgpresampledir2, host
STATSUBS_API int statsubs_bind_choleskyfactor(double* storage, int rows, int columns, int slices);
STATSUBS_API int statsubs_get_choleskyfactor(double** storage, int* rows, int* columns, int* slices);

// cmatrix_3d(leneta x columns of the C matrix x nsub): the C matrix of every subject. Written by:
// host
STATSUBS_API int statsubs_bind_cmatrix_3d(double* storage, int rows, int columns, int slices);
STATSUBS_API int statsubs_get_cmatrix_3d(double** storage, int* rows, int* columns, int* slices);

// iseqtheta(columns of the C matrix): the fixed effect that stands in each column. Written by: host
STATSUBS_API int statsubs_bind_iseqtheta(int* storage, int n);
STATSUBS_API int statsubs_get_iseqtheta(int** storage, int* n);

// itypetheta(ntheta): class of each fixed effect: 0 covariate coefficient, 4 excluded from the
// regression. Written by: host, lrtheta
STATSUBS_API int statsubs_bind_itypetheta(int* storage, int n);
STATSUBS_API int statsubs_get_itypetheta(int** storage, int* n);

// itypetheta_etamap(ntheta): the random effect whose mean the fixed effect is; -99 for none.
// Written by: host
STATSUBS_API int statsubs_bind_itypetheta_etamap(int* storage, int n);
STATSUBS_API int statsubs_get_itypetheta_etamap(int** storage, int* n);

/* standarderrorvariables */

// stddevnum: number of observed variables. Written by: getworkingstoragesizes
STATSUBS_API int statsubs_get_stddevnum(void);
STATSUBS_API void statsubs_set_stddevnum(int value);

// stddevnames(stddevnum): names of their residual standard deviations. Written by:
// getworkingstoragesizes (library's storage)
STATSUBS_API int statsubs_bind_stddevnames(char* storage, int n);
STATSUBS_API int statsubs_get_stddevnames(char** storage, int* n);

// stddevobsnum(stddevnum): observations of each. Written by: getworkingstoragesizes (library's
// storage)
STATSUBS_API int statsubs_bind_stddevobsnum(int* storage, int n);
STATSUBS_API int statsubs_get_stddevobsnum(int** storage, int* n);

// fixeferrtothetamap(ntheta): the fixed effect behind each fixed-effect error. Written by:
// getworkingstoragesizes (library's storage)
STATSUBS_API int statsubs_bind_fixeferrtothetamap(int* storage, int n);
STATSUBS_API int statsubs_get_fixeferrtothetamap(int** storage, int* n);

// xbase(npackglobal): variances of the packed parameters. Written by: stderromega (through
// packparameters1)
STATSUBS_API int statsubs_bind_xbase(double* storage, int n);
STATSUBS_API int statsubs_get_xbase(double** storage, int* n);

/* saveearlyvars */

// globalstop: nonzero: the run is being stopped, every loop is left. Written by: host
// (checkforstop)
STATSUBS_API int statsubs_get_globalstop(void);
STATSUBS_API void statsubs_set_globalstop(int value);

/* bdsobl */

// vinit(40 x 8): initial direction numbers of each dimension; row 1 is not used. Written by:
// poly_vinit_define
STATSUBS_API int statsubs_get_vinit(int** storage, int* rows, int* columns);

// sv(40 x 31): direction numbers in use, scaled and scrambled: dimension x bit. Written by: insobl
STATSUBS_API int statsubs_get_sv(int** storage, int* rows, int* columns);

// s: dimensions in use. Written by: insobl
STATSUBS_API int statsubs_get_s(void);
STATSUBS_API void statsubs_set_s(int value);

// recipd: maps integer coordinates to the unit interval: 1/2^(binary digits of the output). Written
// by: insobl
STATSUBS_API double statsubs_get_recipd(void);
STATSUBS_API void statsubs_set_recipd(double value);

// poly(40): primitive polynomials, coefficients as binary digits (11 is x^3 + x + 1); entry 1 is
// not used. Written by: poly_vinit_define
STATSUBS_API int statsubs_get_poly(int** storage, int* n);

// maxcol: direction numbers in use; 0 before the first insobl. Written by: insobl
STATSUBS_API int statsubs_get_maxcol(void);
STATSUBS_API void statsubs_set_maxcol(int value);

// lastq(40): integer coordinates of the last point given out. Written by: insobl, gosobl, host
STATSUBS_API int statsubs_get_lastq(int** storage, int* n);

// count: serial number of the last point given out, from 0. Written by: insobl, gosobl, host
STATSUBS_API int statsubs_get_count(void);
STATSUBS_API void statsubs_set_count(int value);

#ifdef __cplusplus
}
#endif

#endif
