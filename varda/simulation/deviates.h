// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <cstddef>
#include <initializer_list>

#include "statsubs/estep/proposals.h"
#include "varda/simulation/uniforms.h"

namespace varda {

// Draws that are the same with every standard library: a distribution of <random> is not. They
// follow from their address alone, say the seed, a subject and a replicate.
class deviates {
 public:
  explicit deviates(std::initializer_list<int> address) : numbers_(address) {}
  double uniform() { return numbers_.next(); }
  double normal() { return statsubs::dnorminv(uniform()); }
  // `count` of them. Their statsubs::normal_quantiles are as many of normal(): the processor then
  // works on many at once.
  void uniforms(double* to, std::ptrdiff_t count) {
    numbers_.take(to, static_cast<std::size_t>(count));
  }
  // With degrees of freedom from 2 on; G. Marsaglia and W. W. Tsang, ACM Transactions on
  // Mathematical Software 26 (2000) 363.
  double chi_square(double degrees_of_freedom) {
    const double d = 0.5 * degrees_of_freedom - 1.0 / 3.0;
    for (;;) {
      const double x = normal();
      const double v = std::pow(1.0 + x / std::sqrt(9.0 * d), 3);
      if (v > 0.0 && std::log(uniform()) < 0.5 * x * x + d * (1.0 - v + std::log(v)))
        return 2.0 * d * v;
    }
  }

 private:
  uniform_numbers numbers_;
};

// What a stream of draws is for: the second figure of its address. The seed is the first.
enum class stream : int { individuals = 1, parameters = 2, conditional = 3, steps = 4 };

}  // namespace varda
