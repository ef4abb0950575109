// SPDX-License-Identifier: Apache-2.0
//
// P. J. Acklam, "An algorithm for computing the inverse normal cumulative distribution function"
// (2003), coefficients and break points as published.
#include "statsubs/estep/normal_quantiles.h"

#include <cmath>
#include <cstddef>

#include "statsubs/estep/proposals.h"

namespace statsubs {

namespace {

constexpr double lower_break = 0.02425;
constexpr double upper_break = 0.97575;
constexpr double beyond_any_quantile = 1e300;

inline bool is_central(double p) {
  return p >= lower_break && p <= upper_break;
}

inline double central_quantile(double p) {
  const double q = p - 0.5;
  const double r = q * q;
  const double numerator =
      ((((-39.69683028665376 * r + 220.9460984245205) * r - 275.9285104469687) * r +
        138.357751867269) *
           r -
       30.66479806614716) *
          r +
      2.506628277459239;
  const double denominator =
      ((((-54.47609879822406 * r + 161.5858368580409) * r - 155.6989798598866) * r +
        66.80131188771972) *
           r -
       13.28068155288572) *
          r +
      1.0;
  return numerator * q / denominator;
}

// The lower quantile of tail probability p < lower_break.
double tail_quantile(double p) {
  const double q = std::sqrt(-2.0 * std::log(p));
  const double numerator =
      ((((-0.007784894002430293 * q - 0.3223964580411365) * q - 2.400758277161838) * q -
        2.549732539343734) *
           q +
       4.374664141464968) *
          q +
      2.938163982698783;
  const double denominator =
      (((0.007784695709041462 * q + 0.3224671290700398) * q + 2.445134137142996) * q +
       3.754408661907416) *
          q +
      1.0;
  return numerator / denominator;
}

// Long enough to be worth vector instructions, short enough for the copy to stay in the cache. The
// length is a constant because compilers then vectorise the loop over a block without reserve.
constexpr int block = 64;

// Nineteen of twenty probabilities are central, so the rational function of the centre is taken of
// all, without a branch, and the others are put right afterwards.
void block_of_quantiles(double* p) {
  double quantile[block];
  for (int i = 0; i < block; ++i) quantile[i] = central_quantile(p[i]);
  for (int i = 0; i < block; ++i) p[i] = is_central(p[i]) ? quantile[i] : dnorminv(p[i]);
}

void replace_by_quantiles(double* p, std::ptrdiff_t count) {
  double* const end = p + count;
  for (; end - p >= block; p += block) block_of_quantiles(p);
  for (; p < end; ++p) *p = dnorminv(*p);
}

}  // namespace

double dnorminv(const double& p) {
  if (is_central(p)) return central_quantile(p);
  if (p <= 0.0) return -beyond_any_quantile;
  if (p >= 1.0) return beyond_any_quantile;
  if (p < lower_break) return tail_quantile(p);
  return -tail_quantile(1.0 - p);
}

void normal_quantiles(matrix_view<double> p) {
  if (p.leading() == p.rows())
    return replace_by_quantiles(p.data(), static_cast<std::ptrdiff_t>(p.rows()) * p.columns());
  for (int j = 1; j <= p.columns(); ++j) replace_by_quantiles(p.column(j).data(), p.rows());
}

}  // namespace statsubs
