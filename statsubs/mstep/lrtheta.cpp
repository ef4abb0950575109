// SPDX-License-Identifier: Apache-2.0
#include "statsubs/mstep/lrtheta.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "statsubs/mstep/normal_equations.h"
#include "statsubs/state/entry_check.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/output_units.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/support/array.h"
#include "statsubs/support/engine_log.h"
#include "statsubs/support/record.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

namespace {

void write_as_root(const support::record& record) {
  if (gv::myid == 0) write_line(standard_output_unit, record.line());
}

// What the regression of `nreg` columns needs.
void check_regression(const entry_check& check, int n, const double* eta_mean2, int nrowbase,
                      int nextra, int ncolc, const int* muetamap) {
  const int leneta = gv::leneta;
  const int nreg = ncolc - nextra;
  check.at_least("nrowbase", nrowbase, 0);
  check.at_least("nextra", nextra, 0);
  check.at_least("n", n, nreg);
  check.at_least("ntheta", gv::ntheta, nreg);
  check.at_least("nsub", gv::nsub, 0);
  check.holds("newsub", gv::newsub, gv::nsub + 1);
  check.given("eta_mean2", eta_mean2, gv::nsub > 0 ? leneta : 0);
  check.given("muetamap", muetamap, leneta);
  for (int k = 0; k < leneta; ++k)
    check.within("an entry of muetamap", muetamap[k], 0, std::min(leneta, nrowbase + nextra));
}

void check_entry(const entry_check& check, const double* atb) {
  const int leneta = gv::leneta;
  check.at_least("leneta", leneta, 0);
  check.holds("omegalchol", gv::omegalchol, leneta, leneta);
  check.holds("omegalcholinv", gv::omegalcholinv, leneta, leneta);
  check.given("atb", atb, gv::ntheta);
}

// Asked for when a column is left untouched, which a sound model has none of.
void check_names(int k) {
  const entry_check check("lrtheta");
  check.holds("iseqtheta", qv::iseqtheta, k);
  check.within("an entry of iseqtheta", qv::iseqtheta(k), 1, gv::ntheta);
  check.holds("itypetheta", qv::itypetheta, gv::ntheta);
  check.holds("fixedeffectnames", gv::fixedeffectnames, gv::ntheta);
}

// Sums the equations of all subjects that have observations.
void add_subjects(matrix_view<const double> eta_mean2, int nrowc, int ncolc,
                  vector_view<const int> muetamap, matrix_view<double> ata,
                  vector_view<double> atb) {
  const int leneta = gv::leneta;
  const int nreg = ata.columns();
  const vector_view<const int> used(muetamap.data(), std::min(gv::ntheta, leneta));
  matrix<double> cmatrix("the C matrix", nrowc, ncolc);
  vector<double> mean("a whitened mean", leneta);
  for (int isub = 1; isub <= gv::nsub; ++isub) {
    gv::nobs = gv::newsub(isub + 1) - gv::newsub(isub);
    if (gv::nobs == 0) continue;
    // The last subject's whitened rows still stand there, and a host may write what is not zero.
    std::fill_n(cmatrix.data(), support::count_of({nrowc, ncolc}), 0.0);
    host::getsaemcmatrix(isub - 1, cmatrix.data());
    ldmaxpy(gv::omegalcholinv.data(), gv::omegalcholinv.leading(), leneta, cmatrix.data(), nrowc,
            nreg, muetamap.data());
    std::copy_n(eta_mean2.column(isub).begin(), leneta, mean.begin());
    ldmaxpv(gv::omegalcholinv.data(), gv::omegalcholinv.leading(), leneta, mean.data());
    add_equations(cmatrix, mean, used, ata, atb);
  }
}

// Reports and marks the fixed effects that no equation touches; true when there are any.
bool mark_untouched(matrix_view<const double> ata) {
  bool found = false;
  for (int k = 1; k <= ata.rows(); ++k) {
    if (ata(k, k) != 0.0) continue;
    found = true;
    check_names(k);
    const int itheta = qv::iseqtheta(k);
    qv::itypetheta(itheta) = 4;
    const display_name& name = gv::fixedeffectnames(itheta);
    write_as_root(support::record()
                      .text(support::trimmed(std::string_view(name.data(), name.size())))
                      .text(" cannot be handled by linear regression,"));
    write_as_root(support::record().text("The corresponding C matrix diagonal is zero."));
  }
  return found;
}

void report_fallback() {
  if (gv::myid != 0) return;
  const std::string event =
      "DPOTRF in lrtheta failed or not possible, forward substitution is used";
  write_as_root(support::record().text(event));
  support::engine_log(support::engine_log::position::append)
      .write(support::record().text(event + " instead").line());
}

matrix<double> packed_copy(matrix_view<const double> from) {
  matrix<double> copy("copy of the normal matrix", from.rows(), from.columns());
  for (int j = 1; j <= from.columns(); ++j)
    for (int i = 1; i <= from.rows(); ++i) copy(i, j) = from(i, j);
  return copy;
}

// What the fallback gives is no solution of the normal equations. It is kept as it is because the
// values are part of the contract with the host, which is told of the event.
void solve(matrix_view<double> ata, vector_view<double> atb) {
  const matrix<double> unfactored = packed_copy(ata);
  if (!mark_untouched(ata) && solve_normal_equations(ata, atb)) return;
  report_fallback();
  host::forward_substitution(ata.rows(), unfactored.data(), atb.data());
}

}  // namespace

