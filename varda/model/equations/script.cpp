// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/script.h"

#include <algorithm>

namespace varda {

void script_writer::go_to(double to) {
  for (double change = schedule_.next_change(); change <= to; change = schedule_.next_change()) {
    time_ = std::max(time_, change);
    apply();
  }
  time_ = std::max(time_, to);
}

void script_writer::apply() {
  const bool rates_changed = schedule_.apply(time_, [&](const arrival& one) {
    to_->steps.push_back({.what = instruction::kind::add,
                          .index = static_cast<std::uint32_t>(one.state),
                          .time = time_,
                          .value = one.amount,
                          .share = one.share});
  });
  if (rates_changed) note_rates();
}

void script_writer::forget() {
  schedule_.clear();
  if (!to_->rates.empty()) note_rates();
}

void script_writer::note_rates() {
  const std::vector<double>& rates = schedule_.rates();
  note(instruction::kind::rates, to_->rates.size() / rates.size());
  to_->rates.insert(to_->rates.end(), rates.begin(), rates.end());
}

}  // namespace varda
