// SPDX-License-Identifier: Apache-2.0
#include "varda/model/model_file_parts.h"

#include <fmt/format.h>

namespace varda {

namespace {

double read_deviation(section& from, const std::string& key, bool& fixed) {
  double value = 0.0;
  if (from.is_number(key)) {
    value = *from.number(key);
  } else {
    section entry = from.needed_table(key, "a start value of the residual error");
    value = entry.needed_number("start", "a start value of the residual error");
    fixed = entry.flag_or("fixed", false);
    entry.refuse_leftovers();
  }
  if (!(value > 0.0))
    throw from.error("E-MODEL-RANGE", key, fmt::format("the deviation {} is not above 0", value),
                     "standard deviations are positive");
  return value;
}

}  // namespace

void read_residual(section from, model_file& file) {
  residual_error& r = file.residual;
  r.kind =
      static_cast<error_kind>(from.word_or("error", 0, {"additive", "proportional", "combined"}));
  if (r.kind != error_kind::proportional)
    r.additive = read_deviation(from, "additive", r.additive_fixed);
  if (r.kind != error_kind::additive)
    r.proportional = read_deviation(from, "proportional", r.proportional_fixed);
  from.refuse_leftovers();
}

}  // namespace varda
