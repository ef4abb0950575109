// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace statsubs {

// The quotient of two polynomials, given by their coefficients from the lowest power up; a shorter
// one is filled up with zeros. Horner's scheme runs on both at once, in the two lanes of a vector
// register; the result is, to the last bit, the quotient of polynomial(p, x) and polynomial(q, x).
template <std::size_t n>
class rational_function {
 public:
  template <std::size_t m>
  constexpr rational_function(const double (&p)[n], const double (&q)[m]) : coefficient_{} {
    static_assert(m <= n);
    for (std::size_t k = 0; k < n; ++k) coefficient_[k] = lanes{p[k], k < m ? q[k] : 0.0};
  }

  double operator()(double x) const {
    const lanes value = horner<0>(lanes{x, x});
    return value[0] / value[1];
  }

 private:
  using lanes = double __attribute__((vector_size(16)));

  template <std::size_t k>
  lanes horner(lanes x) const {
    if constexpr (k + 1 == n) {
      return coefficient_[k];
    } else {
      return coefficient_[k] + x * horner<k + 1>(x);
    }
  }

  lanes coefficient_[n];
};

}  // namespace statsubs
