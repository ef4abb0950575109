// SPDX-License-Identifier: Apache-2.0
#include "statsubs/quadrature/updatedecomp.h"

#include <cmath>

#include "statsubs/state/entry_check.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/support/array.h"
#include "statsubs/support/lapack.h"
#include "statsubs/support/lower_triangle.h"

namespace statsubs {

namespace gv = statsubs::global_variables;

namespace {

constexpr double widest = 10.0;  // in units of the population's standard deviations

// Replaces the factor of a curvature by that of its inverse, the conditional covariance. False when
// that cannot be done or is wider than the deviations allow.
bool invert_curvature(matrix_view<double> factor, vector_view<const double> deviations) {
  const int n = factor.rows();
  if (support::dpotri(n, factor.data(), factor.leading()) != 0) return false;
  for (int i = 1; i <= n; ++i)
    if (!(std::sqrt(factor(i, i)) <= widest * deviations(i))) return false;
  return support::dpotrf(n, factor.data(), factor.leading()) == 0;
}

void check_entry(int isub) {
  const entry_check check("updatedecomp");
  const int n = gv::leneta;
  check.at_least("leneta", n, 0);
  check.subject(isub);
  check.holds("cholsub", gv::cholsub, n * (n + 1) / 2, isub);
  check.holds("stddeveta", gv::stddeveta, n);
  check.holds("omega", gv::omega, n, n);
  check.holds("omegacholsub", gv::omegacholsub, n, n);
}

}  // namespace

void choltofull(const int& n, const double* packed, double* full, const int& ldf) {
  const matrix_view<double> lower(full, n, n, ldf);
  const double* next = packed;
  for (int j = 1; j <= n; ++j) {
    for (int i = 1; i < j; ++i) lower(i, j) = 0.0;
    for (int i = j; i <= n; ++i) lower(i, j) = *next++;
  }
}

void updatedecomp(const int& isub, int& info) {
  const int n = gv::leneta;
  check_entry(isub);
  matrix<double> factor("the factor of a subject's grid", n, n);
  choltofull(n, gv::cholsub.column(isub).data(), factor.data(), n);
  info = 0;
  if (!invert_curvature(factor, gv::stddeveta)) {
    support::copy_lower(gv::omega.corner(n, n), factor);
    info = support::dpotrf(n, factor.data(), n) == 0 ? 1 : 2;
  }
  if (info != 2) support::copy_lower(factor, gv::omegacholsub.corner(n, n));
}

}  // namespace statsubs