void lrtheta(const int& n, double* atb, const double* eta_mean2, const double*, const double*,
             const int& nrowbase, const int& nextra, const int& ncolc, const int* muetamap) {
  const int leneta = gv::leneta;
  const int nreg = ncolc - nextra;
  const entry_check check("lrtheta");
  check_entry(check, atb);
  if (nreg > 0) check_regression(check, n, eta_mean2, nrowbase, nextra, ncolc, muetamap);
  invert_lower_factor(gv::omegalchol.corner(leneta, leneta),
                      gv::omegalcholinv.corner(leneta, leneta));
  std::fill_n(atb, support::extent_of(gv::ntheta), 0.0);
  if (nreg <= 0) return;

  matrix<double> work("the normal matrix", n, n);
  const matrix_view<double> ata(work.data(), nreg, nreg, n);
  const vector_view<double> solution(atb, nreg);
  add_subjects(matrix_view<const double>(eta_mean2, leneta, gv::nsub), nrowbase + nextra, ncolc,
               vector_view<const int>(muetamap, leneta), ata, solution);
  solve(ata, solution);
  write_as_root(support::record().text("atb from linear regression=").values(solution));
}

void ldmaxpv(const double* cholfac, const int& ldc, const int& m, double* vec) {
  if (m < 1) return;
  const matrix_view<const double> lower(cholfac, m, m, ldc);
  const vector_view<double> x(vec, m);
  // From the last row up, so that a row finds the entries it needs still untouched.
  for (int i = m; i >= 1; --i) {
    double sum = 0.0;
    for (int j = 1; j <= i; ++j) sum += lower(i, j) * x(j);
    x(i) = sum;
  }
}

void ldmaxpy(const double* cholfac, const int& ldc, const int& m, double* vecmat, const int& ldv,
             const int& ncol, const int* muetamap) {
  if (m < 1) return;
  const matrix_view<const double> lower(cholfac, m, m, ldc);
  const matrix_view<double> rows(vecmat, ldv, ncol);
  const vector_view<const int> map(muetamap, m);
  vector<double> product("rows of a triangular product", m);
  for (int c = 1; c <= ncol; ++c) {
    std::fill(product.begin(), product.end(), 0.0);
    for (int j = 1; j <= m; ++j) {
      if (map(j) == 0) continue;
      for (int i = j; i <= m; ++i)
        if (map(i) != 0) product(map(i)) += lower(i, j) * rows(map(j), c);
    }
    for (const int row : map)
      if (row != 0) rows(row, c) = product(row);
  }
}

}  // namespace statsubs
