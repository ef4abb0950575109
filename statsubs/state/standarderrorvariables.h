// SPDX-License-Identifier: Apache-2.0
//
// Shared module standarderrorvariables: names and counts of the observed variables, and the packed
// variances. Columns of the table as in global_variables.h.
#pragma once

#include "statsubs/state/shared_types.h"

// clang-format off
#define STATSUBS_STANDARDERRORVARIABLES(X) \
  X(integer, stddevnum, "", "number of observed variables", "getworkingstoragesizes") \
  X(name_vector, stddevnames, "stddevnum", "names of their residual standard deviations", "getworkingstoragesizes (library's storage)") \
  X(integer_vector, stddevobsnum, "stddevnum", "observations of each", "getworkingstoragesizes (library's storage)") \
  X(integer_vector, fixeferrtothetamap, "ntheta", "the fixed effect behind each fixed-effect error", "getworkingstoragesizes (library's storage)") \
  X(real_vector, xbase, "npackglobal", "variances of the packed parameters", "stderromega (through packparameters1)")
// clang-format on

namespace statsubs::standarderrorvariables {
STATSUBS_STANDARDERRORVARIABLES(STATSUBS_DECLARE_SHARED)
}
