// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/sample_quality.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "statsubs/state/host.h"
#include "statsubs/support/array.h"

namespace statsubs {

void imp_merit(const double* w, const int& n, double& rms, double& peak, double& frac) {
  const double substantial = 0.3 / n;
  double largest = -1.0;
  double sum_of_squares = 0.0;
  int count = 0;
  for (const double weight : vector_view<const double>(w, n)) {
    sum_of_squares += weight * weight;
    if (weight > largest) largest = weight;
    if (weight > substantial) ++count;
  }
  rms = std::sqrt(sum_of_squares * n);
  peak = largest * n;
  frac = static_cast<double>(count) / n;
}

int isir(const double& u, const double* w, const int& n) {
  const vector_view<const double> weights(w, n);
  double cumulative = 0.0;
  for (int j = 1; j <= weights.size(); ++j) {
    cumulative += weights(j);
    if (cumulative >= u) return j;
  }
  return weights.size();
}

void knuth_shuf(double* a, const int& n) {
  const vector_view<double> entries(a, n);
  int state = 1;
  for (int i = 1; i < n; ++i) {
    const double u = host::dran3(state);
    // From 2^24 entries on, the sum can round to n + 1.
    const int k = std::min(static_cast<int>((n - i) * u + i + 0.999999999), n);
    std::swap(entries(i), entries(k));
  }
}

}  // namespace statsubs
