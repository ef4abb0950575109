// SPDX-License-Identifier: Apache-2.0
//
// The proposal densities of the E-step. A family turns uniform numbers into a standardised vector z
// and knows the density of centre + L z, L the proposal's factor.
//
// A new family takes an enumerator, its code in family_of, its constant in leading_constant and a
// member function that the switch in standardise calls.
#pragma once

#include "statsubs/support/array.h"

namespace statsubs {

enum class proposal_family {
  normal,
  laplace,        // independent two-sided exponential coordinates of unit variance
  two_normals,    // equal shares of standard deviations 1 and 1/a
  three_normals,  // equal shares of standard deviations 1, 1/a and 1/(a b)
  student_t,
};

// The family that the setting impsampdof stands for.
proposal_family family_of(int impsampdof);

// The scales of the mixtures in n dimensions. With a = accratio^(-1/n) and b = 0.5^(-1/n) the
// second component has accratio times the volume of the first, the third half that of the second.
struct mixture_scales {
  double accratio;
  double a;
  double b;
};

class proposal {
 public:
  // A proposal with the lower triangular `factor`, n x n. `impsampdof` is read as in family_of; the
  // scales matter to mixtures alone.
  proposal(int impsampdof, matrix_view<const double> factor, const mixture_scales& scales);

  proposal_family family() const { return family_; }

  // Uniform numbers that a sample takes: n, and one more for the radius of the t.
  int uniforms_per_sample() const;

  // Makes the uniform numbers of every sample into its standardised vector.
  //   points(uniforms_per_sample x samples)  in: numbers within (0, 1), a column per sample; out: z
  //           in rows 1..n. What is left in row n + 1 is of no use
  //   minus_two_log_density(samples)  out: -2 ln of the density of centre + L z, with constants
  // The number of a sample decides which component of a mixture it comes from: the first half (or
  // third) comes from the first component, and so on.
  void standardise(matrix_view<double> points, vector_view<double> minus_two_log_density) const;

 private:
  static constexpr int most_components = 3;

  void standardise_normal(matrix_view<double> z, vector_view<double> minus_two_log_density) const;
  void standardise_laplace(matrix_view<double> z, vector_view<double> minus_two_log_density) const;
  template <int components>
  void standardise_mixture(matrix_view<double> z, vector_view<double> minus_two_log_density) const;
  void standardise_student_t(matrix_view<double> points, matrix_view<double> z,
                             vector_view<double> minus_two_log_density) const;

  proposal_family family_;
  int n_;
  double dof_;                           // Student's t alone
  double constant_[most_components];     // of -2 ln density, of each component
  double divisor_[most_components];      // standard deviation of the component before over its own
  double inverse_var_[most_components];  // 1 / variance of each component
};

}  // namespace statsubs
