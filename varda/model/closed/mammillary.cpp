// SPDX-License-Identifier: Apache-2.0
//
// Jacobi's rotations (Golub and Van Loan, Matrix Computations, 8.5): exact after one for two
// compartments, and for a positive definite matrix they keep small eigenvalues to high relative
// accuracy (Demmel and Veselic, SIAM J. Matrix Anal. Appl. 13, 1992).
#include "varda/model/closed/mammillary.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace varda {

namespace {

template <int N>
using square = std::array<std::array<double, N>, N>;

// The rotation by the angle whose tangent is t annuls b between diagonal elements that differ by h.
struct rotation {
  double t, c, s;
};

rotation annulling(double b, double h) {
  // Latency counts here, one square root and division after the other. In the last sweeps the
  // angles are so small that the first terms of the series are exact.
  if (std::fabs(b) < 1e-4 * std::fabs(h)) {
    const double ratio = b / h;
    const double t = ratio - ratio * ratio * ratio;
    const double c = 1.0 - 0.5 * t * t * (1.0 - 0.75 * t * t);
    return {t, c, t * c};
  }
  const double r = std::sqrt(h * h + 4.0 * b * b);
  const double t = std::copysign(2.0, h) * b / (std::fabs(h) + r);
  const double c = 1.0 / std::sqrt(1.0 + t * t);
  return {t, c, t * c};
}

// Rotates coordinates P < Q so that a[P][Q] vanishes, and returns whether there was anything to do.
// Only the upper triangle of `a` is kept.
template <int N, std::size_t P, std::size_t Q>
bool rotate(square<N>& a, square<N>& vector) {
  constexpr double negligible = 8.0 * std::numeric_limits<double>::epsilon();
  const double b = a[P][Q];
  if (b * b <= negligible * negligible * std::fabs(a[P][P] * a[Q][Q])) return false;
  const auto [t, c, s] = annulling(b, a[Q][Q] - a[P][P]);
  a[P][P] -= t * b;
  a[Q][Q] += t * b;
  a[P][Q] = 0.0;
  const auto turn = [c = c, s = s](double& x, double& y) {
    const double old = x;
    x = c * old - s * y;
    y = s * old + c * y;
  };
  if constexpr (N == 3) {
    constexpr std::size_t K = 3 - P - Q;
    turn(K < P ? a[K][P] : a[P][K], K < Q ? a[K][Q] : a[Q][K]);
  }
  turn(vector[0][P], vector[0][Q]);
  turn(vector[1][P], vector[1][Q]);
  if constexpr (N == 3) turn(vector[2][P], vector[2][Q]);
  return true;
}

template <int N>
bool rotate_all(square<N>& a, square<N>& vector) {
  if constexpr (N == 2) return rotate<2, 0, 1>(a, vector);
  if constexpr (N == 3) {
    const bool first = rotate<3, 0, 1>(a, vector);
    const bool second = rotate<3, 0, 2>(a, vector);
    return rotate<3, 1, 2>(a, vector) || first || second;
  }
  return false;
}

// Starts from the eigenvector of the largest eigenvalue, by a few Newton steps, which leaves one
// full rotation and small corrections instead of some nine rotations. A poor start would still be
// turned into the right answer, but the small eigenvalues of a matrix of wide range would lose
// digits.
void start_from_fastest(square<3>& a, square<3>& vector) {
  const double p = a[0][0], q = a[1][1], r = a[2][2];
  const double b = a[0][1], c = a[0][2];
  const double high = std::max(q, r);
  const double half = 0.5 * (p - high);
  // With both peripheral rates at the higher one: not below the eigenvalue, and close to it.
  double fastest = high + half + std::sqrt(half * half + (b * b + c * c));
  if (!(fastest < 1e4 * std::min(q, r))) return;
  const double trace = p + q + r;
  const double minors = p * (q + r) + q * r - b * b - c * c;
  const double determinant = (p * q - b * b) * r - c * c * q;
  for (int step = 0; step < 3; ++step) {
    const double slope = (3.0 * fastest - 2.0 * trace) * fastest + minors;
    fastest -= (((fastest - trace) * fastest + minors) * fastest - determinant) / slope;
  }
  if (!(fastest - high > 1e-6 * fastest)) return;

  // The reflection I - w w' / g that takes the first axis to the eigenvector v.
  double w[3] = {1.0, b / (fastest - q), c / (fastest - r)};
  const double inverse = 1.0 / std::sqrt(1.0 + w[1] * w[1] + w[2] * w[2]);
  for (double& x : w) x *= inverse;
  w[0] += 1.0;
  const double per_g = 1.0 / w[0];
  const double u[3] = {p * w[0] + b * w[1] + c * w[2], b * w[0] + q * w[1], c * w[0] + r * w[2]};
  const double twist = 0.5 * per_g * (w[0] * u[0] + w[1] * u[1] + w[2] * u[2]);
  const auto reflect = [&](std::size_t i, std::size_t j) {
    const double turn = w[i] * w[j] * per_g;
    a[i][j] -= per_g * (u[i] * w[j] + w[i] * u[j]) - 2.0 * twist * turn;
    vector[i][j] -= turn;
    if (i != j) vector[j][i] -= turn;
  };
  reflect(0, 0), reflect(0, 1), reflect(0, 2), reflect(1, 1), reflect(1, 2), reflect(2, 2);
  rotate<3, 1, 2>(a, vector);
}

}  // namespace

template <int N>
spectrum<N> decompose(const mammillary<N>& system) {
  spectrum<N> found{};
  square<N> a{};
  a[0][0] = system.elimination;
  found.scale[0] = 1.0;
  found.vector[0][0] = 1.0;
  double determinant = system.elimination;
  for (std::size_t j = 1; j < N; ++j) {
    const double to = system.to[j - 1];
    const double from = system.from[j - 1];
    a[0][0] += to;
    a[0][j] = -std::sqrt(to * from);
    a[j][j] = from;
    found.scale[j] = std::sqrt(to / from);
    found.vector[j][j] = 1.0;
    determinant *= from;
  }
  if constexpr (N == 3) start_from_fastest(a, found.vector);
  constexpr int most_sweeps = 20;
  for (int sweep = 0; sweep < most_sweeps && rotate_all<N>(a, found.vector); ++sweep)
    if constexpr (N == 2) break;
  std::size_t slowest = 0;
  for (std::size_t i = 0; i < N; ++i) {
    found.rate[i] = a[i][i];
    if (a[i][i] < a[slowest][slowest]) slowest = i;
  }
  // The smallest eigenvalue carries the rounding errors of the largest; the product does not.
  if constexpr (N > 1) {
    found.rate[slowest] = determinant;
    for (std::size_t i = 0; i < N; ++i)
      if (i != slowest) found.rate[slowest] /= found.rate[i];
  }
  return found;
}

template spectrum<1> decompose(const mammillary<1>& system);
template spectrum<2> decompose(const mammillary<2>& system);
template spectrum<3> decompose(const mammillary<3>& system);

}  // namespace varda
