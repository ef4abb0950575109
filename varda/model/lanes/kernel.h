// SPDX-License-Identifier: Apache-2.0
//
// Loops over blocks of lanes, one set for each instruction set. All of them are made of the same
// operations on each lane, none fused, none reordered: the sets agree to the last bit, and what
// comes out of a lane depends on nothing but what stands in it.
//
// A block holds `lanes` numbers, a multiple of lane_quantum. A block of states has a row for each,
// `stride` numbers apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "varda/formula/operation.h"
#include "varda/model/lanes/closed_forms.h"
#include "varda/model/lanes/residuals.h"

namespace varda {

inline constexpr std::size_t lane_quantum = 8;

constexpr std::size_t whole_lanes(std::size_t lanes) {
  return (lanes + lane_quantum - 1) / lane_quantum * lane_quantum;
}

struct lane_shape {
  std::size_t rows = 0;
  std::size_t stride = 0;
  std::size_t lanes = 0;
};

// A linear combination of blocks, 1 to most_terms of them.
struct lane_terms {
  static constexpr std::size_t most_terms = 9;
  const double* coefficients = nullptr;
  const double* const* blocks = nullptr;
  std::size_t count = 0;
};

struct lane_tolerance {
  double relative = 0.0;
  double absolute = 0.0;
};

// Step control: arrays of one number a lane.
struct lane_clocks {
  double* time = nullptr;
  double* step = nullptr;   // proposed; 0 where none is known
  double* stop = nullptr;   // where the lane must not step over
  double* taken = nullptr;  // the step that is tried
  double* error = nullptr;  // of it, in units of the tolerance
  double* tries = nullptr;  // since the last stop
};

struct lane_control {
  double error_exponent = 0.0;  // the next step is proportional to error to this power
  double most_tries = 0.0;
};

// dx/dt = A x + input.
struct linear_lanes {
  std::size_t size = 0;              // 1 to most_states
  const double* const* a = nullptr;  // entries of A by rows, null for zeros
  const double* input = nullptr;     // a row each, or null for none
  static constexpr std::size_t most_states = 4;
};

// c(r, j) + sum over k of a(r, k) b(k, j) for a few rows r and lane_quantum columns j, the sum in
// the order of k.
struct product_tile {
  static constexpr std::size_t rows = 4;
  double* c = nullptr;  // a row each, c_stride apart
  std::size_t c_stride = 0;
  const double* a = nullptr;  // all rows of one k together, a_stride apart
  std::size_t a_stride = 0;
  const double* b = nullptr;  // the columns of one k together, lane_quantum apart
};

// Sums over samples of products of their quantities: of x(j, a) y(j, b) weights(j) over j, for
// every a and b. A quantity's samples stand together, `stride` numbers from the next quantity's.
// Where x and y are the same array the sums are exactly symmetric.
struct weighed_products {
  struct quantities {
    const double* values = nullptr;
    std::size_t count = 0;
  };
  quantities x;
  quantities y;
  std::size_t stride = 0;
  const double* weights = nullptr;
  std::size_t samples = 0;
  double* sums = nullptr;  // x.count x y.count, by columns
};

struct lane_kernel {
  const char* name;

  void (*run)(const lane_operation* operations, std::size_t count, double* const* registers,
              std::size_t lanes);

  // out = x + h times the terms.
  void (*combine)(double* out, const double* x, const double* h, const lane_terms& terms,
                  const lane_shape& shape);

  // Steps for the lanes that have none: `share` of the time in which the states would change by
  // their own size, in units of the tolerances (Hairer, Norsett and Wanner, Solving Ordinary
  // Differential Equations I, II.4).
  void (*first_steps)(const lane_clocks& clocks, const double* x, const double* slope,
                      const lane_tolerance& tolerance, double share, const lane_shape& shape);

  // taken: the proposed step, or what is left before the stop.
  void (*choose_steps)(const lane_clocks& clocks, std::size_t lanes);

  // error: the largest of the states' |h times the terms| in units of the tolerance; NaN where one
  // is not finite.
  void (*measure_errors)(const lane_clocks& clocks, const double* h, const lane_terms& terms,
                         const double* x, const double* next, const lane_tolerance& tolerance,
                         const lane_shape& shape);

  // Where the error is at most 1 the next state becomes the state. Sets a bit of `events`, one
  // byte for lane_quantum lanes, for lanes at their stop, with steps too small to go on, or with
  // no tries left.
  void (*finish_steps)(const lane_clocks& clocks, double* x, const double* next,
                       const lane_control& control, const lane_shape& shape, std::uint8_t* events);

  // 1 where a step of an explicit method is near its limit of stability, else 0: `one` and `other`
  // are slopes at the same time, the terms the difference of the states behind them over the step.
  void (*near_limit)(double* out, const double* one, const double* other, const lane_terms& terms,
                     const double* x, double limit, const lane_tolerance& tolerance,
                     const lane_shape& shape);

  // x from time to stop.
  void (*propagate)(const linear_lanes& system, double* x, const double* time, const double* stop,
                    const lane_shape& shape);

  // The next take any number of individuals.

  // Concentrations in the central compartment; [number of compartments - 1]. All of an individual's
  // are NaN where a rate, the volume or a duration is not above 0 and finite, or a lag time or
  // bioavailability below 0.
  void (*closed_forms[3])(const closed_problem& problem);

  // Not finite where a prediction is not, or the error model cannot take it.
  void (*residuals)(const residual_problem& problem);

  void (*exponentials)(const double* from, double* to, std::size_t count);

  // c becomes the sum.
  void (*add_products)(const product_tile& tile, std::size_t inner);

  // Of any number of samples.
  void (*weigh_products)(const weighed_products& of);
};

// The set chosen when the program began: the widest that the processor has, or the one that
// VARDA_INSTRUCTIONS names.
const lane_kernel& best_lane_kernel();
// sse2 or avx2; null where the processor does not have it.
const lane_kernel* lane_kernel_named(std::string_view name);

}  // namespace varda
