// SPDX-License-Identifier: Apache-2.0
#include "varda/data/observations.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

#include "varda/data/levels.h"
#include "varda/support/text.h"

namespace varda {

namespace {

// The position of the endpoint that DVID asks for, or -1. 1 and 1.0 are the same.
int known_endpoint(const record_view& from) {
  const std::string_view given = from.text(role::dvid);
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

// What CENS and LIMIT say about the time of an event.
void read_event(const record_view& from, observation& made) {
  const int censored = from.whole_number_or(role::cens, 0);
  if (censored < -1 || censored > 1)
    throw from.error("E-DATA-CENSORING", fmt::format("CENS {} has no meaning", censored),
                     "1 is an event before TIME, -1 none until TIME, 0 what DV says", role::cens);
  if (censored == 1 && made.value == 0.0)
    throw from.error("E-DATA-CENSORING", "the row has no event, and one before its time",
                     "write DV 1 with CENS 1", role::cens);
  if (censored == -1 || made.value == 0.0) {
    made.censored = censoring::right;
    made.value = 0.0;
  }
  if (censored != 1) return;
  made.censored = censoring::left;
  const std::optional<double> limit = from.number(role::limit);
  if (!limit) return;
  const double written = from.number_or(role::time, made.time);
  if (*limit >= written)
    throw from.error("E-DATA-CENSORING",
                     fmt::format("the limit {} does not lie before the time {}", *limit, written),
                     "LIMIT is the time at which the event had not happened yet", role::limit);
  made.limit = *limit + (made.time - written);
  made.censored = censoring::interval;
}

// Refuses a value that the endpoint cannot take.
void check_value(const record_view& from, const outcome_text& of, double value) {
  const auto refuse = [&](const char* what) {
    throw from.error("E-DATA-VALUE", fmt::format("{} is no value of {}", value, of.name), what,
                     role::dv);
  };
  if (is_count(of.kind)) {
    constexpr double most = 1e9;
    if (!(value >= 0.0 && value <= most && value == std::floor(value)))
      refuse("counts are whole numbers from 0 on");
  } else if (of.kind == endpoint_kind::binary || of.kind == endpoint_kind::event) {
    if (value != 0.0 && value != 1.0)
      refuse(of.kind == endpoint_kind::binary
                 ? "write 0 or 1"
                 : "write 1 for an event at TIME, 0 where none came until TIME");
  } else if (of.kind == endpoint_kind::ordinal &&
             std::find(of.levels.begin(), of.levels.end(), value) == of.levels.end()) {
    throw from.error("E-DATA-VALUE", fmt::format("{} is no level of {}", value, of.name),
                     fmt::format("its levels are {}", fmt::join(of.levels, ", ")), role::dv);
  }
}

// Everything beyond the value of an endpoint that is not normal.
void read_outcome(const record_view& from, const outcome_text& of, observation& made) {
  check_value(from, of, made.value);
  if (of.kind == endpoint_kind::event) return read_event(from, made);
  if (from.whole_number_or(role::cens, 0) != 0)
    throw from.error("E-DATA-CENSORING",
                     fmt::format("{} is {} and takes no censored values", of.name,
                                 is_count(of.kind) ? "a count" : "no continuous endpoint"),
                     "CENS is for continuous endpoints and for events", role::cens);
}

}  // namespace

std::optional<observation> read_observation(const record_view& from, double time, oddities& odd) {
  const int missing = from.whole_number_or(role::mdv, 0);
  if (missing != 0 && missing != 1)
    throw from.error("E-DATA-EVENT", fmt::format("MDV {} has no meaning", missing),
                     "1 leaves the observation out, 0 keeps it", role::mdv);
  if (missing == 1 && !from.model().missing_counts) {
    odd.count(
        "W-DATA-EXCLUDED",
        {"observation record is left out (MDV 1)", "observation records are left out (MDV 1)"}, "",
        from, role::mdv);
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
  if (!value) return made;
  const data_source& model = from.model();
  const outcome_text* const of =
      model.outcomes.empty() ? nullptr : &model.outcomes[static_cast<std::size_t>(made.endpoint)];
  if (of != nullptr && of->kind != endpoint_kind::normal)
    read_outcome(from, *of, made);
  else
    read_censoring(from, made);
  return made;
}

}  // namespace varda
