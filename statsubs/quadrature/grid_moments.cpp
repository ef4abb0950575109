// SPDX-License-Identifier: Apache-2.0
//
// Second moments are taken about the grid's own centre, where the integrand has its mode: the mean
// is then of the order of one in units of the factor, and little cancels from the covariance.
#include "statsubs/quadrature/grid_moments.h"

#include <algorithm>
#include <cmath>

namespace statsubs {

namespace {

// to = factor matrix factor', factor lower triangular, matrix symmetric.
void congruence(matrix_view<const double> factor, matrix_view<const double> symmetric,
                matrix_view<double> to) {
  const int n = symmetric.rows();
  matrix<double> product("half of a congruence", n, n);
  for (int j = 1; j <= n; ++j)
    for (int i = 1; i <= n; ++i)
      for (int c = 1; c <= i; ++c) product(i, j) += factor(i, c) * symmetric(c, j);
  for (int j = 1; j <= n; ++j)
    for (int i = j; i <= n; ++i) {
      double sum = 0.0;
      for (int c = 1; c <= j; ++c) sum += product(i, c) * factor(j, c);
      to(i, j) = to(j, i) = sum;
    }
}

}  // namespace

grid_moments::grid_moments(int n)
    : first_("first moments over a grid", n), second_("second moments over a grid", n, n) {}

void grid_moments::rescale(double largest) {
  const double factor = std::exp(largest_ - largest);
  largest_ = largest;
  sum_ *= factor;
  const int n = first_.size();
  for (int j = 1; j <= n; ++j) {
    first_(j) *= factor;
    for (int i = j; i <= n; ++i) second_(i, j) *= factor;
  }
}

void grid_moments::add(matrix_view<const double> z, vector_view<double> terms) {
  const double largest = *std::max_element(terms.begin(), terms.end());
  if (largest > largest_) rescale(largest);
  const int n = first_.size();
  for (int k = 1; k <= terms.size(); ++k) {
    const double weight = std::exp(terms(k) - largest_);
    if (weight == 0.0) continue;
    const vector_view<const double> point = z.column(k);
    sum_ += weight;
    for (int j = 1; j <= n; ++j) {
      const double weighted = weight * point(j);
      const vector_view<double> column = second_.column(j);
      first_(j) += weighted;
      for (int i = j; i <= n; ++i) column(i) += weighted * point(i);
    }
  }
}

double grid_moments::log_sum() const {
  return largest_ + std::log(sum_);
}

void grid_moments::conditional(vector_view<const double> centre, matrix_view<const double> factor,
                               vector_view<double> mean, matrix_view<double> cov) const {
  const int n = first_.size();
  matrix<double> spread("covariance in units of the factor", n, n);
  for (int j = 1; j <= n; ++j)
    for (int i = j; i <= n; ++i)
      spread(i, j) = spread(j, i) = second_(i, j) / sum_ - (first_(i) / sum_) * (first_(j) / sum_);
  congruence(factor, spread, cov);
  for (int i = 1; i <= n; ++i) {
    double sum = centre(i);
    for (int c = 1; c <= i; ++c) sum += factor(i, c) * (first_(c) / sum_);
    mean(i) = sum;
  }
}

}  // namespace statsubs
