/* SPDX-License-Identifier: Apache-2.0
 *
 * The shells of the public routines: no exception leaves them.
 * Made by checks/interfaces from the C++ headers; see CONTRIBUTING.md.
 */
/* clang-format off */
#include "statsubs/c/routines.h"

#include "statsubs/c/guarded.h"
#include "statsubs/distributions/cdfchi.h"
#include "statsubs/distributions/cumnor.h"
#include "statsubs/distributions/dinvr.h"
#include "statsubs/distributions/dzror.h"
#include "statsubs/distributions/elementary.h"
#include "statsubs/distributions/erf.h"
#include "statsubs/distributions/gamma.h"
#include "statsubs/distributions/gratio.h"
#include "statsubs/distributions/machine.h"
#include "statsubs/estep/fgintegrate.h"
#include "statsubs/estep/fgpresampledir2.h"
#include "statsubs/estep/proposals.h"
#include "statsubs/estep/sample_quality.h"
#include "statsubs/mstep/checkflat.h"
#include "statsubs/mstep/incrementgrad.h"
#include "statsubs/mstep/itmapnp.h"
#include "statsubs/mstep/lrtheta.h"
#include "statsubs/mstep/predetamu.h"
#include "statsubs/mstep/printtheta.h"
#include "statsubs/quadrature/agqgrid.h"
#include "statsubs/quadrature/agqintjoint.h"
#include "statsubs/quadrature/getghnodes.h"
#include "statsubs/quadrature/updatedecomp.h"
#include "statsubs/sequences/sobol.h"
#include "statsubs/sequences/uni.h"
#include "statsubs/state/getworkingstoragesizes.h"
#include "statsubs/stats/corrcoef.h"
#include "statsubs/stats/percentile.h"
#include "statsubs/stats/qsortr8.h"
#include "statsubs/stderr/checktight.h"
#include "statsubs/stderr/eigencor.h"
#include "statsubs/stderr/geteigenvalues.h"
#include "statsubs/stderr/qncurv.h"
#include "statsubs/stderr/scoretheta.h"
#include "statsubs/stderr/stderromega.h"

using statsubs::c::guarded;

int statsubs_cdfchi(int which, double* p, double* q, double* x, double* df, int* status,
                    double* bound) {
  return guarded([&] { statsubs::cdfchi(which, *p, *q, *x, *df, *status, *bound); });
}

int statsubs_cumnor(double arg, double* result, double* upper) {
  return guarded([&] { statsubs::cumnor(arg, *result, *upper); });
}

int statsubs_dstinv(double small, double big, double absstp, double relstp, double stpmul,
                    double abstol, double reltol) {
  return guarded([&] { statsubs::dstinv(small, big, absstp, relstp, stpmul, abstol, reltol); });
}

int statsubs_dinvr(int* status, double* x, double fval, bool* atlow, bool* fhigh) {
  return guarded([&] { statsubs::dinvr(*status, *x, fval, *atlow, *fhigh); });
}

int statsubs_dstzr(double xlo, double xhi, double abstol, double reltol) {
  return guarded([&] { statsubs::dstzr(xlo, xhi, abstol, reltol); });
}

int statsubs_dzror(int* status, double* x, double fval, double* xlo, double* xhi, bool* atlow,
                   bool* fhigh) {
  return guarded([&] { statsubs::dzror(*status, *x, fval, *xlo, *xhi, *atlow, *fhigh); });
}

int statsubs_rexp(double x, double* value) {
  return guarded([&] { *value = statsubs::rexp(x); });
}

int statsubs_rlog(double x, double* value) {
  return guarded([&] { *value = statsubs::rlog(x); });
}

int statsubs_erf(double x, double* value) {
  return guarded([&] { *value = statsubs::erf(x); });
}

int statsubs_erfc1(int ind, double x, double* value) {
  return guarded([&] { *value = statsubs::erfc1(ind, x); });
}

int statsubs_gamma(double a, double* value) {
  return guarded([&] { *value = statsubs::gamma(a); });
}

int statsubs_gamln(double a, double* value) {
  return guarded([&] { *value = statsubs::gamln(a); });
}

int statsubs_gamln1(double a, double* value) {
  return guarded([&] { *value = statsubs::gamln1(a); });
}

