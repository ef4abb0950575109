// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/support/array.h"

namespace statsubs {

// The sum of exp(term) over the points of a grid, and the mean and covariance of the points under
// those weights, from one pass over the points in their order. The largest term so far is taken out
// of the exponentials, so that terms may have any size down to -1e200. Results depend on the order
// of the points and on how they are cut into blocks, and on nothing else.
class grid_moments {
 public:
  explicit grid_moments(int n);

  // The next points, z(n x points), with their terms, as many; the terms are used up.
  void add(matrix_view<const double> z, vector_view<double> terms);

  double log_sum() const;
  // mean(n) and cov (n x n, both triangles) of centre + factor z, factor lower triangular.
  void conditional(vector_view<const double> centre, matrix_view<const double> factor,
                   vector_view<double> mean, matrix_view<double> cov) const;

 private:
  void rescale(double largest);

  double largest_ = -1e200;
  double sum_ = 0.0;
  vector<double> first_;   // sums of weight times z
  matrix<double> second_;  // of weight times z z', lower triangle
};

}  // namespace statsubs
