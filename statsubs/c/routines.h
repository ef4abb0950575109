/* SPDX-License-Identifier: Apache-2.0
 *
 * The public routines. Scalars in go by value, scalars out by pointer; arrays are column-major and
 * their subscripts count from 1. Each returns STATSUBS_OK or a status of statsubs.h. The header
 * named above a group says what its routines do.
 * Made by checks/interfaces from the C++ headers; see CONTRIBUTING.md.
 */
/* clang-format off */
#ifndef STATSUBS_C_ROUTINES_H
#define STATSUBS_C_ROUTINES_H

#include <stdbool.h>

#include "statsubs/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* statsubs/distributions/cdfchi.h */
STATSUBS_API int statsubs_cdfchi(int which, double* p, double* q, double* x, double* df,
                                 int* status, double* bound);

/* statsubs/distributions/cumnor.h */
STATSUBS_API int statsubs_cumnor(double arg, double* result, double* upper);

/* statsubs/distributions/dinvr.h */
STATSUBS_API int statsubs_dstinv(double small, double big, double absstp, double relstp,
                                 double stpmul, double abstol, double reltol);
STATSUBS_API int statsubs_dinvr(int* status, double* x, double fval, bool* atlow, bool* fhigh);

/* statsubs/distributions/dzror.h */
STATSUBS_API int statsubs_dstzr(double xlo, double xhi, double abstol, double reltol);
STATSUBS_API int statsubs_dzror(int* status, double* x, double fval, double* xlo, double* xhi,
                                bool* atlow, bool* fhigh);

/* statsubs/distributions/elementary.h */
STATSUBS_API int statsubs_rexp(double x, double* value);
STATSUBS_API int statsubs_rlog(double x, double* value);

/* statsubs/distributions/erf.h */
STATSUBS_API int statsubs_erf(double x, double* value);
STATSUBS_API int statsubs_erfc1(int ind, double x, double* value);

/* statsubs/distributions/gamma.h */
STATSUBS_API int statsubs_gamma(double a, double* value);
STATSUBS_API int statsubs_gamln(double a, double* value);
STATSUBS_API int statsubs_gamln1(double a, double* value);
STATSUBS_API int statsubs_gam1(double a, double* value);

/* statsubs/distributions/gratio.h */
STATSUBS_API int statsubs_gratio(double a, double x, double* ans, double* qval, int ind);
STATSUBS_API int statsubs_cumgam(double x, double a, double* cum, double* upper);
STATSUBS_API int statsubs_cumchi(double x, double df, double* cum, double* upper);

/* statsubs/distributions/machine.h */
STATSUBS_API int statsubs_exparg(int l, double* value);
STATSUBS_API int statsubs_spmpar(int i, double* value);
STATSUBS_API int statsubs_ipmpar(int i, int* value);

/* statsubs/estep/fgintegrate.h */
STATSUBS_API int statsubs_fgintegrate(int isub, int nsamp, double* dsample2, double* wtcond2,
                                      double* loglik);

/* statsubs/estep/fgpresampledir2.h */
STATSUBS_API int statsubs_fgpresampledir2(int isub, double* loglik, int* info);

/* statsubs/estep/proposals.h */
STATSUBS_API int statsubs_dnorminv(double p, double* value);
STATSUBS_API int statsubs_dexp2sideinv(double p, double* value);
STATSUBS_API int statsubs_densnormv1(double x, double* value);
STATSUBS_API int statsubs_densexp2sidev1(double x, double* value);
STATSUBS_API int statsubs_simmn(int n, const double* mu, const double* l, int ldl, const double* z,
                                double* eta);
STATSUBS_API int statsubs_discretestat(int m, int n, const double* x, int ldx, const double* w,
                                       double* mean, double* cov, int ldc);

/* statsubs/estep/sample_quality.h */
STATSUBS_API int statsubs_imp_merit(const double* w, int n, double* rms, double* peak,
                                    double* frac);
STATSUBS_API int statsubs_isir(double u, const double* w, int n, int* value);
STATSUBS_API int statsubs_knuth_shuf(double* a, int n);

/* statsubs/mstep/checkflat.h */
STATSUBS_API int statsubs_checkflat(const double* values, int n, double* tstat);

/* statsubs/mstep/incrementgrad.h */
STATSUBS_API int statsubs_incrementgrad(void);