int statsubs_gam1(double a, double* value) {
  return guarded([&] { *value = statsubs::gam1(a); });
}

int statsubs_gratio(double a, double x, double* ans, double* qval, int ind) {
  return guarded([&] { statsubs::gratio(a, x, *ans, *qval, ind); });
}

int statsubs_cumgam(double x, double a, double* cum, double* upper) {
  return guarded([&] { statsubs::cumgam(x, a, *cum, *upper); });
}

int statsubs_cumchi(double x, double df, double* cum, double* upper) {
  return guarded([&] { statsubs::cumchi(x, df, *cum, *upper); });
}

int statsubs_exparg(int l, double* value) {
  return guarded([&] { *value = statsubs::exparg(l); });
}

int statsubs_spmpar(int i, double* value) {
  return guarded([&] { *value = statsubs::spmpar(i); });
}

int statsubs_ipmpar(int i, int* value) {
  return guarded([&] { *value = statsubs::ipmpar(i); });
}

int statsubs_fgintegrate(int isub, int nsamp, double* dsample2, double* wtcond2, double* loglik) {
  return guarded([&] { statsubs::fgintegrate(isub, nsamp, dsample2, wtcond2, *loglik); });
}

int statsubs_fgpresampledir2(int isub, double* loglik, int* info) {
  return guarded([&] { statsubs::fgpresampledir2(isub, *loglik, *info); });
}

int statsubs_dnorminv(double p, double* value) {
  return guarded([&] { *value = statsubs::dnorminv(p); });
}

int statsubs_dexp2sideinv(double p, double* value) {
  return guarded([&] { *value = statsubs::dexp2sideinv(p); });
}

int statsubs_densnormv1(double x, double* value) {
  return guarded([&] { *value = statsubs::densnormv1(x); });
}

int statsubs_densexp2sidev1(double x, double* value) {
  return guarded([&] { *value = statsubs::densexp2sidev1(x); });
}

int statsubs_simmn(int n, const double* mu, const double* l, int ldl, const double* z,
                   double* eta) {
  return guarded([&] { statsubs::simmn(n, mu, l, ldl, z, eta); });
}

int statsubs_discretestat(int m, int n, const double* x, int ldx, const double* w, double* mean,
                          double* cov, int ldc) {
  return guarded([&] { statsubs::discretestat(m, n, x, ldx, w, mean, cov, ldc); });
}

int statsubs_imp_merit(const double* w, int n, double* rms, double* peak, double* frac) {
  return guarded([&] { statsubs::imp_merit(w, n, *rms, *peak, *frac); });
}

int statsubs_isir(double u, const double* w, int n, int* value) {
  return guarded([&] { *value = statsubs::isir(u, w, n); });
}

int statsubs_knuth_shuf(double* a, int n) {
  return guarded([&] { statsubs::knuth_shuf(a, n); });
}

int statsubs_checkflat(const double* values, int n, double* tstat) {
  return guarded([&] { statsubs::checkflat(values, n, *tstat); });
}

int statsubs_incrementgrad(void) {
  return guarded([&] { statsubs::incrementgrad(); });
}

int statsubs_itmapnp(int neta, double* etaout) {
  return guarded([&] { statsubs::itmapnp(neta, etaout); });
}

int statsubs_lrtheta(int n, double* atb, const double* eta_mean2, const double* unused4,
                     const double* unused5, int nrowbase, int nextra, int ncolc,
                     const int* muetamap) {
  return guarded([&] { statsubs::lrtheta(n, atb, eta_mean2, unused4, unused5, nrowbase, nextra,
        ncolc, muetamap); });
}

int statsubs_ldmaxpv(const double* cholfac, int ldc, int m, double* vec) {
  return guarded([&] { statsubs::ldmaxpv(cholfac, ldc, m, vec); });
}

int statsubs_ldmaxpy(const double* cholfac, int ldc, int m, double* vecmat, int ldv, int ncol,
                     const int* muetamap) {
  return guarded([&] { statsubs::ldmaxpy(cholfac, ldc, m, vecmat, ldv, ncol, muetamap); });
}

int statsubs_predetamu(int isub, const double* thetav, int nrowbase, int nextra, int ncolc,
                       const int* muetamap) {
  return guarded([&] { statsubs::predetamu(isub, thetav, nrowbase, nextra, ncolc, muetamap); });
}

