// SPDX-License-Identifier: Apache-2.0
//
// What can be done to blocks of numbers, one number for each lane: the instructions that formulas,
// Jacobians and factorisations are compiled to.
#pragma once

#include <cstdint>

namespace varda {

// Comparisons and logic give 1 or 0; what is not 0, NaN included, counts as true.
enum class lane_code : std::uint8_t {
  copy,
  negate,
  add,
  subtract,
  multiply,
  divide,
  multiply_add,       // a b + c, both roundings kept, like the next two
  multiply_subtract,  // a b - c
  subtract_multiply,  // c - a b
  less,
  less_equal,
  equal,
  not_equal,
  both,
  either,
  select,   // a ? b : c
  minimum,  // NaN where either is
  maximum,
  power,
  exponential,
  expm1,
  logarithm,
  log1p,
  log2,
  log10,
  square_root,
  absolute,
  floor,
  ceiling,
  sine,
  cosine,
  tangent,
  arctangent,
  tanh,
  error_function,
  log_gamma,  // NaN where the argument is not above 0, like the next two
  digamma,
  log_gamma_ratio,   // log of Gamma(a + b) / Gamma(a), b not below 0
  normal_cdf,        // standard normal distribution function
  log_normal_cdf,    // its logarithm
  log_normal_share,  // log of the probability between a and b
};

// Operands and result are registers: positions in a table of blocks.
struct lane_operation {
  lane_code code = lane_code::copy;
  std::uint32_t out = 0;
  std::uint32_t a = 0;
  std::uint32_t b = 0;
  std::uint32_t c = 0;
};

}  // namespace varda
