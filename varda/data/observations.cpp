// SPDX-License-Identifier: Apache-2.0
#include "varda/data/observations.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <limits>

#include "varda/data/levels.h"
#include "varda/support/text.h"

namespace varda {

namespace {

// The position of the endpoint that DVID asks for, or -1. 1 and 1.0 are the same.
int known_endpoint(const record_view& from) {
  const std::string& given = from.text(role::dvid);
  if (is_missing(given) || level_number(given) == 0.0) return 0;
  const data_source& model = from.model();
  for (std::size_t k = 0; k < model.endpoints.size(); ++k)
    if (level_number(given) == level_number(model.endpoints[k]) || given == model.endpoint_names[k])
      return static_cast<int>(k);
  return -1;
}

int endpoint_of(const record_view& from) {
  const int known = known_endpoint(from);
  if (known < 0)
    throw from.error(
        "E-DATA-ENDPOINT",
        fmt::format("the model has no endpoint with DVID {}", shortened(from.text(role::dvid))),
        fmt::format("its endpoints have DVID {}; set MDV to 1 to leave the record out",
                    fmt::join(from.model().endpoints, ", ")),
        role::dvid);
  return known;
}

// Sets what CENS and LIMIT say about a value that is already there.
void read_censoring(const record_view& from, observation& made) {
  const int censored = from.whole_number_or(role::cens, 0);
  if (censored < -1 || censored > 1)
    throw from.error("E-DATA-CENSORING", fmt::format("CENS {} has no meaning", censored),
                     "1 is a value below DV, -1 one above DV, 0 an observed one", role::cens);
  // Files fill the column of limits on observed values as well.
  if (censored == 0) return;
  made.censored = censored == 1 ? censoring::left : censoring::right;
  const std::optional<double> limit = from.number(role::limit);
  if (!limit) return;
  if (censored == 1 ? *limit >= made.value : *limit <= made.value)
    throw from.error("E-DATA-CENSORING",
                     fmt::format("the limit {} does not lie {} the value {}", *limit,
                                 censored == 1 ? "below" : "above", made.value),
                     "DV is the limit of quantification, LIMIT the other end of the interval",
                     role::limit);
  made.limit = std::min(*limit, made.value);
  made.value = std::max(*limit, made.value);
  made.censored = censoring::interval;
}

}  // namespace

std::optional<observation> read_observation(const record_view& from, double time, oddities& odd) {
  const int missing = from.whole_number_or(role::mdv, 0);
  if (missing != 0 && missing != 1)
    throw from.error("E-DATA-EVENT", fmt::format("MDV {} has no meaning", missing),
                     "1 leaves the observation out, 0 keeps it", role::mdv);
  if (missing == 1 && !from.model().missing_counts) {
    odd.count("W-DATA-EXCLUDED", "observation records are left out (MDV 1)", "", from, role::mdv);
    return std::nullopt;
  }
  // A record that was left out may hold anything.
  if (missing == 1 && known_endpoint(from) < 0) return std::nullopt;
  const bool needed = missing == 0 && from.model().values_needed;
  const std::optional<double> value = missing == 1 ? std::nullopt : from.number(role::dv);
  if (!value && needed)
    throw from.error("E-DATA-MISSING", "the observation has no value",
                     "set MDV to 1 to leave the record out", role::dv);
  observation made{.time = time,
                   .value = value.value_or(std::numeric_limits<double>::quiet_NaN()),
                   .endpoint = endpoint_of(from),
                   .row = from.row()};
  if (value) read_censoring(from, made);
  return made;
}

}  // namespace varda
