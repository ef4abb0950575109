// SPDX-License-Identifier: Apache-2.0
//
// How far a run has come, for whoever shows it.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace varda {

enum class run_stage { start, iterations, judging, likelihood, quadrature, standard_errors, npde };

struct run_progress {
  run_stage stage = run_stage::iterations;
  int step = 0;                      // from 1: an iteration, a draw, a subject that is done
  int of = 0;                        // how many there are, or the most; 0 where nobody knows
  std::optional<double> minus2ll{};  // every constant included; of the subjects that are done
  std::string note{};                // in a few words: what still moves, what begins
};

// Told after every step; never null where a function takes one.
using progress_listener = std::function<void(const run_progress&)>;

// The reason of a run that was stopped between two steps.
inline constexpr const char* stop_reason = "stopped on request";

inline void no_progress(const run_progress& /*at*/) {}

}  // namespace varda