int statsubs_printtheta(const double* thetasforprint, int iunit) {
  return guarded([&] { statsubs::printtheta(thetasforprint, iunit); });
}

int statsubs_agqinit(int nnodes, int n, double* nodes, double* logweights, int* npoints,
                     int* info) {
  return guarded([&] { statsubs::agqinit(nnodes, n, nodes, logweights, *npoints, *info); });
}

int statsubs_getagqpoint(int k, int nnodes, int n, const double* nodes, const double* logweights,
                         const double* centre, const double* factor, int ldf, double* z,
                         double* eta, double* logweight) {
  return guarded([&] { statsubs::getagqpoint(k, nnodes, n, nodes, logweights, centre, factor, ldf,
        z, eta, *logweight); });
}

int statsubs_agqintjoint(int isub, int nnodes, double* loglik, int* info) {
  return guarded([&] { statsubs::agqintjoint(isub, nnodes, *loglik, *info); });
}

int statsubs_getghnodes(int n, double* nodes, double* weights, int* info) {
  return guarded([&] { statsubs::getghnodes(n, nodes, weights, *info); });
}

int statsubs_choltofull(int n, const double* packed, double* full, int ldf) {
  return guarded([&] { statsubs::choltofull(n, packed, full, ldf); });
}

int statsubs_updatedecomp(int isub, int* info) {
  return guarded([&] { statsubs::updatedecomp(isub, *info); });
}

int statsubs_poly_vinit_define(void) {
  return guarded([&] { statsubs::poly_vinit_define(); });
}

int statsubs_insobl(bool* ok, int ndim, int maxpoints, int* tquality, double* point, int ndigits,
                    int scramble) {
  return guarded([&] { statsubs::insobl(ok, ndim, maxpoints, *tquality, point, ndigits,
        scramble); });
}

int statsubs_gosobl(double* point) {
  return guarded([&] { statsubs::gosobl(point); });
}

int statsubs_getsobolcount(int* count) {
  return guarded([&] { statsubs::getsobolcount(*count); });
}

int statsubs_gncrml(int ndigits, int* lsm, int* shift) {
  return guarded([&] { statsubs::gncrml(ndigits, lsm, shift); });
}

int statsubs_gncrmu(int* usm, int* ushift) {
  return guarded([&] { statsubs::gncrmu(usm, ushift); });
}

int statsubs_uni(double* value) {
  return guarded([&] { *value = statsubs::uni(); });
}

int statsubs_getworkingstoragesizes(int engine, int nranefnames, int nraneffects, int nsubjects,
                                    int nobserved, int* fixedsize, int* packsize) {
  return guarded([&] { statsubs::getworkingstoragesizes(engine, nranefnames, nraneffects, nsubjects,
        nobserved, *fixedsize, *packsize); });
}

int statsubs_corrcoef(int n, const double* x, const double* y, double* r) {
  return guarded([&] { statsubs::corrcoef(n, x, y, *r); });
}

int statsubs_percentile(int n, double x, const double* vecdis, double* p) {
  return guarded([&] { statsubs::percentile(n, x, vecdis, *p); });
}

int statsubs_qsortr8(int n, const double* data, int* index) {
  return guarded([&] { statsubs::qsortr8(n, data, index); });
}

int statsubs_checktight(int* flag) {
  return guarded([&] { statsubs::checktight(*flag); });
}

int statsubs_eigencor(const double* c, int n, int m, double* cond) {
  return guarded([&] { statsubs::eigencor(c, n, m, *cond); });
}

int statsubs_geteigenvalues(int n, double* a, double* w, double* work, int lwork, int* info) {
  return guarded([&] { statsubs::geteigenvalues(n, a, w, work, lwork, *info); });
}

int statsubs_qncurv(int isub, int* info) {
  return guarded([&] { statsubs::qncurv(isub, *info); });
}

int statsubs_scoretheta(int isub, int nsample, const double* dsample2, const double* wtcond2,
                        double* scoremat_qrpem, int nomegafree) {
  return guarded([&] { statsubs::scoretheta(isub, nsample, dsample2, wtcond2, scoremat_qrpem,
        nomegafree); });
}

int statsubs_stderromega(const double* sesq, int nomegafree) {
  return guarded([&] { statsubs::stderromega(sesq, nomegafree); });
}
