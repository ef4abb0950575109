// SPDX-License-Identifier: Apache-2.0
#include "varda/data/subject_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "varda/data/observations.h"
#include "varda/support/text.h"

namespace varda {

namespace {

constexpr double end_of_infusion = -1.0;  // in place of a duration

enum event_code {
  observation_event = 0,
  dose_event = 1,
  other_event = 2,
  reset_event = 3,
  reset_and_dose_event = 4
};

int event_of(const record_view& from) {
  const int evid =
      from.whole_number_or(role::evid, looks_like_dose(from) ? dose_event : observation_event);
  if (event_digits_of(evid)) return dose_event;
  if (evid < observation_event || evid > reset_and_dose_event)
    throw from.error(
        "E-DATA-EVENT", fmt::format("EVID {} has no meaning", evid),
        evid < 100
            ? "0 is an observation, 1 a dose, 2 another event, 3 a reset, 4 a reset and dose"
            : "of the codes with the compartment in their digits, those of doses are read: 101, "
              "201, 10101",
        role::evid);
  return evid;
}

}  // namespace

void append(subject& to, const dose& given) {
  to.timeline.push_back({event_kind::dose, static_cast<int>(to.doses.size()), given.time});
  to.doses.push_back(given);
}

void append(subject& to, const observation& made) {
  to.timeline.push_back(
      {event_kind::observation, static_cast<int>(to.observations.size()), made.time});
  to.observations.push_back(made);
}

subject_reader::subject_reader(const column_map& columns,
                               std::span<const csv_table::record> records, oddities& odd)
    : columns_(columns), records_(records), odd_(odd), covariates_(columns, records) {
  const record_view first(columns, records.front());
  made_.id = first.id();
  made_.first_row = first.row();
  made_.segments.push_back(covariates_.in_force());
  find_infusions();
}

// An infusion ends at the next record with the same code and the same rate, negative, that ends no
// other. What cannot be read is refused where it is taken.
void subject_reader::find_infusions() {
  struct switch_record {
    int row;
    int evid;
    double time;
    double rate;
  };
  if (columns_.position_of(role::evid) < 0) return;
  std::vector<switch_record> open;
  for (const csv_table::record& fields : records_) {
    const record_view from(columns_, fields);
    const auto evid = to_number(from.text(role::evid));
    if (!evid || !(*evid >= 10000.0 && *evid < 20000.0)) continue;
    const auto time = to_number(from.text(role::time));
    const auto rate = to_number(from.text(role::amt));
    if (!time || !rate) continue;
    if (*rate > 0.0) {
      open.push_back({from.row(), static_cast<int>(*evid), *time, *rate});
      continue;
    }
    const auto begun = std::find_if(open.begin(), open.end(), [&](const switch_record& s) {
      return s.evid == static_cast<int>(*evid) && s.rate == -*rate;
    });
    if (begun == open.end()) continue;
    infusions_[begun->row] = *time - begun->time;
    infusions_[from.row()] = end_of_infusion;
    open.erase(begun);
  }
}

subject subject_reader::read(const std::function<void(const finding&)>& refuse) {
  for (const csv_table::record& fields : records_) {
    try {
      take(record_view(columns_, fields));
    } catch (const bad_input& error) {
      refused_ = true;
      refuse(error.what_found());
    }
  }
  if (std::isfinite(columns_.model().doses_until)) give_due(columns_.model().doses_until);
  made_.occasions = covariates_.occasions();
  made_.doses.shrink_to_fit();
  made_.observations.shrink_to_fit();
  made_.segments.shrink_to_fit();
  made_.timeline.shrink_to_fit();
  // A record that was refused may hold what the whole would lack.
  if (refused_) return std::move(made_);
  try {
    check_whole();
  } catch (const bad_input& error) {
    refuse(error.what_found());
  }
  return std::move(made_);
}

void subject_reader::take(const record_view& from) {
  if (is_missing(from.id()))
    throw from.error("E-DATA-MISSING", "the subject identifier is missing",
                     "every record belongs to a subject", role::id);
  // Programs that read the results would take bytes that are none of a character for one another.
  if (!is_utf8(from.id()))
    throw from.error("E-DATA-ENCODING", "the subject identifier is not valid UTF-8",
                     "save the file as UTF-8", role::id);
  const int what = event_of(from);
  const bool resets = what == reset_event || what == reset_and_dose_event;
  const double time = clock(from, resets);
  give_due(time);
  enter_segment(from, time);
  if (resets) reset(time);

  if (what == dose_event || what == reset_and_dose_event) return take_dose(from, time);
  refuse_amount(from, odd_);
  if (what == observation_event) return take_observation(from, time);
  if (from.whole_number_or(role::cmt, 0) < 0)
    throw from.error("E-DATA-UNSUPPORTED", "a compartment cannot be switched off",
                     "write a compartment above 0, or none", role::cmt);
}

// The time of a record on the subject's clock.
double subject_reader::clock(const record_view& from, bool resets) {
  if (columns_.position_of(role::time) < 0) return 0.0;
  const std::optional<double> time = from.number(role::time);
  if (!time)
    throw from.error("E-DATA-MISSING", "the time is missing", "every record needs a time",
                     role::time);
  const bool back = started_ && *time < file_time_;
  const double before = std::exchange(file_time_, *time);
  started_ = true;
  if (back && !resets)
    throw from.error("E-DATA-TIME", fmt::format("the time goes back from {} to {}", before, *time),
                     "sort the records of a subject by time; after a reset TIME may start anew",
                     role::time);
  if (back) {
    offset_ += before - *time;
    odd_.count("W-DATA-TIME-RESTARTS",
               {"reset starts TIME anew; the time in the model goes on from the record before",
                "resets start TIME anew; the time in the model goes on from the record before"},
               "", from, role::time);
  }
  return *time + offset_;
}

void subject_reader::enter_segment(const record_view& from, double time) {
  const std::optional<segment> changed = covariates_.next(from, time);
  if (!changed) return;
  made_.timeline.push_back({event_kind::segment, static_cast<int>(made_.segments.size()), time});
  made_.segments.push_back(*changed);
}

void subject_reader::give_due(double time) {
  for (const dose& next : waiting_.due(time)) append(made_, next);
}

void subject_reader::reset(double time) {
  waiting_.cancel();
  made_.timeline.push_back({event_kind::reset, 0, time});
}

void subject_reader::take_dose(const record_view& from, double time) {
  const auto code = event_digits_of(from.whole_number_or(role::evid, 0));
  const auto infusion = infusions_.find(from.row());
  const bool known = infusion != infusions_.end();
  if (code && code->rate_in_amount && known && infusion->second == end_of_infusion) return;
  if (code && code->rate_in_amount && !known)
    throw from.error(
        "E-DATA-DOSE", "the infusion has its rate in AMT, and no other record ends or begins it",
        "an infusion takes two records, with AMT 5 and -5, say; or write EVID 1 and RATE",
        role::amt);
  const dose_order order =
      code ? read_coded_dose(from, *code, known ? infusion->second : 0.0, time, odd_)
           : read_dose(from, time, odd_);
  const bool was_reset = !made_.timeline.empty() && made_.timeline.back().kind == event_kind::reset;
  if (order.replaces && !was_reset) reset(time);
  append(made_, order.first);
  waiting_.add(order, static_cast<int>(made_.segments.size()) - 1);
  ++dose_records_;
  if (from.number_or(role::dv, 0.0) != 0.0)
    odd_.ignored(from, role::dv, {"dose record", "dose records"},
                 "put the observation into a record of its own");
}

void subject_reader::take_observation(const record_view& from, double time) {
  std::optional<observation> made = read_observation(from, time, odd_);
  if (!made) {
    ++excluded_;
    return;
  }
  made->segment = static_cast<int>(made_.segments.size()) - 1;
  if (made_.doses.empty() && !refused_ && columns_.model().doses_needed)
    odd_.count("W-DATA-BEFORE-DOSE",
               {"observation stands before any dose of its subject",
                "observations stand before any dose of their subject"},
               "check the order of the records: a dose at the same time must stand before them",
               from, role::time);
  append(made_, *made);
}

void subject_reader::check_whole() const {
  const auto refuse = [this](const std::string& code, const std::string& message,
                             const std::string& remedy, const std::string& column) {
    throw bad_input({.code = code,
                     .message = message,
                     .remedy = remedy,
                     .file = columns_.file(),
                     .row = made_.first_row,
                     .column = column,
                     .subject = made_.id});
  };
  const int missing = covariates_.without_value();
  if (missing >= 0)
    refuse("E-DATA-COVARIATE", "the covariate is missing in every record of the subject",
           "give it a value, or leave the subject out",
           columns_.model().covariates[static_cast<std::size_t>(missing)]);
  if (made_.doses.empty() && columns_.model().doses_needed)
    refuse("E-DATA-DOSE", "the subject has no dose",
           "add its dose record, or leave the subject out", "");
}

}  // namespace varda
