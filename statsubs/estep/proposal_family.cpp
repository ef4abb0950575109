// SPDX-License-Identifier: Apache-2.0
//
// Defensive mixtures: T. Hesterberg, "Weighted average importance sampling and defensive mixture
// distributions", Technometrics 37 (1995) 185-194. The components draw fixed shares of the samples.
#include "statsubs/estep/proposal_family.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "statsubs/distributions/cdfchi.h"
#include "statsubs/distributions/gamma.h"
#include "statsubs/estep/normal_quantiles.h"
#include "statsubs/estep/proposals.h"

namespace statsubs {

namespace {

constexpr double pi = 3.14159265358979323846;
constexpr double ln_two_pi = 1.8378770664093456;
constexpr double ln_two = 0.69314718055994530942;
constexpr double two_root_two = 2.8284271247461903;

// ln det(L Lt) from the diagonal of L.
double log_determinant(matrix_view<const double> factor) {
  double sum = 0.0;
  for (int i = 1; i <= factor.rows(); ++i) sum += std::log(std::abs(factor(i, i)));
  return 2.0 * sum;
}

// The constant of -2 ln density, of the first component where there are several.
double leading_constant(proposal_family family, int n, double dof) {
  switch (family) {
    case proposal_family::laplace:
      return n * ln_two;
    case proposal_family::student_t:
      return n * std::log(dof * pi) - 2.0 * (gamln((n + dof) / 2.0) - gamln(dof / 2.0));
    case proposal_family::normal:
    case proposal_family::two_normals:
    case proposal_family::three_normals:
      break;
  }
  return n * ln_two_pi;
}

double sum_of_squares(vector_view<const double> z) {
  double sum = 0.0;
  for (const double entry : z) sum += entry * entry;
  return sum;
}

// How many of the boundaries k samples / components, k = 1 .. components - 1, lie below sample j:
// the component that draws it, from 0.
int component_of(int j, int samples, int components) {
  int component = 0;
  for (long k = 1; k < components; ++k)
    if (j > k * samples / components) ++component;
  return component;
}

// -2 ln of the mean of exp(-term / 2) over the terms. The least is taken out, so that the greatest
// exponential is 1 whatever the scale of L.
template <int components>
double minus_two_log_mean(const double (&term)[components]) {
  const double least = *std::min_element(term, term + components);
  double sum = 0.0;
  for (const double t : term) sum += std::exp(-0.5 * (t - least));
  return least - 2.0 * std::log(sum / components);
}

double chi_square_quantile(double p, double dof) {
  double q = 1.0 - p;
  double x = 0.0;
  double bound = 0.0;
  int status = 0;
  cdfchi(2, p, q, x, dof, status, bound);
  assert(status == 0);  // for p within (0, 1) the quantile lies within the limits of the search
  return x;
}

}  // namespace

proposal_family family_of(int impsampdof) {
  if (impsampdof >= 3) return proposal_family::student_t;
  switch (impsampdof) {
    case 1:
      return proposal_family::laplace;
    case -2:
      return proposal_family::two_normals;
    case -3:
      return proposal_family::three_normals;
    default:
      return proposal_family::normal;
  }
}

proposal::proposal(int impsampdof, matrix_view<const double> factor, const mixture_scales& scales)
    : family_(family_of(impsampdof)),
      n_(factor.rows()),
      dof_(impsampdof),
      divisor_{1.0, scales.a, scales.b},
      inverse_var_{1.0, scales.a * scales.a, (scales.a * scales.b) * (scales.a * scales.b)} {
  constant_[0] = log_determinant(factor) + leading_constant(family_, n_, dof_);
  constant_[1] = constant_[0] + 2.0 * std::log(scales.accratio);
  constant_[2] = constant_[1] + 2.0 * std::log(0.5);
}

int proposal::uniforms_per_sample() const {
  return family_ == proposal_family::student_t ? n_ + 1 : n_;
}

void proposal::standardise(matrix_view<double> points,
                           vector_view<double> minus_two_log_density) const {
  const matrix_view<double> z(points.data(), n_, points.columns(), points.leading());
  switch (family_) {
    case proposal_family::normal:
      return standardise_normal(z, minus_two_log_density);
    case proposal_family::laplace:
      return standardise_laplace(z, minus_two_log_density);
    case proposal_family::two_normals:
      return standardise_mixture<2>(z, minus_two_log_density);
    case proposal_family::three_normals:
      return standardise_mixture<3>(z, minus_two_log_density);
    case proposal_family::student_t:
      return standardise_student_t(points, z, minus_two_log_density);
  }
}

void proposal::standardise_normal(matrix_view<double> z,
                                  vector_view<double> minus_two_log_density) const {
  normal_quantiles(z);
  for (int j = 1; j <= z.columns(); ++j)
    minus_two_log_density(j) = constant_[0] + sum_of_squares(z.column(j));
}

void proposal::standardise_laplace(matrix_view<double> z,
                                   vector_view<double> minus_two_log_density) const {
  for (int j = 1; j <= z.columns(); ++j) {
    double sum = 0.0;
    for (double& entry : z.column(j)) {
      entry = dexp2sideinv(entry);
      sum += two_root_two * std::abs(entry);
    }
    minus_two_log_density(j) = constant_[0] + sum;
  }
}

template <int components>
void proposal::standardise_mixture(matrix_view<double> z,
                                   vector_view<double> minus_two_log_density) const {
  static_assert(components <= most_components);
  normal_quantiles(z);
  for (int j = 1; j <= z.columns(); ++j) {
    const int drawn_from = component_of(j, z.columns(), components);
    for (int c = 1; c <= drawn_from; ++c)
      for (double& entry : z.column(j)) entry /= divisor_[c];
    const double squares = sum_of_squares(z.column(j));
    double term[components];
    for (int c = 0; c < components; ++c) term[c] = constant_[c] + inverse_var_[c] * squares;
    minus_two_log_density(j) = minus_two_log_mean(term);
  }
}

// z / sqrt(chi-square / dof) with a normal z, and the density with its usual kernel
// (1 + z'z / dof)^(-(n + dof) / 2).
void proposal::standardise_student_t(matrix_view<double> points, matrix_view<double> z,
                                     vector_view<double> minus_two_log_density) const {
  normal_quantiles(z);
  for (int j = 1; j <= z.columns(); ++j) {
    const double radius = std::sqrt(dof_ / chi_square_quantile(points(n_ + 1, j), dof_));
    for (double& entry : z.column(j)) entry *= radius;
    const double squares = sum_of_squares(z.column(j));
    minus_two_log_density(j) = constant_[0] + (n_ + dof_) * std::log1p(squares / dof_);
  }
}

}  // namespace statsubs
