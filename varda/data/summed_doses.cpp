// SPDX-License-Identifier: Apache-2.0
#include "varda/data/summed_doses.h"

#include <fmt/format.h>

#include <algorithm>

namespace varda {

namespace {

bad_input refusal(const dataset& data, const subject& who, const dose& given, const char* column,
                  const std::string& message, const std::string& remedy) {
  return bad_input({.code = "E-DATA-DOSE",
                    .message = message,
                    .remedy = remedy,
                    .file = data.file,
                    .row = given.row,
                    .column = column,
                    .subject = who.id});
}

}  // namespace

int count_summed_doses(const dataset& data) {
  int most = 1;
  for (const subject& who : data.subjects) {
    int count = 0;
    for (const event& e : who.timeline) {
      if (e.kind == event_kind::reset) count = 0;
      if (e.kind != event_kind::dose) continue;
      const dose& given = who.doses[static_cast<std::size_t>(e.index)];
      if (given.steady_state)
        throw refusal(data, who, given, "SS",
                      "this model adds up its doses one by one and knows no steady state",
                      "give the doses that lead to it, with ADDL and II");
      if (given.compartment != 1) continue;
      if (given.input != dose_input::bolus)
        throw refusal(data, who, given, "RATE",
                      "this model has an absorption of its own for doses into compartment 1",
                      "leave RATE and DUR out, or give an infusion into another compartment");
      if (++count > most_summed_doses)
        throw refusal(
            data, who, given, "",
            fmt::format("this model adds up the doses into compartment 1, and these are more than "
                        "{} without a reset",
                        most_summed_doses),
            "begin later, or take a model with first-order absorption");
      most = std::max(most, count);
    }
  }
  return most;
}

}  // namespace varda
