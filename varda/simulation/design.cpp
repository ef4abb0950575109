// SPDX-License-Identifier: Apache-2.0
#include "varda/simulation/design.h"

#include <cmath>
#include <limits>

namespace varda {

namespace {

// The subject without its observations.
subject emptied(const subject& who) {
  subject result = who;
  result.observations.clear();
  result.timeline.clear();
  return result;
}

}  // namespace

dataset observed_part(const dataset& data) {
  dataset result = data;
  for (subject& who : result.subjects) {
    const subject whole = who;
    who = emptied(whole);
    for (const event& e : whole.timeline) {
      if (e.kind != event_kind::observation) {
        who.timeline.push_back(e);
        continue;
      }
      const observation& o = whole.observations[static_cast<std::size_t>(e.index)];
      if (!std::isnan(o.value)) append(who, o);
    }
  }
  return result;
}

dataset on_grid(const dataset& data, const std::vector<double>& times, int endpoints) {
  dataset result = data;
  for (subject& who : result.subjects) {
    const subject whole = who;
    who = emptied(whole);
    int segment = 0;
    auto next = times.begin();
    const auto observe_until = [&](double time) {
      for (; next != times.end() && *next < time; ++next)
        for (int k = 0; k < endpoints; ++k)
          append(who, observation{.time = *next,
                                  .value = std::numeric_limits<double>::quiet_NaN(),
                                  .endpoint = k,
                                  .segment = segment});
    };
    for (const event& e : whole.timeline) {
      if (e.kind == event_kind::observation) continue;
      observe_until(e.time);
      if (e.kind == event_kind::segment) segment = e.index;
      who.timeline.push_back(e);
    }
    observe_until(std::numeric_limits<double>::infinity());
  }
  return result;
}

}  // namespace varda
