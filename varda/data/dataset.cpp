// SPDX-License-Identifier: Apache-2.0
#include "varda/data/dataset.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>

#include "varda/data/csv.h"
#include "varda/support/text.h"

namespace varda {

namespace {

// Columns with a meaning of their own. Those of the last group change what a record means; a value
// other than 0 in them is refused for as long as it would be ignored.
const std::vector<std::string> known_roles = {"ID", "TIME", "DV", "AMT", "EVID", "MDV", "CMT"};
const std::vector<std::string> unsupported_roles = {"RATE", "DUR", "II", "ADDL", "SS", "CENS"};
// Tells endpoints apart: 0 and 1 stand for the first, which is the only one so far.
const std::string endpoint_role = "DVID";

enum event_code { observation_event = 0, dose_event = 1, other_event = 2 };

// Reads the records of one file in order, subject by subject.
class reader {
 public:
  reader(const data_source& source, findings& warnings)
      : source_(source), warnings_(warnings), table_(read_csv(source.file)) {
    for (const std::string& role : known_roles) columns_[role] = find_role(role);
    for (const std::string& role : unsupported_roles) columns_[role] = find_role(role);
    columns_[endpoint_role] = find_role(endpoint_role);
    // Without amounts there is no dose, and nothing that the models could predict.
    for (const char* needed : {"ID", "TIME", "DV", "AMT"})
      if (columns_.at(needed) < 0) throw no_column(needed);
    for (const std::string& covariate : source.covariates)
      covariate_columns_.push_back(find_covariate(covariate));
  }

  dataset read() {
    data_.file = source_.file;
    data_.covariate_names = source_.covariates;
    data_.covariate_varies.assign(source_.covariates.size(), false);
    for (const csv_table::record& record : table_.records) take(record);
    if (!data_.subjects.empty()) finish_subject();
    if (data_.subjects.empty())
      throw bad_input({.code = "E-DATA-EMPTY",
                       .message = "the data file holds no records",
                       .remedy = "it needs one row per dose and observation under its header",
                       .file = source_.file});
    if (data_.observations() == 0)
      throw bad_input({.code = "E-DATA-EMPTY",
                       .message = "the data file holds no observation that counts",
                       .remedy = "check EVID and MDV: an observation has 0 in both",
                       .file = source_.file});
    data_.records = static_cast<int>(table_.records.size());
    add_warnings();
    return std::move(data_);
  }

 private:
  std::string column_name(const std::string& role) const {
    const auto renamed = source_.columns.find(role);
    return renamed == source_.columns.end() ? role : renamed->second;
  }

  int position(const std::string& name) const {
    for (std::size_t i = 0; i < table_.header.size(); ++i)
      if (equal_ignoring_case(table_.header[i], name)) return static_cast<int>(i);
    return -1;
  }

  bad_input no_column(const std::string& name) const {
    const std::string near = did_you_mean(name, table_.header);
    return bad_input({.code = "E-DATA-COLUMN",
                      .message = "the data file has no column " + name,
                      .remedy = near.empty() ? "its columns are " +
                                                   fmt::format("{}", fmt::join(table_.header, ", "))
                                             : "did you mean " + near + "?",
                      .file = source_.file,
                      .row = table_.header_line,
                      .column = name});
  }

  // A column that the model file names must be there; one that only has its usual name need not.
  int find_role(const std::string& role) const {
    const int found = position(column_name(role));
    if (found < 0 && source_.columns.contains(role)) throw no_column(column_name(role));
    return found;
  }

  int find_covariate(const std::string& name) const {
    const int found = position(name);
    if (found < 0) throw no_column(name);
    return found;
  }

  // An error at the record in hand.
  bad_input at(const std::string& code, const std::string& message, const std::string& remedy,
               const std::string& column = "") const {
    return bad_input({.code = code,
                      .message = message,
                      .remedy = remedy,
                      .file = source_.file,
                      .row = record_->line,
                      .column = column,
                      .subject = id_});
  }

  const std::string& field(int column) const {
    return record_->fields[static_cast<std::size_t>(column)];
  }

  // The number in a column, or nothing where it is missing.
  std::optional<double> number_in(int column) const {
    const std::string& text = field(column);
    if (is_missing(text)) return std::nullopt;
    const std::optional<double> value = to_number(text);
    const std::string& name = table_.header[static_cast<std::size_t>(column)];
    if (!value)
      throw at("E-DATA-NUMBER", fmt::format("'{}' is not a number", text),
               "write a plain number, or '.' where it is missing", name);
    if (!std::isfinite(*value))
      throw at("E-DATA-NUMBER", fmt::format("'{}' is not a finite number", text),
               "write a plain number, or '.' where it is missing", name);
    return value;
  }

