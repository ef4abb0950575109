// SPDX-License-Identifier: Apache-2.0
//
// Linear compartment models as the loops over lanes take them: a subject's history, laid out once
// for all individuals, and their parameters in rows. Compartments count from 0: the central one, up
// to two peripheral ones, and last the depot.
#pragma once

#include <cstddef>
#include <cstdint>

namespace varda {

// How a dose enters: all of it at once, at a rate of its own, or over a time or at a rate that is a
// parameter.
enum class closed_input : std::uint32_t { at_once, at_rate, over_parameter, at_parameter };

struct closed_dose {
  double time = 0.0;
  double amount = 0.0;
  double rate = 0.0;  // for at_rate
  bool steady_state = false;
  double interval = 0.0;  // of the steady state; 0 for an infusion that has run for ever
  std::uint32_t compartment = 0;
  closed_input input = closed_input::at_once;
  bool delayed = false;  // lag time and bioavailability are for this dose
  // The parameters that say how it enters, those in force or another set.
  static constexpr std::uint32_t in_force = ~std::uint32_t{0};
  std::uint32_t set = in_force;
};

// Doses, resets and new parameters are changes; what is between two of them counts its time from
// the first.
struct closed_step {
  enum class kind : std::uint32_t { observe, give, reset, change };
  static constexpr std::uint32_t not_kept = ~std::uint32_t{0};
  kind what = kind::observe;
  std::uint32_t index = 0;  // of the observation, the dose or the set of parameters
  double time = 0.0;
  std::uint32_t kept = not_kept;  // where the decays until a change are kept
};

// Rows of one number for each individual. Null stands for a parameter that the model does not have.
struct closed_parameters {
  const double* volume = nullptr;
  const double* elimination = nullptr;
  const double* to[2] = {};
  const double* from[2] = {};
  const double* absorption = nullptr;
  const double* duration = nullptr;
  const double* rate = nullptr;
  const double* lag_time = nullptr;
  const double* bioavailability = nullptr;
};

// What is still to come of doses already given, in the lanes of one vector: an amount that enters
// at `begin`, or an input from `begin` to `end`.
struct closed_entry {
  static constexpr std::size_t most_lanes = 4;
  double begin[most_lanes];
  double end[most_lanes];
  double size[most_lanes];
  std::uint32_t compartment;
  bool lasts;
};

struct closed_entries {
  closed_entry* first = nullptr;
  std::size_t capacity = 0;
  // Gives more memory, with what stands in the old one.
  void (*grow)(closed_entries& self) = nullptr;
};

struct closed_problem {
  static constexpr std::size_t most_kept = 8;
  // Individuals whose predictions of an observation are written together: a line of memory.
  static constexpr std::size_t line = 8;
  const closed_step* steps = nullptr;
  std::size_t count = 0;
  double begin = 0.0;
  const closed_dose* doses = nullptr;
  const closed_parameters* sets = nullptr;
  closed_entries* waiting = nullptr;
  double* lines = nullptr;  // scratch: a line for each observation
  std::size_t individuals = 0;
  double* f = nullptr;  // of observation k: individuals from f + k stride on
  std::size_t stride = 0;
  std::size_t observations = 0;
};

}  // namespace varda
