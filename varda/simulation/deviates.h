// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <initializer_list>
#include <random>

#include "statsubs/estep/proposals.h"

namespace varda {

// Draws that are the same with every standard library: a distribution of <random> is not. They
// follow from their address alone, say the seed, a subject and a replicate.
class deviates {
 public:
  explicit deviates(std::initializer_list<int> address) {
    std::seed_seq sequence(address);
    bits_.seed(sequence);
  }
  double uniform() { return (static_cast<double>(bits_() >> 12) + 0.5) * 0x1p-52; }
  double normal() { return statsubs::dnorminv(uniform()); }

 private:
  std::mt19937_64 bits_;
};

// What a stream of draws is for: the second figure of its address. The seed is the first.
enum class stream : int { individuals = 1, parameters = 2, conditional = 3, steps = 4 };

}  // namespace varda