  std::optional<double> number(const std::string& role) const {
    const int column = columns_.at(role);
    return column < 0 ? std::nullopt : number_in(column);
  }

  int whole_number(const std::string& role, int fallback) const {
    const std::optional<double> value = number(role);
    if (!value) return fallback;
    if (*value != std::floor(*value) || std::fabs(*value) > 1e6)
      throw at("E-DATA-NUMBER", fmt::format("{} is not a whole number", *value),
               "write a whole number", column_name(role));
    return static_cast<int>(*value);
  }

  void take(const csv_table::record& record) {
    record_ = &record;
    id_ = field(columns_.at("ID"));
    if (is_missing(id_))
      throw at("E-DATA-MISSING", "the subject identifier is missing",
               "every record belongs to a subject", column_name("ID"));
    refuse_unsupported();
    enter_subject();

    const std::optional<double> time = number("TIME");
    if (!time)
      throw at("E-DATA-MISSING", "the time is missing", "every record needs a time",
               column_name("TIME"));
    if (has_time_ && *time < time_)
      throw at("E-DATA-TIME", fmt::format("the time goes back from {} to {}", time_, *time),
               "sort the records of a subject by time", column_name("TIME"));
    time_ = *time;
    has_time_ = true;
    take_covariates();

    const int what = event();
    if (what != dose_event) refuse_amount();
    switch (what) {
      case observation_event:
        take_observation();
        break;
      case dose_event:
        take_dose();
        break;
      default:
        break;  // another event: it carries covariates and a time, nothing to predict
    }
    last_row_ = record.line;
  }

  void refuse_unsupported() const {
    for (const std::string& role : unsupported_roles) {
      const std::optional<double> value = number(role);
      if (value && *value != 0.0)
        throw at("E-DATA-UNSUPPORTED", fmt::format("{} = {} is not supported", role, *value),
                 "write each dose as a record of its own, as a bolus or into the depot",
                 column_name(role));
    }
    if (whole_number(endpoint_role, 0) > 1)
      throw at("E-DATA-UNSUPPORTED", "a second endpoint is not supported",
               "keep the records of one endpoint", column_name(endpoint_role));
  }

  void enter_subject() {
    if (!data_.subjects.empty() && data_.subjects.back().id == id_) return;
    const auto seen = last_rows_.find(id_);
    if (seen != last_rows_.end())
      throw at("E-DATA-SUBJECT",
               fmt::format("the subject returns after another one; its earlier records end in row "
                           "{}",
                           seen->second),
               "keep the records of a subject together", column_name("ID"));
    if (!data_.subjects.empty()) finish_subject();
    data_.subjects.emplace_back();
    data_.subjects.back().id = id_;
    data_.subjects.back().first_row = record_->line;
    data_.subjects.back().segments.push_back(
        {.covariates = std::vector<double>(covariate_columns_.size(), std::nan(""))});
    has_time_ = false;
  }

  // Called with the next subject's first record in hand, or at the end.
  void finish_subject() {
    const subject& who = data_.subjects.back();
    last_rows_[who.id] = last_row_;
    if (who.doses.empty())
      throw bad_input({.code = "E-DATA-DOSE",
                       .message = "the subject has no dose",
                       .remedy = "add its dose record, or leave the subject out",
                       .file = source_.file,
                       .row = who.first_row,
                       .subject = who.id});
    for (std::size_t k = 0; k < covariate_columns_.size(); ++k)
      if (std::isnan(who.segments.front().covariates[k]))
        throw bad_input({.code = "E-DATA-COVARIATE",
                         .message = "the covariate is missing in every record of the subject",
                         .remedy = "give it a value, or leave the subject out",
                         .file = source_.file,
                         .row = who.first_row,
                         .column = source_.covariates[k],
                         .subject = who.id});
    if (who.observations.empty()) ++without_observations_;
  }

  int event() const {
    const int evid =
        whole_number("EVID", number("AMT").value_or(0.0) != 0.0 ? dose_event : observation_event);
    if (evid < observation_event || evid > 4)
      throw at("E-DATA-EVENT", fmt::format("EVID {} has no meaning", evid),
               "0 is an observation, 1 a dose, 2 another event", column_name("EVID"));
    if (evid > other_event)
      throw at("E-DATA-UNSUPPORTED", fmt::format("EVID {} (reset) is not supported", evid),
               "give each occasion a subject identifier of its own", column_name("EVID"));
    return evid;
  }

