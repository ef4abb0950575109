// SPDX-License-Identifier: Apache-2.0
#include "varda/data/dataset.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <span>
#include <utility>

#include "varda/data/columns.h"
#include "varda/data/csv.h"
#include "varda/data/levels.h"
#include "varda/data/oddities.h"
#include "varda/data/refusals.h"
#include "varda/data/row_rules.h"
#include "varda/data/subject_reader.h"
#include "varda/support/text.h"

namespace varda {

namespace {

// Reads the subjects of one file, in the order of the file.
class file_reader {
 public:
  file_reader(const data_source& source, const csv_table& table, refusals& errors)
      : source_(source), table_(table), columns_(source, table), errors_(errors) {}

  dataset read() {
    data_.file = source_.file;
    data_.covariate_names = source_.covariates;
    data_.covariate_varies.assign(source_.covariates.size(), false);
    data_.records = static_cast<int>(table_.records());
    for (const auto& [column, role] : columns_.misspelt())
      odd_.say("W-DATA-COLUMN", fmt::format("the column {} has no meaning", column),
               "did you mean " + role + "? Rename it, or name it in data.columns",
               {.file = source_.file, .row = table_.header_line, .column = column});
    for (std::size_t k = 0; k < source_.covariates.size(); ++k)
      if (columns_.may_be_text(k)) find_levels(k);
    const std::vector<std::size_t> ends = ends_of_subjects();
    data_.subjects.reserve(ends.size());
    std::vector<csv_table::record> own;
    std::size_t next = 0;
    for (const std::size_t end : ends) {
      own.clear();
      for (; next < end; ++next) own.push_back(table_.at(next));
      take(own);
    }
    if (errors_.empty()) check_whole();
    return std::move(data_);
  }

  findings warnings() const { return odd_.warnings(); }

 private:
  // For each stretch of records with the same identifier the position behind its last one.
  std::vector<std::size_t> ends_of_subjects() const {
    const auto column = static_cast<std::size_t>(columns_.position_of(role::id));
    std::vector<std::size_t> ends;
    std::string_view id;
    for (std::size_t i = 0; i < table_.records(); ++i) {
      const std::string_view here = table_.field(i, column);
      if (i > 0 && here != id) ends.push_back(i);
      id = here;
    }
    if (table_.records() > 0) ends.push_back(table_.records());
    return ends;
  }

  // Lists the levels of a covariate. Two that differ in case alone are probably one, and a formula
  // that names one that does not occur is always false.
  void find_levels(std::size_t k) {
    const auto column = static_cast<std::size_t>(columns_.position_of_covariate(k));
    const finding place{.file = source_.file,
                        .row = table_.header_line,
                        .column = columns_.name_at(columns_.position_of_covariate(k))};
    std::set<std::string> seen;
    for (std::size_t i = 0; i < table_.records(); ++i) {
      const std::string_view text = table_.field(i, column);
      if (!is_missing(text) && is_utf8(text)) seen.emplace(text);
    }
    std::set<double> numbers;
    std::map<std::string, std::string> folded;
    for (const std::string& text : seen) {
      const double number = level_number(text);
      numbers.insert(number);
      if (!is_text_level(number)) continue;
      data_.levels[number] = text;
      const auto [like, is_new] = folded.try_emplace(lower_case(text), text);
      if (!is_new)
        odd_.say("W-DATA-LEVEL", fmt::format("{} and {} are two levels", like->second, text),
                 "write them alike if they are one", place);
    }
    const std::vector<std::string> known(seen.begin(), seen.end());
    for (const std::string& named : source_.uses.at(source_.covariates[k]).levels) {
      if (numbers.contains(level_number(named))) continue;
      const std::string near = did_you_mean(named, known);
      odd_.say(
          "W-DATA-LEVEL", fmt::format("a formula names the level {}, which no record has", named),
          near.empty()
              ? known.size() <= 20 ? fmt::format("the levels are {}", fmt::join(known, ", ")) : ""
              : "did you mean " + near + "?",
          place);
    }
  }

  void take(std::span<const csv_table::record> records) {
    const record_view first(columns_, records.front());
    const auto [seen, is_new] = last_rows_.try_emplace(first.id(), 0);
    // Records without an identifier are refused one by one.
    if (!is_new && !is_missing(first.id())) {
      errors_.add(first
                      .error("E-DATA-SUBJECT",
                             fmt::format("the subject returns after another one; its earlier "
                                         "records end in row {}",
                                         seen->second),
                             "keep the records of a subject together", role::id)
                      .what_found());
      return;
    }
    seen->second = records.back().line;
    subject_reader reader(columns_, records, odd_);
    data_.subjects.push_back(reader.read([this](const finding& f) { errors_.add(f); }));
    data_.dose_records += reader.dose_records();
    data_.excluded += reader.excluded();
    note(data_.subjects.back(), reader.refused());
  }

