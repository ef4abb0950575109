// SPDX-License-Identifier: Apache-2.0
//
// What doses do to the states of a system and when: amounts that arrive, infusions that run.
#pragma once

#include <cstddef>
#include <limits>
#include <vector>

namespace varda {

// A dose as it reaches a state: an amount at once, or a rate for a time.
struct arrival {
  double time = 0.0;
  std::size_t state = 0;
  double amount = 0.0;            // at once
  const double* share = nullptr;  // of the amount, for each lane; null where all of it arrives
  double rate = 0.0;              // of an infusion, 0 for none
  double duration = 0.0;          // of it
};

class dose_schedule {
 public:
  static constexpr double never = std::numeric_limits<double>::infinity();

  explicit dose_schedule(std::size_t states) : rates_(states) {}

  void clear();
  void add(const arrival& one);
  // Of a regimen that gives `one` every `interval`, the infusions that began before `at` and still
  // run.
  void add_running(const arrival& one, double at, double interval);

  // The time of the next arrival or end of an infusion, never where there is none.
  double next_change() const;
  // Makes the changes up to and including time t. Gives each amount to `take`; true where rates()
  // are others than before.
  template <class Take>
  bool apply(double t, Take take) {
    bool changed = false;
    for (; !pending_.empty() && pending_.back().time <= t; pending_.pop_back()) {
      const arrival& one = pending_.back();
      if (one.amount != 0.0) take(one);
      if (one.rate == 0.0) continue;
      running_.push_back({one.time + one.duration, one.state, one.rate});
      changed = true;
    }
    return end_infusions(t) || changed ? sum_rates() : false;
  }
  // The sum of the running infusions into each state.
  const std::vector<double>& rates() const { return rates_; }

 private:
  struct infusion {
    double end = 0.0;
    std::size_t state = 0;
    double rate = 0.0;
  };

  bool end_infusions(double t);
  bool sum_rates();

  std::vector<arrival> pending_;  // latest first
  std::vector<infusion> running_;
  std::vector<double> rates_;
};

}  // namespace varda
