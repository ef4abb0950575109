// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/importance_weights.h"

#include <cmath>

namespace statsubs {

namespace {

constexpr double below_any_log_ratio = -1e200;

// In pairs of a constant length, which compilers make one vector instruction of.
void divide_by(double sum, vector_view<double> weights) {
  int j = 1;
  for (; j + 1 <= weights.size(); j += 2) {
    double* const two = &weights(j);
    for (int r = 0; r < 2; ++r) two[r] /= sum;
  }
  if (j <= weights.size()) weights(j) /= sum;
}

}  // namespace

double normalise_weights(vector_view<const double> log_likelihood,
                         vector_view<const double> minus_two_log_density,
                         vector_view<double> weights) {
  double largest = below_any_log_ratio;
  for (int j = 1; j <= weights.size(); ++j) {
    weights(j) = log_likelihood(j) + 0.5 * minus_two_log_density(j);
    if (weights(j) > largest) largest = weights(j);
  }
  double sum = 0.0;
  for (double& weight : weights) {
    weight = std::exp(weight - largest);
    sum += weight;
  }
  divide_by(sum, weights);
  return largest + std::log(sum) - std::log(weights.size());
}

double weighted_sum(vector_view<const double> weights, vector_view<const double> values) {
  double sum = 0.0;
  for (int j = 1; j <= weights.size(); ++j) sum += weights(j) * values(j);
  return sum;
}

}  // namespace statsubs
