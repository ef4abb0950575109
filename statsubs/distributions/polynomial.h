// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace statsubs {

// c[0] + c[1] x + ... + c[n-1] x^(n-1) by Horner's scheme, unrolled.
template <std::size_t k = 0, std::size_t n>
constexpr double polynomial(const double (&c)[n], double x) {
  if constexpr (k + 1 == n) {
    return c[k];
  } else {
    return c[k] + x * polynomial<k + 1>(c, x);
  }
}

}  // namespace statsubs
