// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/dose_schedule.h"

#include <algorithm>
#include <cmath>

namespace varda {

void dose_schedule::clear() {
  pending_.clear();
  running_.clear();
  std::fill(rates_.begin(), rates_.end(), 0.0);
}

void dose_schedule::add(const arrival& one) {
  const auto later =
      std::lower_bound(pending_.begin(), pending_.end(), one,
                       [](const arrival& a, const arrival& b) { return a.time > b.time; });
  pending_.insert(later, one);
}

void dose_schedule::add_running(const arrival& one, double at, double interval) {
  if (one.rate == 0.0) return;
  const double since = std::fmod(one.time - at, interval);
  for (int k = 1; at + since - k * interval + one.duration > at; ++k) {
    arrival earlier = one;
    earlier.time = at + since - k * interval;
    add(earlier);
  }
}

double dose_schedule::next_change() const {
  double next = pending_.empty() ? never : pending_.back().time;
  for (const infusion& i : running_) next = std::min(next, i.end);
  return next;
}

bool dose_schedule::end_infusions(double t) {
  return std::erase_if(running_, [t](const infusion& i) { return i.end <= t; }) > 0;
}

// Summed anew: differences of rates would leave a rest.
bool dose_schedule::sum_rates() {
  std::fill(rates_.begin(), rates_.end(), 0.0);
  for (const infusion& i : running_) rates_[i.state] += i.rate;
  return true;
}

}  // namespace varda
