// SPDX-License-Identifier: Apache-2.0
#include "statsubs/quadrature/agqgrid.h"

#include <cmath>

#include "statsubs/quadrature/getghnodes.h"
#include "statsubs/support/array.h"

namespace statsubs {

namespace {

constexpr double sqrt_two = 1.41421356237309504880;

// base^exponent, or 0 when it does not fit.
int power_or_zero(int base, int exponent) {
  int power = 1;
  for (int i = 0; i < exponent; ++i)
    if (__builtin_mul_overflow(power, base, &power)) return 0;
  return power;
}

}  // namespace

void agqinit(const int& nnodes, const int& n, double* nodes, double* logweights, int& npoints,
             int& info) {
  info = nnodes < 1 || nnodes > most_ghnodes ? -1 : n < 1 || n > most_agq_dimensions ? -2 : 0;
  if (info != 0) return;
  const int points = power_or_zero(nnodes, n);
  info = points == 0 ? 1 : 0;
  if (info != 0) return;

  vector<double> x("Gauss-Hermite nodes", nnodes);
  vector<double> w("Gauss-Hermite weights", nnodes);
  int status = 0;
  getghnodes(nnodes, x.data(), w.data(), status);
  info = status == 0 ? 0 : 2;
  if (info != 0) return;

  const vector_view<double> scaled(nodes, nnodes);
  const vector_view<double> logarithms(logweights, nnodes);
  for (int j = 1; j <= nnodes; ++j) {
    scaled(j) = sqrt_two * x(j);
    logarithms(j) = std::log(sqrt_two * w(j)) + x(j) * x(j);
  }
  npoints = points;
}

void getagqpoint(const int& k, const int& nnodes, const int& n, const double* nodes,
                 const double* logweights, const double* centre, const double* factor,
                 const int& ldf, double* z, double* eta, double& logweight) {
  const matrix_view<const double> lower(factor, n, n, ldf);
  const vector_view<const double> middle(centre, n);
  const vector_view<double> standardised(z, n);
  const vector_view<double> mapped(eta, n);
  logweight = 0.0;
  int rest = k - 1;
  for (int i = 1; i <= n; ++i) {
    const int j = rest % nnodes;
    rest /= nnodes;
    standardised(i) = nodes[j];
    logweight += logweights[j];
    double sum = middle(i);
    for (int c = 1; c <= i; ++c) sum += lower(i, c) * standardised(c);
    mapped(i) = sum;
  }
}

}  // namespace statsubs
