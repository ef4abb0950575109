// SPDX-License-Identifier: Apache-2.0
//
// What doses do to the states of a system and when: amounts that arrive, infusions that run.
#pragma once

#include <cstddef>
#include <limits>
#include <span>
#include <vector>

namespace varda {

// A dose as it reaches a state: an amount at once, or a rate for a time.
struct arrival {
  double time = 0.0;
  std::size_t state = 0;
  double amount = 0.0;    // at once
  double rate = 0.0;      // of an infusion, 0 for none
  double duration = 0.0;  // of it
};

class dose_schedule {
 public:
  static constexpr double never = std::numeric_limits<double>::infinity();

  explicit dose_schedule(std::size_t states) : rates_(states) {}

  void clear();
  void add(const arrival& one);

  // The time of the next arrival or end of an infusion, never where there is none.
  double next_change() const;
  // Makes the changes up to and including time t: amounts into x, infusions into rates().
  void apply(double t, std::span<double> x);
  // The sum of the running infusions into each state.
  const std::vector<double>& rates() const { return rates_; }

 private:
  struct infusion {
    double end = 0.0;
    std::size_t state = 0;
    double rate = 0.0;
  };
  std::vector<arrival> pending_;  // latest first
  std::vector<infusion> running_;
  std::vector<double> rates_;
};

}  // namespace varda
