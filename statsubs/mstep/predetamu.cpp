// SPDX-License-Identifier: Apache-2.0
#include "statsubs/mstep/predetamu.h"

#include <algorithm>

#include "statsubs/state/entry_check.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/support/array.h"

namespace statsubs {

namespace gv = statsubs::global_variables;

namespace {

void check_entry(int isub, const double* thetav, int nrowc, int ncolc, const int* muetamap) {
  const entry_check check("predetamu");
  check.at_least("leneta", gv::leneta, 0);
  check.subject(isub);
  check.given("thetav", thetav, ncolc);
  check.given("muetamap", muetamap, gv::leneta);
  check.holds("xmusub", gv::xmusub, gv::leneta);
  for (int k = 0; k < gv::leneta; ++k)
    check.within("an entry of muetamap", muetamap[k], 0, std::min(gv::xmusub.size(), nrowc));
}

}  // namespace

void predetamu(const int& isub, const double* thetav, const int& nrowbase, const int& nextra,
               const int& ncolc, const int* muetamap) {
  check_entry(isub, thetav, nrowbase + nextra, ncolc, muetamap);
  const vector_view<const double> theta(thetav, ncolc);
  const vector_view<const int> map(muetamap, gv::leneta);
  matrix<double> cmatrix("the C matrix", nrowbase + nextra, ncolc);
  host::getsaemcmatrix(isub - 1, cmatrix.data());
  for (const int row : map) {
    if (row == 0) continue;
    double mean = 0.0;
    for (int c = 1; c <= ncolc; ++c) mean += cmatrix(row, c) * theta(c);
    gv::xmusub(row) = mean;
  }
}

}  // namespace statsubs
