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

}  // namespace varda
