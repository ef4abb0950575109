// SPDX-License-Identifier: Apache-2.0
//
// The free elements of omega and the order in which scores and their covariance number them: the
// lower triangle by rows, (1,1), (2,1), (2,2), (3,1), ...
#pragma once

#include "statsubs/support/array.h"

namespace statsubs {

// Calls visit(c, i, j) for the first `count` free elements (i, j), i >= j, with c = 1, 2, ...; an
// element is free where omegamask is neither -1 nor 0.
template <class Visit>
void for_each_free_omega(matrix_view<const double> omegamask, int count, Visit visit) {
  int c = 0;
  for (int i = 1; i <= omegamask.rows(); ++i)
    for (int j = 1; j <= i; ++j)
      if (c < count && omegamask(i, j) != -1.0 && omegamask(i, j) != 0.0) visit(++c, i, j);
}

}  // namespace statsubs