/* statsubs/mstep/itmapnp.h */
STATSUBS_API int statsubs_itmapnp(int neta, double* etaout);

/* statsubs/mstep/lrtheta.h */
STATSUBS_API int statsubs_lrtheta(int n, double* atb, const double* eta_mean2,
                                  const double* unused4, const double* unused5, int nrowbase,
                                  int nextra, int ncolc, const int* muetamap);
STATSUBS_API int statsubs_ldmaxpv(const double* cholfac, int ldc, int m, double* vec);
STATSUBS_API int statsubs_ldmaxpy(const double* cholfac, int ldc, int m, double* vecmat, int ldv,
                                  int ncol, const int* muetamap);

/* statsubs/mstep/predetamu.h */
STATSUBS_API int statsubs_predetamu(int isub, const double* thetav, int nrowbase, int nextra,
                                    int ncolc, const int* muetamap);

/* statsubs/mstep/printtheta.h */
STATSUBS_API int statsubs_printtheta(const double* thetasforprint, int iunit);

/* statsubs/quadrature/agqgrid.h */
STATSUBS_API int statsubs_agqinit(int nnodes, int n, double* nodes, double* logweights,
                                  int* npoints, int* info);
STATSUBS_API int statsubs_getagqpoint(int k, int nnodes, int n, const double* nodes,
                                      const double* logweights, const double* centre,
                                      const double* factor, int ldf, double* z, double* eta,
                                      double* logweight);

/* statsubs/quadrature/agqintjoint.h */
STATSUBS_API int statsubs_agqintjoint(int isub, int nnodes, double* loglik, int* info);

/* statsubs/quadrature/getghnodes.h */
STATSUBS_API int statsubs_getghnodes(int n, double* nodes, double* weights, int* info);

/* statsubs/quadrature/updatedecomp.h */
STATSUBS_API int statsubs_choltofull(int n, const double* packed, double* full, int ldf);
STATSUBS_API int statsubs_updatedecomp(int isub, int* info);

/* statsubs/sequences/sobol.h */
STATSUBS_API int statsubs_poly_vinit_define(void);
STATSUBS_API int statsubs_insobl(bool* ok, int ndim, int maxpoints, int* tquality, double* point,
                                 int ndigits, int scramble);
STATSUBS_API int statsubs_gosobl(double* point);
STATSUBS_API int statsubs_getsobolcount(int* count);
STATSUBS_API int statsubs_gncrml(int ndigits, int* lsm, int* shift);
STATSUBS_API int statsubs_gncrmu(int* usm, int* ushift);

/* statsubs/sequences/uni.h */
STATSUBS_API int statsubs_uni(double* value);

/* statsubs/state/getworkingstoragesizes.h */
STATSUBS_API int statsubs_getworkingstoragesizes(int engine, int nranefnames, int nraneffects,
                                                 int nsubjects, int nobserved, int* fixedsize,
                                                 int* packsize);

/* statsubs/stats/corrcoef.h */
STATSUBS_API int statsubs_corrcoef(int n, const double* x, const double* y, double* r);

/* statsubs/stats/percentile.h */
STATSUBS_API int statsubs_percentile(int n, double x, const double* vecdis, double* p);

/* statsubs/stats/qsortr8.h */
STATSUBS_API int statsubs_qsortr8(int n, const double* data, int* index);

/* statsubs/stderr/checktight.h */
STATSUBS_API int statsubs_checktight(int* flag);

/* statsubs/stderr/eigencor.h */
STATSUBS_API int statsubs_eigencor(const double* c, int n, int m, double* cond);

/* statsubs/stderr/geteigenvalues.h */
STATSUBS_API int statsubs_geteigenvalues(int n, double* a, double* w, double* work, int lwork,
                                         int* info);

/* statsubs/stderr/qncurv.h */
STATSUBS_API int statsubs_qncurv(int isub, int* info);

/* statsubs/stderr/scoretheta.h */
STATSUBS_API int statsubs_scoretheta(int isub, int nsample, const double* dsample2,
                                     const double* wtcond2, double* scoremat_qrpem, int nomegafree);

/* statsubs/stderr/stderromega.h */
STATSUBS_API int statsubs_stderromega(const double* sesq, int nomegafree);

#ifdef __cplusplus
}
#endif

#endif
