// SPDX-License-Identifier: Apache-2.0
//
// exp by reduction to half an octave (Cody and Waite, Software Manual for the Elementary Functions,
// 1980) and a polynomial, two arguments at a time and without a branch. The polynomial is that of
// degree 9 that meets (exp(r) - 1 - r) / r^2 at the Chebyshev nodes of |r| <= log(2) / 2, computed
// by mpmath; with it the truncation error is 1.6e-17.
#include "varda/model/closed/decays.h"

#include <bit>
#include <cstdint>

namespace varda {

namespace {

using pair = double __attribute__((vector_size(16)));
using pair_bits = std::int64_t __attribute__((vector_size(16)));

// For x <= 0.
pair exponential(pair x) {
  // Adding the shift rounds to a whole number and leaves it in the lowest bits.
  constexpr double shift = 0x1.8p52;
  constexpr double log2_e = 0x1.71547652b82fep+0;
  // The leading part of log(2) has so few bits that its product with the whole number is exact.
  constexpr double log_2 = 0x1.62e42fee00000p-1;
  constexpr double log_2_rest = 0x1.a39ef35793c76p-33;
  constexpr double smallest = -708.0;

  const pair shifted = x * log2_e + shift;
  const pair whole = shifted - shift;
  const pair r = (x - whole * log_2) - whole * log_2_rest;
  const pair r2 = r * r;
  const pair r4 = r2 * r2;
  const pair c0 = 0x1.0000000000001p-1 + r * 0x1.5555555555556p-3;
  const pair c2 = 0x1.5555555553d68p-5 + r * 0x1.11111111109b5p-7;
  const pair c4 = 0x1.6c16c17889f3cp-10 + r * 0x1.a01a01a7c2f2cp-13;
  const pair c6 = 0x1.a019b914881bap-16 + r * 0x1.71de0db2eb873p-19;
  const pair c8 = 0x1.28917c9f3a495p-22 + r * 0x1.af389eea54156p-26;
  const pair q = (c0 + r2 * c2) + r4 * ((c4 + r2 * c6) + r4 * c8);
  const pair fraction = 1.0 + (r + r2 * q);
  const pair_bits power = (std::bit_cast<pair_bits>(shifted) + 1023) << 52;
  const pair result = fraction * std::bit_cast<pair>(power);
  return std::bit_cast<pair>(std::bit_cast<pair_bits>(result) & ~(x < smallest));
}

}  // namespace

void decays(double rate, const double* t, std::size_t count, double* out) {
  for (std::size_t j = 0; j < count; j += 2) {
    const pair result = exponential(pair{t[j], t[j + 1]} * -rate);
    out[j] = result[0];
    out[j + 1] = result[1];
  }
}

}  // namespace varda
