// SPDX-License-Identifier: Apache-2.0
#include "varda/data/doses.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace varda {

namespace {

// Rates and durations of files are rounded to a few digits.
constexpr double consistency = 1e-2;
// A time from a multiple of II may miss the same time in the file by its rounding.
constexpr double rounding = 1e-12;

bool contains(const std::vector<int>& list, int value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

bool same_time(double a, double b) {
  return std::fabs(a - b) <= rounding * std::max(std::fabs(a), std::fabs(b));
}

double not_negative(const record_view& from, role column, const std::string& name) {
  const double value = from.number_or(column, 0.0);
  if (value < 0.0)
    throw from.error("E-DATA-DOSE", fmt::format("the {} {} is negative", name, value),
                     "write a value above 0, or 0 where there is none", column);
  return value;
}

int compartment_of(const record_view& from, int given, role column) {
  const int most = from.model().compartments;
  const int compartment = given == 0 ? 1 : given;
  if (compartment < 1 || compartment > most)
    throw from.error("E-DATA-DOSE", fmt::format("compartment {} takes no doses", compartment),
                     fmt::format("the model takes doses into compartment 1{}",
                                 most > 1 ? fmt::format(" to {}", most) : ""),
                     column);
  return compartment;
}

// RATE -1 or -2: the model must have a parameter for it.
dose_input modelled_input(const record_view& from, double code, int compartment) {
  const bool rate = code == -1.0;
  if (!rate && code != -2.0)
    throw from.error("E-DATA-DOSE", fmt::format("the rate {} has no meaning", code),
                     "above 0 is an infusion, -1 takes the rate and -2 the duration from the model",
                     role::rate);
  if (!contains(rate ? from.model().modelled_rate : from.model().modelled_duration, compartment))
    throw from.error(
        "E-DATA-DOSE",
        fmt::format("the model has no parameter for the {} of doses into compartment {}",
                    rate ? "rate" : "duration", compartment),
        "choose a model that has one, or write the rate of the infusion", role::rate);
  return rate ? dose_input::modelled_rate : dose_input::modelled_duration;
}

// Sets input and rate of a dose from RATE and DUR.
void read_input(const record_view& from, dose& given) {
  const double rate = from.number_or(role::rate, 0.0);
  const double duration = not_negative(from, role::dur, "duration");
  if (rate < 0.0) {
    given.input = modelled_input(from, rate, given.compartment);
    if (duration > 0.0)
      throw from.error("E-DATA-DOSE", "the duration stands beside a rate that the model gives",
                       "keep one of the two", role::dur);
    return;
  }
  if (rate > 0.0 && duration > 0.0 &&
      std::fabs(given.amount - rate * duration) > consistency * given.amount)
    throw from.error("E-DATA-DOSE",
                     fmt::format("{} at a rate of {} lasts {} and not {}", given.amount, rate,
                                 given.amount / rate, duration),
                     "keep one of RATE and DUR, or correct the other", role::dur);
  if (rate > 0.0 || duration > 0.0) {
    given.input = dose_input::infusion;
    given.rate = rate > 0.0 ? rate : given.amount / duration;
  }
}

// Sets what SS asks for. An infusion that has run for ever has neither amount nor interval.
void read_steady_state(const record_view& from, double interval, dose_order& order) {
  const int state = from.whole_number_or(role::ss, 0);
  if (state < 0 || state > 2)
    throw from.error("E-DATA-DOSE", fmt::format("SS {} has no meaning", state),
                     "1 is a dose at steady state, 2 one whose steady state adds to what is there",
                     role::ss);
  if (state == 0) return;
  dose& given = order.first;
  given.steady_state = true;
  given.interval = interval;
  order.replaces = state == 1;
  if (given.amount > 0.0 && interval == 0.0)
    throw from.error("E-DATA-DOSE", "a dose at steady state has no interval",
                     "give II, the time between two doses", role::ii);
  if (given.amount == 0.0 && given.input == dose_input::infusion && interval > 0.0)
    throw from.error("E-DATA-DOSE", "an infusion that runs for ever has an interval",
                     "set II to 0, or give AMT", role::ii);
}

}  // namespace

namespace {

// The dose is known but for how often it is repeated.
void read_repeats(const record_view& from, dose_order& order, oddities& odd) {
  dose& given = order.first;
  order.spacing = not_negative(from, role::ii, "interval");
  read_steady_state(from, order.spacing, order);
  const bool endless = given.steady_state && given.rate > 0.0;
  if (given.amount == 0.0 && !endless)
    throw from.error("E-DATA-DOSE", "the dose record has no amount", "give AMT, or set EVID to 2",
                     role::amt);

  order.additional = from.whole_number_or(role::addl, 0);
  if (order.additional < 0)
    throw from.error("E-DATA-DOSE", fmt::format("{} additional doses", order.additional),
                     "ADDL counts the doses after this one", role::addl);
  if (order.additional > 0 && order.spacing == 0.0)
    throw from.error("E-DATA-DOSE", "the additional doses have no interval",
                     "give II, the time between two doses", role::ii);
  if (order.spacing > 0.0 && order.additional == 0 && !given.steady_state)
    odd.ignored(from, role::ii, {"dose without ADDL and SS", "doses without ADDL and SS"},
                "set ADDL if more doses follow");
}

dose_order order_at(const record_view& from, double time) {
  dose_order order;
  order.first.time = time;
  order.first.row = from.row();
  return order;
}

}  // namespace

dose_order read_dose(const record_view& from, double time, oddities& odd) {
  dose_order order = order_at(from, time);
  order.first.amount = not_negative(from, role::amt, "amount");
  order.first.compartment = compartment_of(from, from.whole_number_or(role::cmt, 0), role::cmt);
  read_input(from, order.first);
  read_repeats(from, order, odd);
  return order;
}

std::optional<event_digits> event_digits_of(int evid) {
  const event_digits code{.compartment = evid / 100 % 100, .rate_in_amount = evid >= 10000};
  if (evid < 100 || evid >= 20000 || evid % 100 != 1 || code.compartment == 0) return std::nullopt;
  return code;
}

dose_order read_coded_dose(const record_view& from, const event_digits& code, double duration,
                           double time, oddities& odd) {
  const int evid = from.whole_number_or(role::evid, 0);
  const int other = from.whole_number_or(role::cmt, 0);
  if (other != 0 && other != code.compartment)
    throw from.error("E-DATA-DOSE",
                     fmt::format("EVID {} is a dose into compartment {}, and CMT is {}", evid,
                                 code.compartment, other),
                     "keep one of the two: EVID 1 with CMT, or the code alone", role::cmt);
  dose_order order = order_at(from, time);
  dose& given = order.first;
  given.compartment = compartment_of(from, code.compartment, role::evid);
  given.amount = not_negative(from, role::amt, "amount");
  if (code.rate_in_amount) {
    if (from.number_or(role::rate, 0.0) != 0.0 || from.number_or(role::dur, 0.0) != 0.0)
      throw from.error("E-DATA-DOSE",
                       fmt::format("EVID {} is an infusion with its rate in AMT, and RATE or DUR "
                                   "gives another",
                                   evid),
                       "write EVID 1, the amount into AMT, and RATE or DUR", role::evid);
    given.input = dose_input::infusion;
    given.rate = given.amount;
    given.amount = given.rate * duration;
  } else {
    read_input(from, given);
  }
  read_repeats(from, order, odd);
  const auto read_as = [&](const char* records, const char* doses) {
    return fmt::format("{} with EVID {} {} into compartment {}{}", records, evid, doses,
                       code.compartment, code.rate_in_amount ? ", the rate in AMT" : "");
  };
  odd.count(
      "W-DATA-EVENT-CODES",
      {read_as("record", code.rate_in_amount ? "is read as an infusion" : "is read as a dose"),
       read_as("records", code.rate_in_amount ? "are read as infusions" : "are read as doses")},
      "write EVID 1 and CMT if this is not meant", from, role::evid);
  return order;
}

bool looks_like_dose(const record_view& from) {
  return from.number_or(role::amt, 0.0) != 0.0 ||
         (from.number_or(role::rate, 0.0) != 0.0 && from.number_or(role::ss, 0.0) != 0.0);
}

void refuse_amount(const record_view& from, oddities& odd) {
  const double amount = from.number_or(role::amt, 0.0);
  if (amount != 0.0)
    throw from.error("E-DATA-DOSE",
                     fmt::format("the record is no dose and has the amount {}", amount),
                     "set EVID to 1 for a dose, or the amount to 0", role::amt);
  for (const role column : {role::rate, role::dur, role::ii, role::addl, role::ss})
    if (from.number_or(column, 0.0) != 0.0)
      odd.ignored(from, column, {"record that is no dose", "records that are no doses"},
                  "set EVID to 1 if a dose is meant");
}

void additional_doses::add(const dose_order& order, int segment) {
  if (order.additional > 0) waiting_.push_back({.order = order, .segment = segment});
}

std::vector<dose> additional_doses::due(double time) {
  std::vector<dose> now;
  for (series& from : waiting_)
    for (; from.given < from.order.additional; ++from.given) {
      dose next = from.order.first;
      next.time = from.next();
      if (same_time(next.time, time)) next.time = time;
      if (next.time > time) break;
      next.steady_state = false;
      next.interval = 0.0;
      next.record_segment = from.segment;
      next.record_time = from.order.first.time;
      now.push_back(next);
    }
  std::erase_if(waiting_, [](const series& s) { return s.given == s.order.additional; });
  std::stable_sort(now.begin(), now.end(),
                   [](const dose& a, const dose& b) { return a.time < b.time; });
  return now;
}

}  // namespace varda