  void take_covariates() {
    std::vector<double>& known = data_.subjects.back().segments.front().covariates;
    for (std::size_t k = 0; k < covariate_columns_.size(); ++k) {
      const std::optional<double> value = number_in(covariate_columns_[k]);
      if (!value) continue;
      if (std::isnan(known[k])) known[k] = *value;
      if (*value != known[k])
        throw at("E-DATA-COVARIATE",
                 fmt::format("the covariate changes from {} to {}", known[k], *value),
                 "a covariate must be constant in a subject", source_.covariates[k]);
    }
  }

  // An amount that would be passed over in silence.
  void refuse_amount() const {
    const double amount = number("AMT").value_or(0.0);
    if (amount != 0.0)
      throw at("E-DATA-DOSE", fmt::format("the record is no dose and has the amount {}", amount),
               "set EVID to 1 for a dose, or the amount to 0", column_name("AMT"));
  }

  void take_dose() {
    const std::optional<double> amount = number("AMT");
    if (!amount || *amount == 0.0)
      throw at("E-DATA-DOSE", "the dose record has no amount", "give AMT, or set EVID to 2",
               column_name("AMT"));
    if (*amount < 0.0)
      throw at("E-DATA-DOSE", fmt::format("the amount {} is negative", *amount),
               "amounts are above 0", column_name("AMT"));
    const int compartment = whole_number("CMT", 1);
    if (compartment < 1 || compartment > source_.compartments)
      throw at(
          "E-DATA-DOSE", fmt::format("compartment {} takes no doses", compartment),
          fmt::format("the model takes doses into compartment 1{}",
                      source_.compartments > 1 ? fmt::format(" to {}", source_.compartments) : ""),
          column_name("CMT"));
    if (number("DV").value_or(0.0) != 0.0) ++dv_on_dose_;
    append(
        data_.subjects.back(),
        dose{.time = time_, .amount = *amount, .compartment = compartment, .row = record_->line});
  }

  void take_observation() {
    subject& who = data_.subjects.back();
    const int missing = whole_number("MDV", 0);
    if (missing != 0 && missing != 1)
      throw at("E-DATA-EVENT", fmt::format("MDV {} has no meaning", missing),
               "1 leaves the observation out, 0 keeps it", column_name("MDV"));
    if (missing == 1) {
      ++data_.excluded;
      return;
    }
    const std::optional<double> value = number("DV");
    if (!value)
      throw at("E-DATA-MISSING", "the observation has no value",
               "set MDV to 1 to leave the record out", column_name("DV"));
    if (who.doses.empty())
      throw at("E-DATA-DOSE", "the observation stands before any dose of the subject",
               "put the dose before it, or set MDV to 1 to leave the record out");
    append(who, observation{.time = time_, .value = *value, .row = record_->line});
  }

  void warn(const std::string& code, const std::string& message) {
    warnings_.push_back(
        {.level = severity::warning, .code = code, .message = message, .file = source_.file});
  }

  void add_warnings() {
    if (data_.excluded > 0)
      warn("W-DATA-EXCLUDED",
           fmt::format("{} observation records are left out (MDV 1)", data_.excluded));
    if (without_observations_ > 0)
      warn("W-DATA-NO-OBSERVATION",
           fmt::format("{} subjects have no observations", without_observations_));
    if (dv_on_dose_ > 0)
      warn("W-DATA-DV-ON-DOSE",
           fmt::format("DV is not 0 on {} dose records and is ignored", dv_on_dose_));
  }

  const data_source& source_;
  findings& warnings_;
  csv_table table_;
  std::map<std::string, int> columns_;  // role -> position in a record, -1 where there is none
  std::vector<int> covariate_columns_;

  dataset data_;
  const csv_table::record* record_ = nullptr;
  std::string id_;
  double time_ = 0.0;
  bool has_time_ = false;
  int last_row_ = 0;
  std::map<std::string, int> last_rows_;  // subject -> its last row, for subjects gone by
  int without_observations_ = 0;
  int dv_on_dose_ = 0;
};

}  // namespace

void append(subject& to, const dose& given) {
  to.timeline.push_back({event_kind::dose, given.time, static_cast<int>(to.doses.size())});
  to.doses.push_back(given);
}

void append(subject& to, const observation& made) {
  to.timeline.push_back(
      {event_kind::observation, made.time, static_cast<int>(to.observations.size())});
  to.observations.push_back(made);
}

int dataset::observations() const {
  int count = 0;
  for (const subject& who : subjects) count += static_cast<int>(who.observations.size());
  return count;
}

int dataset::doses() const {
  int count = 0;
  for (const subject& who : subjects) count += static_cast<int>(who.doses.size());
  return count;
}

int dataset::occasions() const {
  int most = 0;
  for (const subject& who : subjects) most = std::max(most, who.occasions);
  return most;
}

dataset read_dataset(const data_source& source, findings& warnings) {
  return reader(source, warnings).read();
}

}  // namespace varda
