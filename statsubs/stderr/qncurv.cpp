// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/qncurv.h"

#include <algorithm>

#include "statsubs/state/entry_check.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/support/array.h"
#include "statsubs/support/lapack.h"
#include "statsubs/support/lower_triangle.h"
#include "statsubs/support/parallel.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

namespace {

// Gives every process the owner's column.
void share_column(int isub, vector_view<double> column) {
  if (isub % gv::numprocs != gv::myid) std::fill(column.begin(), column.end(), 0.0);
  host::globalvec(column.data(), column.size());
}

void unpack_lower(vector_view<const double> packed, matrix_view<double> lower) {
  int position = 0;
  for (int j = 1; j <= lower.columns(); ++j)
    for (int i = j; i <= lower.rows(); ++i) lower(i, j) = packed(++position);
}

void check_entry(int isub) {
  const entry_check check("qncurv");
  const int n = gv::leneta;
  check.at_least("leneta", n, 0);
  check.subject(isub);
  check.share();
  check.holds("newsub", gv::newsub, isub + 1);
  if (gv::newsub(isub + 1) == gv::newsub(isub)) return;
  check.holds("cholsub", gv::cholsub, n * (n + 1) / 2, isub);
  check.holds("omegasubnew", gv::omegasubnew, n, n);
  check.holds("choleskyfactor", qv::choleskyfactor, n, n, isub);
}

}  // namespace

void qncurv(const int& isub, int& info) {
  check_entry(isub);
  gv::izub = isub;
  info = 0;
  support::barrier(gv::numprocs);
  gv::nobs = gv::newsub(isub + 1) - gv::newsub(isub);
  if (gv::nobs == 0 || gv::leneta == 0) return;

  const int n = gv::leneta;
  const vector_view<double> packed = gv::cholsub.column(isub).first(n * (n + 1) / 2);
  const matrix_view<double> work = gv::omegasubnew.corner(n, n);
  share_column(isub, packed);
  unpack_lower(packed, work);
  support::dpotri(n, work.data(), work.leading());
  info = support::dpotrf(n, work.data(), work.leading());
  support::copy_lower(work, qv::choleskyfactor.slice(isub).corner(n, n));
}

}  // namespace statsubs
