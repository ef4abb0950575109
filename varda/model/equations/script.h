// SPDX-License-Identifier: Apache-2.0
//
// What happens to a solution at which times. Scripts are written once for a subject where the times
// are those of the data, and for each individual where they follow from its parameters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "varda/model/equations/dose_schedule.h"

namespace varda {

struct instruction {
  enum class kind : std::uint8_t {
    start,      // the states are those of the task
    reset,      // the states are row `index` of the initial values
    constants,  // table `index` is in force
    add,        // value, times share of the individual, to state `index`
    rates,      // the input is row `index` of the script's rates
    settle,     // row `index` of the steady states comes on top
    observe     // the states are those of observation `index`
  };
  kind what = kind::observe;
  std::uint32_t index = 0;
  double time = 0.0;
  double value = 0.0;
  const double* share = nullptr;
};

struct script {
  std::vector<instruction> steps;  // times ascend
  std::vector<double> rates;       // of all states, row by row

  void clear() {
    steps.clear();
    rates.clear();
  }
};

// Appends to a script what a schedule does as time passes.
class script_writer {
 public:
  explicit script_writer(std::size_t states) : schedule_(states) {}

  void begin(script& to, double time) {
    to_ = &to;
    to.clear();
    time_ = time;
    schedule_.clear();
  }
  double time() const { return time_; }
  dose_schedule& schedule() { return schedule_; }

  void note(instruction::kind what, std::size_t index) {
    to_->steps.push_back({.what = what, .index = static_cast<std::uint32_t>(index), .time = time_});
  }
  // All that arrives and ends on the way to `to`, and then at it.
  void go_to(double to);
  // What is due now.
  void apply();
  // Ends all infusions and cancels what is on its way.
  void forget();

 private:
  void note_rates();

  script* to_ = nullptr;
  dose_schedule schedule_;
  double time_ = 0.0;
};

}  // namespace varda
