// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/dose_schedule.h"

#include <algorithm>

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

double dose_schedule::next_change() const {
  double next = pending_.empty() ? never : pending_.back().time;
  for (const infusion& i : running_) next = std::min(next, i.end);
  return next;
}

void dose_schedule::apply(double t, std::span<double> x) {
  for (; !pending_.empty() && pending_.back().time <= t; pending_.pop_back()) {
    const arrival& one = pending_.back();
    x[one.state] += one.amount;
    if (one.rate != 0.0) running_.push_back({one.time + one.duration, one.state, one.rate});
  }
  std::erase_if(running_, [t](const infusion& i) { return i.end <= t; });
  // Summed anew: differences of rates would leave a rest.
  std::fill(rates_.begin(), rates_.end(), 0.0);
  for (const infusion& i : running_) rates_[i.state] += i.rate;
}

}  // namespace varda
