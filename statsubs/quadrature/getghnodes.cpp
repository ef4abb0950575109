// SPDX-License-Identifier: Apache-2.0
//
// Sources: G. H. Golub and J. H. Welsch (1969) for the nodes; W. Gautschi, Orthogonal Polynomials:
// Computation and Approximation (2004), section 1.3, for the orthonormal recurrence and the
// Christoffel numbers. Departing from the former, weights come from the recurrence.
#include "statsubs/quadrature/getghnodes.h"

#include <cmath>

#include "statsubs/support/array.h"
#include "statsubs/support/lapack.h"

namespace statsubs {

namespace {

constexpr double fourth_root_of_inverse_pi = 0.75112554446494248286;

// What is known at x from the orthonormal Hermite polynomials h_0, ..., h_n of the weight
// exp(-x^2),
//   sqrt((k + 1) / 2) h_{k+1} = x h_k - sqrt(k / 2) h_{k-1},   h_n' = sqrt(2 n) h_{n-1}.
// At the nodes of up to 64 they stay below 1e25, and their squares far from overflow.
struct hermite_values {
  double newton_step;  // h_n / h_n'
  double christoffel;  // 1 / (h_0^2 + ... + h_{n-1}^2)
};

hermite_values hermite_at(double x, int n) {
  double before = 0.0;
  double current = fourth_root_of_inverse_pi;
  double squares = 0.0;
  for (int k = 0; k < n; ++k) {
    squares += current * current;
    const double next = (x * current - std::sqrt(0.5 * k) * before) / std::sqrt(0.5 * (k + 1));
    before = current;
    current = next;
  }
  return {current / (std::sqrt(2.0 * n) * before), 1.0 / squares};
}

// The eigenvalues have an absolute error of a few units in the last place of the largest one; two
// steps bring every node to its own last places.
double polished(double x, int n) {
  for (int step = 0; step < 2; ++step) x -= hermite_at(x, n).newton_step;
  return x;
}

}  // namespace

void getghnodes(const int& n, double* nodes, double* weights, int& info) {
  info = -1;
  if (n < 1 || n > most_ghnodes) return;
  vector<double> diagonal("the diagonal of the Jacobi matrix", n);
  vector<double> subdiagonal("its subdiagonal", n);
  for (int k = 1; k < n; ++k) subdiagonal(k) = std::sqrt(0.5 * k);
  info = support::dsteqr(n, diagonal.data(), subdiagonal.data());
  if (info != 0) return;

  const vector_view<double> x(nodes, n);
  const vector_view<double> w(weights, n);
  for (int j = 1; 2 * j <= n + 1; ++j) {
    const int mirrored = n + 1 - j;
    const double node = j == mirrored ? 0.0 : polished(diagonal(mirrored), n);
    x(j) = -node;
    x(mirrored) = node;
    w(j) = w(mirrored) = hermite_at(node, n).christoffel;
  }
}

}  // namespace statsubs
