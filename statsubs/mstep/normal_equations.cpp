// SPDX-License-Identifier: Apache-2.0
#include "statsubs/mstep/normal_equations.h"

#include "statsubs/support/lapack.h"

namespace statsubs {

void invert_lower_factor(matrix_view<const double> factor, matrix_view<double> inverse) {
  const int order = inverse.rows();
  if (order == 0) return;  // LAPACK refuses a leading dimension of 0
  for (int j = 1; j <= order; ++j)
    for (int i = 1; i <= order; ++i) inverse(i, j) = i >= j ? factor(i, j) : 0.0;
  support::dtrtri(order, inverse.data(), inverse.leading());
}

void add_equations(matrix_view<const double> whitened, vector_view<const double> means,
                   vector_view<const int> muetamap, matrix_view<double> ata,
                   vector_view<double> atb) {
  const int nreg = ata.columns();
  for (int k = 1; k <= muetamap.size(); ++k) {
    const int row = muetamap(k);
    if (row == 0) continue;
    for (int j = 1; j <= nreg; ++j) {
      atb(j) += whitened(row, j) * means(k);
      for (int c = 1; c <= nreg; ++c) ata(c, j) += whitened(row, c) * whitened(row, j);
    }
  }
}

bool solve_normal_equations(matrix_view<double> ata, vector_view<double> atb) {
  if (support::dpotrf(ata.rows(), ata.data(), ata.leading()) != 0) return false;
  support::dpotrs(ata.rows(), ata.data(), ata.leading(), atb.data(), atb.size());
  return true;
}

}  // namespace statsubs
