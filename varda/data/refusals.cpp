// SPDX-License-Identifier: Apache-2.0
#include "varda/data/refusals.h"

#include <fmt/format.h>

#include <algorithm>

namespace varda {

namespace {

constexpr std::size_t most_rows = 3;

}  // namespace

void refusals::add(const finding& what) {
  const auto same = [&](const cause& c) {
    return c.first.code == what.code && c.first.column == what.column &&
           c.first.remedy == what.remedy && c.first.file == what.file;
  };
  const auto at = std::find_if(causes_.begin(), causes_.end(), same);
  if (at == causes_.end()) {
    if (causes_.size() < most_) causes_.push_back({.first = what});
    return;
  }
  ++at->others;
  if (at->rows.size() < most_rows && what.row > 0) at->rows.push_back(what.row);
}

findings refusals::errors() const {
  findings all;
  for (const cause& c : causes_) {
    all.push_back(c.first);
    if (c.others == 0) continue;
    std::string& message = all.back().message;
    message += fmt::format(", and {} more like it", c.others);
    if (c.rows.empty()) continue;
    message += fmt::format(" (row{} {}{})", c.others > 1 ? "s" : "", fmt::join(c.rows, ", "),
                           static_cast<std::size_t>(c.others) > c.rows.size() ? ", ..." : "");
  }
  return all;
}

}  // namespace varda
