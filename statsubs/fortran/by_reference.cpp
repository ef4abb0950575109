// SPDX-License-Identifier: Apache-2.0
//
// The routines as Fortran without a module calls them: lower case, a trailing underscore, every
// argument by reference. They stand on the C shells, so that a program without the C++ runtime
// links them; where a shell has a failure to tell, the process ends.
//
// Made by checks/interfaces from the C++ headers; see CONTRIBUTING.md.
// clang-format off
#include <cstdio>
#include <cstdlib>

#include "statsubs/c/statsubs.h"

static void expect_success(int status) {
  if (status == STATSUBS_OK) return;
  std::fprintf(stderr, "statsubs: %s\n", statsubs_last_error());
  std::abort();
}

extern "C" {

void cdfchi_(const int& which, double& p, double& q, double& x, double& df, int& status,
             double& bound) {
  expect_success(statsubs_cdfchi(which, &p, &q, &x, &df, &status, &bound));
}

void cumnor_(const double& arg, double& result, double& upper) {
  expect_success(statsubs_cumnor(arg, &result, &upper));
}

void dstinv_(const double& small, const double& big, const double& absstp, const double& relstp,
             const double& stpmul, const double& abstol, const double& reltol) {
  expect_success(statsubs_dstinv(small, big, absstp, relstp, stpmul, abstol, reltol));
}

void dinvr_(int& status, double& x, const double& fval, bool& atlow, bool& fhigh) {
  expect_success(statsubs_dinvr(&status, &x, fval, &atlow, &fhigh));
}

void dstzr_(const double& xlo, const double& xhi, const double& abstol, const double& reltol) {
  expect_success(statsubs_dstzr(xlo, xhi, abstol, reltol));
}

void dzror_(int& status, double& x, const double& fval, double& xlo, double& xhi, bool& atlow,
            bool& fhigh) {
  expect_success(statsubs_dzror(&status, &x, fval, &xlo, &xhi, &atlow, &fhigh));
}

double rexp_(const double& x) {
  double value = 0;
  expect_success(statsubs_rexp(x, &value));
  return value;
}

double rlog_(const double& x) {
  double value = 0;
  expect_success(statsubs_rlog(x, &value));
  return value;
}

double erf_(const double& x) {
  double value = 0;
  expect_success(statsubs_erf(x, &value));
  return value;
}

double erfc1_(const int& ind, const double& x) {
  double value = 0;
  expect_success(statsubs_erfc1(ind, x, &value));
  return value;
}

double gamma_(const double& a) {
  double value = 0;
  expect_success(statsubs_gamma(a, &value));
  return value;
}

double gamln_(const double& a) {
  double value = 0;
  expect_success(statsubs_gamln(a, &value));
  return value;
}

double gamln1_(const double& a) {
  double value = 0;
  expect_success(statsubs_gamln1(a, &value));
  return value;
}

double gam1_(const double& a) {
  double value = 0;
  expect_success(statsubs_gam1(a, &value));
  return value;
}

void gratio_(const double& a, const double& x, double& ans, double& qval, const int& ind) {
  expect_success(statsubs_gratio(a, x, &ans, &qval, ind));
}

void cumgam_(const double& x, const double& a, double& cum, double& upper) {
  expect_success(statsubs_cumgam(x, a, &cum, &upper));
}

void cumchi_(const double& x, const double& df, double& cum, double& upper) {
  expect_success(statsubs_cumchi(x, df, &cum, &upper));
}

double exparg_(const int& l) {
  double value = 0;
  expect_success(statsubs_exparg(l, &value));
  return value;
}

double spmpar_(const int& i) {
  double value = 0;
  expect_success(statsubs_spmpar(i, &value));
  return value;
}

int ipmpar_(const int& i) {
  int value = 0;
  expect_success(statsubs_ipmpar(i, &value));
  return value;
}

void fgintegrate_(const int& isub, const int& nsamp, double* dsample2, double* wtcond2,
                  double& loglik) {
  expect_success(statsubs_fgintegrate(isub, nsamp, dsample2, wtcond2, &loglik));
}

void fgpresampledir2_(const int& isub, double& loglik, int& info) {
  expect_success(statsubs_fgpresampledir2(isub, &loglik, &info));
}

double dnorminv_(const double& p) {
  double value = 0;
  expect_success(statsubs_dnorminv(p, &value));
  return value;
}

double dexp2sideinv_(const double& p) {
  double value = 0;
  expect_success(statsubs_dexp2sideinv(p, &value));
  return value;
}

double densnormv1_(const double& x) {
  double value = 0;
  expect_success(statsubs_densnormv1(x, &value));
  return value;
}

double densexp2sidev1_(const double& x) {
  double value = 0;
  expect_success(statsubs_densexp2sidev1(x, &value));
  return value;
}

void simmn_(const int& n, const double* mu, const double* l, const int& ldl, const double* z,
            double* eta) {
  expect_success(statsubs_simmn(n, mu, l, ldl, z, eta));
}

void discretestat_(const int& m, const int& n, const double* x, const int& ldx, const double* w,
                   double* mean, double* cov, const int& ldc) {
  expect_success(statsubs_discretestat(m, n, x, ldx, w, mean, cov, ldc));
}

void imp_merit_(const double* w, const int& n, double& rms, double& peak, double& frac) {
  expect_success(statsubs_imp_merit(w, n, &rms, &peak, &frac));
}

int isir_(const double& u, const double* w, const int& n) {
  int value = 0;
  expect_success(statsubs_isir(u, w, n, &value));
  return value;
}

void knuth_shuf_(double* a, const int& n) {
  expect_success(statsubs_knuth_shuf(a, n));
}

void checkflat_(const double* values, const int& n, double& tstat) {
  expect_success(statsubs_checkflat(values, n, &tstat));
}

void incrementgrad_() {
  expect_success(statsubs_incrementgrad());
}

void itmapnp_(const int& neta, double* etaout) {
  expect_success(statsubs_itmapnp(neta, etaout));
}

void lrtheta_(const int& n, double* atb, const double* eta_mean2, const double* unused4,
              const double* unused5, const int& nrowbase, const int& nextra, const int& ncolc,
              const int* muetamap) {
  expect_success(statsubs_lrtheta(n, atb, eta_mean2, unused4, unused5, nrowbase, nextra, ncolc,
                                  muetamap));
}

void ldmaxpv_(const double* cholfac, const int& ldc, const int& m, double* vec) {
  expect_success(statsubs_ldmaxpv(cholfac, ldc, m, vec));
}

void ldmaxpy_(const double* cholfac, const int& ldc, const int& m, double* vecmat, const int& ldv,
              const int& ncol, const int* muetamap) {
  expect_success(statsubs_ldmaxpy(cholfac, ldc, m, vecmat, ldv, ncol, muetamap));
}

void predetamu_(const int& isub, const double* thetav, const int& nrowbase, const int& nextra,
                const int& ncolc, const int* muetamap) {
  expect_success(statsubs_predetamu(isub, thetav, nrowbase, nextra, ncolc, muetamap));
}

void printtheta_(const double* thetasforprint, const int& iunit) {
  expect_success(statsubs_printtheta(thetasforprint, iunit));
}

void agqinit_(const int& nnodes, const int& n, double* nodes, double* logweights, int& npoints,
              int& info) {
  expect_success(statsubs_agqinit(nnodes, n, nodes, logweights, &npoints, &info));
}

void getagqpoint_(const int& k, const int& nnodes, const int& n, const double* nodes,
                  const double* logweights, const double* centre, const double* factor,
                  const int& ldf, double* z, double* eta, double& logweight) {
  expect_success(statsubs_getagqpoint(k, nnodes, n, nodes, logweights, centre, factor, ldf, z, eta,
                                      &logweight));
}

void agqintjoint_(const int& isub, const int& nnodes, double& loglik, int& info) {
  expect_success(statsubs_agqintjoint(isub, nnodes, &loglik, &info));
}

void getghnodes_(const int& n, double* nodes, double* weights, int& info) {
  expect_success(statsubs_getghnodes(n, nodes, weights, &info));
}

void choltofull_(const int& n, const double* packed, double* full, const int& ldf) {
  expect_success(statsubs_choltofull(n, packed, full, ldf));
}

void updatedecomp_(const int& isub, int& info) {
  expect_success(statsubs_updatedecomp(isub, &info));
}

void poly_vinit_define_() {
  expect_success(statsubs_poly_vinit_define());
}

void insobl_(bool* ok, const int& ndim, const int& maxpoints, int& tquality, double* point,
             const int& ndigits, const int& scramble) {
  expect_success(statsubs_insobl(ok, ndim, maxpoints, &tquality, point, ndigits, scramble));
}

void gosobl_(double* point) {
  expect_success(statsubs_gosobl(point));
}

void getsobolcount_(int& count) {
  expect_success(statsubs_getsobolcount(&count));
}

void gncrml_(const int& ndigits, int* lsm, int* shift) {
  expect_success(statsubs_gncrml(ndigits, lsm, shift));
}

void gncrmu_(int* usm, int* ushift) {
  expect_success(statsubs_gncrmu(usm, ushift));
}

double uni_() {
  double value = 0;
  expect_success(statsubs_uni(&value));
  return value;
}

void getworkingstoragesizes_(const int& engine, const int& nranefnames, const int& nraneffects,
                             const int& nsubjects, const int& nobserved, int& fixedsize,
                             int& packsize) {
  expect_success(statsubs_getworkingstoragesizes(engine, nranefnames, nraneffects, nsubjects,
                                                 nobserved, &fixedsize, &packsize));
}

void corrcoef_(const int& n, const double* x, const double* y, double& r) {
  expect_success(statsubs_corrcoef(n, x, y, &r));
}

void percentile_(const int& n, const double& x, const double* vecdis, double& p) {
  expect_success(statsubs_percentile(n, x, vecdis, &p));
}

void qsortr8_(const int& n, const double* data, int* index) {
  expect_success(statsubs_qsortr8(n, data, index));
}

void checktight_(int& flag) {
  expect_success(statsubs_checktight(&flag));
}

void eigencor_(const double* c, const int& n, const int& m, double& cond) {
  expect_success(statsubs_eigencor(c, n, m, &cond));
}

void geteigenvalues_(const int& n, double* a, double* w, double* work, const int& lwork,
                     int& info) {
  expect_success(statsubs_geteigenvalues(n, a, w, work, lwork, &info));
}

void qncurv_(const int& isub, int& info) {
  expect_success(statsubs_qncurv(isub, &info));
}

void scoretheta_(const int& isub, const int& nsample, const double* dsample2, const double* wtcond2,
                 double* scoremat_qrpem, const int& nomegafree) {
  expect_success(statsubs_scoretheta(isub, nsample, dsample2, wtcond2, scoremat_qrpem, nomegafree));
}

void stderromega_(const double* sesq, const int& nomegafree) {
  expect_success(statsubs_stderromega(sesq, nomegafree));
}

}
