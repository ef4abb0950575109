// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/stderromega.h"

#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/standarderrorvariables.h"
#include "statsubs/stderr/free_omega.h"
#include "statsubs/support/array.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace sv = statsubs::standarderrorvariables;

void stderromega(const double* sesq, const int& nomegafree) {
  const int n = gv::ntheta + nomegafree;
  const matrix_view<const double> covariance(sesq, n, n);
  matrix<double> variance("variances of omega", gv::leneta, gv::leneta);
  for_each_free_omega(gv::omegamask, nomegafree, [&](int c, int i, int j) {
    variance(i, j) = covariance(gv::ntheta + c, gv::ntheta + c);
  });
  int count = 0;
  host::packparameters1(gv::theta.data(), variance.data(), gv::sigmalchol, sv::xbase.data(),
                        gv::leneta, count);
}

}  // namespace statsubs
