// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cmath>

#include "varda/input/model_file_parts.h"
#include "varda/model/settings_table.h"

namespace varda {

namespace {

std::string range_of(const number_setting& s) {
  const bool open = s.at_least == range_end::excluded && s.at_most == range_end::excluded;
  if (std::isinf(s.most))
    return fmt::format("{} {}", s.at_least == range_end::excluded ? "above" : "at least at",
                       s.least);
  if (open) return fmt::format("between {} and {}", s.least, s.most);
  return fmt::format("{} {} and {} {}", s.at_least == range_end::excluded ? "above" : "at least at",
                     s.least, s.at_most == range_end::excluded ? "below" : "at most at", s.most);
}

bool holds(const number_setting& s, double value) {
  const bool above = s.at_least == range_end::included ? value >= s.least : value > s.least;
  return above && (s.at_most == range_end::included ? value <= s.most : value < s.most);
}

// Reads the setting `key` by its kind.
struct setting_reader {
  section& from;
  const std::string& key;
  estimation_settings& to;

  void operator()(const whole_number_setting& s) const {
    to.*s.member = from.whole_number_or(key, to.*s.member, s.least, s.most);
  }
  void operator()(const number_setting& s) const {
    const auto value = from.number(key);
    if (!value) return;
    if (!holds(s, *value))
      throw from.error("E-MODEL-RANGE", key, fmt::format("{} is out of range", *value),
                       "it must lie " + range_of(s));
    to.*s.member = *value;
  }
  void operator()(const flag_setting& s) const { to.*s.member = from.flag_or(key, to.*s.member); }
  void operator()(const word_setting& s) const {
    if (const auto value = from.word(key, s.words)) s.set(to, *value);
  }
};

}  // namespace

void read_estimation(section from, model_specification& file) {
  // With the default number EM comes to rest where the acceptance of Newton's method refuses the
  // estimates of counts: typical values and coefficients that compensate each other
  // (docs/endpoints.md has figures).
  constexpr int for_outcomes = 1000;
  const bool chosen = from.has("resamples");
  for (const setting& row : every_setting())
    std::visit(setting_reader{from, row.name, file.estimation}, row.kind);
  if (!chosen && file.estimation.method == method_kind::em && !file.data.outcomes.empty())
    file.estimation.resamples = for_outcomes;
  from.refuse_leftovers();
}

}  // namespace varda
