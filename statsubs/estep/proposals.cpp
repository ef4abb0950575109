// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/proposals.h"

#include <cmath>

#include "statsubs/support/array.h"

namespace statsubs {

namespace {

constexpr double laplace_scale = 0.70710678118655;

void weighted_mean(matrix_view<const double> x, vector_view<const double> w,
                   vector_view<double> mean) {
  for (double& entry : mean) entry = 0.0;
  for (int j = 1; j <= x.columns(); ++j) {
    const vector_view<const double> sample = x.column(j);
    const double weight = w(j);
    for (int i = 1; i <= mean.size(); ++i) mean(i) += weight * sample(i);
  }
}

void weighted_covariance(matrix_view<const double> x, vector_view<const double> w,
                         vector_view<const double> mean, matrix_view<double> cov) {
  const int n = x.rows();
  for (int k = 1; k <= n; ++k)
    for (int i = 1; i <= n; ++i) cov(i, k) = 0.0;
  for (int j = 1; j <= x.columns(); ++j) {
    const vector_view<const double> sample = x.column(j);
    const double weight = w(j);
    for (int k = 1; k <= n; ++k) {
      const double weighted_deviation = weight * (sample(k) - mean(k));
      const vector_view<double> column = cov.column(k);
      for (int i = k; i <= n; ++i) column(i) += weighted_deviation * (sample(i) - mean(i));
    }
  }
  for (int k = 1; k <= n; ++k)
    for (int i = 1; i < k; ++i) cov(i, k) = cov(k, i);
}

}  // namespace

double dexp2sideinv(const double& p) {
  return p >= 0.5 ? -laplace_scale * std::log(2.0 - 2.0 * p) : laplace_scale * std::log(2.0 * p);
}

double densnormv1(const double& x) {
  return 0.39894228040143 * std::exp(-x * x / 2.0);
}

double densexp2sidev1(const double& x) {
  return 0.7071067811865476 * std::exp(-1.4142135623730951 * std::abs(x));
}

void simmn(const int& n, const double* mu, const double* l, const int& ldl, const double* z,
           double* eta) {
  if (n < 1) return;
  const matrix_view<const double> factor(l, n, n, ldl);
  const vector_view<const double> centre(mu, n);
  const vector_view<const double> standardised(z, n);
  const vector_view<double> sample(eta, n);
  for (int i = 1; i <= n; ++i) {
    double sum = centre(i);
    for (int j = 1; j <= i; ++j) sum += factor(i, j) * standardised(j);
    sample(i) = sum;
  }
}

void discretestat(const int& m, const int& n, const double* x, const int& ldx, const double* w,
                  double* mean, double* cov, const int& ldc) {
  const matrix_view<const double> samples(x, n, m, ldx);
  const vector_view<const double> weights(w, m);
  weighted_mean(samples, weights, {mean, n});
  weighted_covariance(samples, weights, vector_view<const double>(mean, n), {cov, n, n, ldc});
}

}  // namespace statsubs