  void note(const subject& who, bool refused) {
    const finding place{.file = source_.file, .row = who.first_row, .subject = who.id};
    for (std::size_t k = 0; k < data_.covariate_varies.size(); ++k)
      for (const segment& s : who.segments)
        if (s.covariates[k] != who.segments.front().covariates[k]) data_.covariate_varies[k] = true;
    if (who.observations.empty() && !refused)
      odd_.count("W-DATA-NO-OBSERVATION",
                 {"subject has no observations", "subjects have no observations"}, "", place);
  }

  void check_whole() {
    const auto empty = [this](const std::string& message, const std::string& remedy) {
      errors_.add(
          {.code = "E-DATA-EMPTY", .message = message, .remedy = remedy, .file = source_.file});
    };
    if (data_.subjects.empty())
      empty("the data file holds no records",
            source_.keep.empty() && source_.drop.empty()
                ? "it needs one row per dose and observation under its header"
                : "check data.keep and data.drop");
    else if (data_.observations() == 0)
      empty("the data file holds no observation that counts",
            "check EVID and MDV: an observation has 0 in both");
    if (data_.dose_records == 0) return;
    for (const subject& who : data_.subjects)
      if (who.doses.empty())
        odd_.count("W-DATA-NO-DOSE", {"subject has no dose", "subjects have no dose"}, "",
                   {.file = source_.file, .row = who.first_row, .subject = who.id});
  }

  const data_source& source_;
  const csv_table& table_;
  column_map columns_;
  refusals& errors_;
  oddities odd_;
  dataset data_;
  std::map<std::string_view, int> last_rows_;  // subject, in the table -> its last row
};

template <class Count>
int sum_over(const std::vector<subject>& subjects, Count count) {
  int sum = 0;
  for (const subject& who : subjects) sum += static_cast<int>(count(who));
  return sum;
}

}  // namespace

int dataset::observations() const {
  return sum_over(subjects, [](const subject& who) { return who.observations.size(); });
}

int dataset::observations_of(int endpoint) const {
  return sum_over(subjects, [endpoint](const subject& who) {
    return std::count_if(who.observations.begin(), who.observations.end(),
                         [=](const observation& o) { return o.endpoint == endpoint; });
  });
}

int dataset::censored_of(int endpoint) const {
  return sum_over(subjects, [endpoint](const subject& who) {
    return std::count_if(who.observations.begin(), who.observations.end(),
                         [=](const observation& o) {
                           return o.endpoint == endpoint && o.censored != censoring::none;
                         });
  });
}

int dataset::doses() const {
  return sum_over(subjects, [](const subject& who) { return who.doses.size(); });
}

int dataset::occasions() const {
  int most = 0;
  for (const subject& who : subjects) most = std::max(most, who.occasions);
  return most;
}

std::string dataset::covariate_text(double value) const {
  const auto text = levels.find(value);
  return text == levels.end() ? fmt::format("{}", value) : text->second;
}

bool dataset::is_text_covariate(std::size_t k) const {
  return std::any_of(subjects.begin(), subjects.end(), [&](const subject& who) {
    return std::any_of(who.segments.begin(), who.segments.end(),
                       [&](const segment& s) { return levels.contains(s.covariates[k]); });
  });
}

dataset inspect_dataset(const data_source& source, findings& warnings, findings& errors,
                        std::size_t most, const file_access& text_of) {
  refusals causes(most);
  dataset data;
  try {
    findings rows;
    csv_table table = read_csv(source.file, rows, text_of);
    for (const finding& row : rows) causes.add(row);
    // With rows missing, what is said about their subjects would mislead.
    if (rows.empty()) {
      const int left_out = apply_row_rules(source, table, causes);
      file_reader reader(source, table, causes);
      data = reader.read();
      data.left_out = left_out;
      const findings odd = reader.warnings();
      warnings.insert(warnings.end(), odd.begin(), odd.end());
    }
  } catch (const bad_input& error) {
    causes = refusals(most);
    causes.add(error.what_found());
  }
  const findings wrong = causes.errors();
  errors.insert(errors.end(), wrong.begin(), wrong.end());
  return data;
}

dataset read_dataset(const data_source& source, findings& warnings, const file_access& text_of) {
  findings errors;
  dataset data = inspect_dataset(source, warnings, errors, most_data_errors, text_of);
  if (!errors.empty()) throw bad_input(errors.front());
  return data;
}

}  // namespace varda
