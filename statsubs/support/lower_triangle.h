// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/support/array.h"

namespace statsubs::support {

// Copies the lower triangle of `from`, diagonal included, into `to`, square matrices of one order.
// What stands above the diagonal of `to` does not change.
inline void copy_lower(matrix_view<const double> from, matrix_view<double> to) {
  for (int j = 1; j <= from.columns(); ++j)
    for (int i = j; i <= from.rows(); ++i) to(i, j) = from(i, j);
}

}  // namespace statsubs::support
