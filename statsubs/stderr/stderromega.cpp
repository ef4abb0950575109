// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/stderromega.h"

#include "statsubs/state/entry_check.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/standarderrorvariables.h"
#include "statsubs/stderr/free_omega.h"
#include "statsubs/support/array.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace sv = statsubs::standarderrorvariables;

namespace {

void check_entry(const double* sesq, int nomegafree) {
  const entry_check check("stderromega");
  const int leneta = gv::leneta;
  check.at_least("leneta", leneta, 0);
  check.at_least("ntheta", gv::ntheta, 0);
  check.within("nomegafree", nomegafree, 0, leneta * (leneta + 1) / 2);
  check.given("sesq", sesq, gv::ntheta + nomegafree);
  check.holds("theta", gv::theta, gv::ntheta);
  check.holds("omegamask", gv::omegamask, leneta, leneta);
  check.holds("xbase", sv::xbase, gv::npackglobal);
}

}  // namespace

void stderromega(const double* sesq, const int& nomegafree) {
  check_entry(sesq, nomegafree);
  const int n = gv::ntheta + nomegafree;
  const matrix_view<const double> covariance(sesq, n, n);
  matrix<double> variance("variances of omega", gv::leneta, gv::leneta);
  const matrix_view<const double> mask = gv::omegamask.corner(gv::leneta, gv::leneta);
  for_each_free_omega(mask, nomegafree, [&](int c, int i, int j) {
    variance(i, j) = covariance(gv::ntheta + c, gv::ntheta + c);
  });
  int count = 0;
  host::packparameters1(gv::theta.data(), variance.data(), gv::sigmalchol, sv::xbase.data(),
                        gv::leneta, count);
}

}  // namespace statsubs
