// SPDX-License-Identifier: Apache-2.0
//
// A central compartment that eliminates, and up to two peripheral ones that exchange with it alone.
#pragma once

#include <array>

namespace varda {

// Rate constants in 1 / time; `volume` of the central compartment turns its amount into a
// concentration. Peripheral compartment j (from 0) takes up at rate to[j] and gives back at
// from[j].
template <int N>
struct mammillary {
  double volume = 1.0;
  double elimination = 0.0;
  std::array<double, N - 1> to{};
  std::array<double, N - 1> from{};
};

// The motion of amounts A' = -M A taken apart. With the scale s (s = 1 for the central compartment,
// sqrt(to / from) for a peripheral one) the matrix of A / s is symmetric, so that its eigenvectors
// are orthogonal and stay well conditioned where eigenvalues are close.
template <int N>
struct spectrum {
  std::array<double, N> rate;                   // eigenvalues of M, above 0
  std::array<std::array<double, N>, N> vector;  // [compartment][eigenvalue], orthogonal
  std::array<double, N> scale;                  // by compartment
};

// All constants must be positive and finite. N is 1, 2 or 3.
template <int N>
spectrum<N> decompose(const mammillary<N>& system);

}  // namespace varda
