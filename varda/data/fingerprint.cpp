// SPDX-License-Identifier: Apache-2.0
#include "varda/data/fingerprint.h"

#include <fmt/format.h>

#include "varda/support/digest.h"

namespace varda {

// Numbers are written so that they read back to the same double; lengths before identifiers keep
// two lists from running together.
std::string observations_fingerprint(const dataset& data) {
  sha256_of_pieces all;
  std::string text;
  for (const subject& who : data.subjects) {
    if (who.observations.empty()) continue;
    text = fmt::format("{}:{}\n", who.id.size(), who.id);
    for (const observation& o : who.observations)
      text += fmt::format("{} {} {} {} {}\n", o.time, o.value, o.limit,
                          static_cast<int>(o.censored), o.endpoint);
    all.add(text);
  }
  return all.digest();
}

std::string doses_fingerprint(const dataset& data) {
  sha256_of_pieces all;
  std::string text;
  for (const subject& who : data.subjects) {
    if (who.observations.empty()) continue;
    text = fmt::format("{}:{}\n", who.id.size(), who.id);
    for (const event& e : who.timeline) {
      if (e.kind == event_kind::reset) text += fmt::format("reset {}\n", e.time);
      if (e.kind != event_kind::dose) continue;
      const dose& d = who.doses[static_cast<std::size_t>(e.index)];
      text += fmt::format("{} {} {} {} {} {} {}\n", d.time, d.amount, d.compartment,
                          static_cast<int>(d.input), d.rate, d.steady_state ? 1 : 0, d.interval);
    }
    all.add(text);
  }
  return all.digest();
}

}  // namespace varda
