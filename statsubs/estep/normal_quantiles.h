// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/support/array.h"

namespace statsubs {

// Replaces every probability by its standard normal quantile, to the last bit the value of dnorminv
// (proposals.h), in about half the time where the matrix is packed and large.
void normal_quantiles(matrix_view<double> p);

}  // namespace statsubs
