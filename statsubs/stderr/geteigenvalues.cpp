// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/geteigenvalues.h"

#include "statsubs/support/lapack.h"

namespace statsubs {

void geteigenvalues(const int& n, double* a, double* w, double* work, const int& lwork, int& info) {
  info = support::dsyev("N", n, a, n, w, work, lwork);
}

}  // namespace statsubs
