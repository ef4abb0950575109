// SPDX-License-Identifier: Apache-2.0
//
// Shared module qrpemlocalvariables: working state of the quasi-random EM method. Columns of the
// table as in global_variables.h.
#pragma once

#include "statsubs/state/shared_types.h"

// clang-format off
#define STATSUBS_QRPEMLOCALVARIABLES(X) \
  X(real_cube, choleskyfactor, "leneta x leneta x nsub", "Cholesky factor of each subject's proposal covariance, lower triangles", "qncurv, fgpresampledir2, host") \
  X(real_cube, cmatrix_3d, "leneta x columns of the C matrix x nsub", "the C matrix of every subject", "host") \
  X(integer_vector, iseqtheta, "columns of the C matrix", "the fixed effect that stands in each column", "host") \
  X(integer_vector, itypetheta, "ntheta", "class of each fixed effect: 0 covariate coefficient, 4 excluded from the regression", "host, lrtheta") \
  X(integer_vector, itypetheta_etamap, "ntheta", "the random effect whose mean the fixed effect is; -99 for none", "host")
// clang-format on

namespace statsubs::qrpemlocalvariables {
STATSUBS_QRPEMLOCALVARIABLES(STATSUBS_DECLARE_SHARED)
}
