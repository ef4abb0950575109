// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/proposals.h"

#include <algorithm>
#include <cmath>

#include "statsubs/support/array.h"

namespace statsubs {

namespace {

constexpr double laplace_scale = 0.70710678118655;

// What follows works on pairs of rows, a constant length that compilers make vector instructions
// of, and on a few samples at a time, so that a sum stays in a register while they are added to it.
// Every sum still runs in the order of the samples.
constexpr int pair = 2;
constexpr int samples_at_a_time = 8;

constexpr int whole_pairs(int n) {
  return n + n % pair;
}

// sum(i, k) += left(k, j) * right(i, j) over the columns j, for i from k (or the row before it) on.
// The arrays have whole pairs of rows.
void add_products(matrix_view<const double> left, matrix_view<const double> right, int n,
                  matrix_view<double> sum) {
  for (int k = 1; k <= n; ++k)
    for (int i = k - (k - 1) % pair; i <= n; i += pair) {
      double* const total = &sum(i, k);
      double kept[pair] = {total[0], total[1]};
      for (int j = 1; j <= right.columns(); ++j) {
        const double factor = left(k, j);
        const double* const entry = &right(i, j);
        for (int r = 0; r < pair; ++r) kept[r] += factor * entry[r];
      }
      for (int r = 0; r < pair; ++r) total[r] = kept[r];
    }
}

// mean(i) += w(j) x(i, j) over the columns j.
void add_weighted(matrix_view<const double> x, vector_view<const double> w,
                  vector_view<double> mean) {
  int i = 1;
  for (; i + 1 <= mean.size(); i += pair) {
    double* const total = &mean(i);
    double kept[pair] = {total[0], total[1]};
    for (int j = 1; j <= x.columns(); ++j) {
      const double* const entry = &x(i, j);
      for (int r = 0; r < pair; ++r) kept[r] += w(j) * entry[r];
    }
    for (int r = 0; r < pair; ++r) total[r] = kept[r];
  }
  if (i > mean.size()) return;
  double kept = mean(i);
  for (int j = 1; j <= x.columns(); ++j) kept += w(j) * x(i, j);
  mean(i) = kept;
}

// Columns first, first + 1, ... of x, as many as are taken at a time or are left.
template <class T>
matrix_view<T> next_columns(matrix_view<T> x, int first) {
  const int count = std::min(samples_at_a_time, x.columns() - first + 1);
  return {x.column(first).data(), x.rows(), count, x.leading()};
}

void weighted_mean(matrix_view<const double> x, vector_view<const double> w,
                   vector_view<double> mean) {
  for (double& entry : mean) entry = 0.0;
  for (int first = 1; first <= x.columns(); first += samples_at_a_time) {
    const matrix_view<const double> samples = next_columns(x, first);
    add_weighted(samples, {&w(first), samples.columns()}, mean);
  }
}

void weighted_covariance(matrix_view<const double> x, vector_view<const double> w,
                         vector_view<const double> mean, matrix_view<double> cov) {
  const int n = x.rows();
  const int rows = whole_pairs(n);
  matrix<double> sum("the sums of products", rows, n);
  matrix<double> deviation("deviations from the mean", rows, samples_at_a_time);
  matrix<double> weighted("weighted deviations", rows, samples_at_a_time);
  for (int first = 1; first <= x.columns(); first += samples_at_a_time) {
    const matrix_view<const double> samples = next_columns(x, first);
    const int count = samples.columns();
    for (int j = 1; j <= count; ++j) {
      const vector_view<const double> sample = samples.column(j);
      const double weight = w(first + j - 1);
      for (int i = 1; i <= n; ++i) {
        const double from_mean = sample(i) - mean(i);
        deviation(i, j) = from_mean;
        weighted(i, j) = weight * from_mean;
      }
    }
    add_products(matrix_view<const double>(weighted.data(), rows, count),
                 matrix_view<const double>(deviation.data(), rows, count), n, sum);
  }
  for (int k = 1; k <= n; ++k)
    for (int i = k; i <= n; ++i) cov(i, k) = cov(k, i) = sum(i, k);
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
  int i = 1;
  for (; i + 1 <= n; i += pair) {
    double sum[pair] = {centre(i), centre(i + 1)};
    for (int j = 1; j <= i; ++j) {
      const double* const entry = &factor(i, j);
      for (int r = 0; r < pair; ++r) sum[r] += entry[r] * standardised(j);
    }
    sample(i) = sum[0];
    sample(i + 1) = sum[1] + factor(i + 1, i + 1) * standardised(i + 1);
  }
  if (i > n) return;
  double sum = centre(i);
  for (int j = 1; j <= i; ++j) sum += factor(i, j) * standardised(j);
  sample(i) = sum;
}

void discretestat(const int& m, const int& n, const double* x, const int& ldx, const double* w,
                  double* mean, double* cov, const int& ldc) {
  const matrix_view<const double> samples(x, n, m, ldx);
  const vector_view<const double> weights(w, m);
  weighted_mean(samples, weights, {mean, n});
  weighted_covariance(samples, weights, vector_view<const double>(mean, n), {cov, n, n, ldc});
}

}  // namespace statsubs
