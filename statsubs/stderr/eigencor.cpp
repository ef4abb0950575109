// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/eigencor.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "statsubs/state/output_units.h"
#include "statsubs/support/array.h"
#include "statsubs/support/lapack.h"
#include "statsubs/support/record.h"

namespace statsubs {

namespace {

void scale_to_correlation(matrix_view<const double> c, matrix_view<double> acor) {
  for (int j = 1; j <= c.columns(); ++j)
    for (int i = 1; i <= c.rows(); ++i)
      acor(i, j) = c(i, j) / std::sqrt(std::fabs(c(i, i) * c(j, j)));
}

void print_condition(double eigmax, double eigmin, double cond) {
  const auto number = [](double value) { return support::exponent_field(value, 13, 6); };
  write_line(standard_output_unit, "");
  write_line(standard_output_unit,
             support::record().text("condition number calculation eigmax/eigmin").line());
  write_line(standard_output_unit,
             ' ' + number(eigmax) + " / " + number(eigmin) + " = " + number(cond));
  write_line(standard_output_unit, "");
}

}  // namespace

void eigencor(const double* c, const int& n, const int& m, double& cond) {
  // dsyev asks for (nb + 2) n places to work with a block size of nb.
  constexpr int block_size = 64;
  assert(n >= 1 && m >= n);
  matrix<double> acor("the correlation matrix", n, n);
  vector<double> eigenvalue("eigenvalues", m);
  vector<double> work("workspace of dsyev", (block_size + 2) * m);
  scale_to_correlation({c, n, n}, acor);
  support::dsyev("V", n, acor.data(), n, eigenvalue.data(), work.data(), work.size());

  const auto [eigmin, eigmax] = std::minmax_element(eigenvalue.data(), eigenvalue.data() + n);
  cond = *eigmax / *eigmin;
  print_condition(*eigmax, *eigmin, cond);
}

}  // namespace statsubs
