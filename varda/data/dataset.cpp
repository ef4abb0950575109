// SPDX-License-Identifier: Apache-2.0
#include "varda/data/dataset.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <span>
#include <utility>

#include "varda/data/columns.h"
#include "varda/data/csv.h"
#include "varda/data/oddities.h"
#include "varda/data/subject_reader.h"

namespace varda {

namespace {

// Reads the subjects of one file, in the order of the file.
class file_reader {
 public:
  file_reader(const data_source& source, const csv_table& table, findings& errors, std::size_t most)
      : source_(source), table_(table), columns_(source, table), errors_(errors), most_(most) {}

  dataset read() {
    data_.file = source_.file;
    data_.covariate_names = source_.covariates;
    data_.covariate_varies.assign(source_.covariates.size(), false);
    data_.records = static_cast<int>(table_.records.size());
    std::span<const csv_table::record> rest = table_.records;
    while (!rest.empty() && errors_.size() < most_) {
      const std::string id = record_view(columns_, rest.front()).id();
      const auto end = std::find_if(rest.begin(), rest.end(), [&](const csv_table::record& r) {
        return record_view(columns_, r).id() != id;
      });
      const auto count = static_cast<std::size_t>(end - rest.begin());
      take(rest.first(count));
      rest = rest.subspan(count);
    }
    if (errors_.empty()) check_whole();
    return std::move(data_);
  }

  findings warnings() const { return odd_.warnings(); }

 private:
  void take(std::span<const csv_table::record> records) {
    const record_view first(columns_, records.front());
    const auto [seen, is_new] = last_rows_.try_emplace(first.id(), 0);
    // Records without an identifier are refused one by one.
    if (!is_new && !is_missing(first.id())) {
      refuse(first
                 .error("E-DATA-SUBJECT",
                        fmt::format("the subject returns after another one; its earlier records "
                                    "end in row {}",
                                    seen->second),
                        "keep the records of a subject together", role::id)
                 .what_found());
      return;
    }
    seen->second = records.back().line;
    subject_reader reader(columns_, records, odd_);
    data_.subjects.push_back(reader.read([this](const finding& f) { return refuse(f); }));
    data_.dose_records += reader.dose_records();
    data_.excluded += reader.excluded();
    note(data_.subjects.back());
  }

  void note(const subject& who) {
    const finding place{.file = source_.file, .row = who.first_row, .subject = who.id};
    for (std::size_t k = 0; k < data_.covariate_varies.size(); ++k)
      for (const segment& s : who.segments)
        if (s.covariates[k] != who.segments.front().covariates[k]) data_.covariate_varies[k] = true;
    if (who.observations.empty())
      odd_.count("W-DATA-NO-OBSERVATION", "subjects have no observations", "", place);
  }

  // Whether there is room for more.
  bool refuse(const finding& what) {
    errors_.push_back(what);
    return errors_.size() < most_;
  }

  void check_whole() {
    const auto empty = [this](const std::string& message, const std::string& remedy) {
      refuse({.code = "E-DATA-EMPTY", .message = message, .remedy = remedy, .file = source_.file});
    };
    if (data_.subjects.empty())
      empty("the data file holds no records",
            "it needs one row per dose and observation under its header");
    else if (data_.observations() == 0)
      empty("the data file holds no observation that counts",
            "check EVID and MDV: an observation has 0 in both");
    if (data_.dose_records == 0) return;
    for (const subject& who : data_.subjects)
      if (who.doses.empty())
        odd_.count("W-DATA-NO-DOSE", "subjects have no dose", "",
                   {.file = source_.file, .row = who.first_row, .subject = who.id});
  }

  const data_source& source_;
  const csv_table& table_;
  column_map columns_;
  findings& errors_;
  std::size_t most_;
  oddities odd_;
  dataset data_;
  std::map<std::string, int> last_rows_;  // subject -> its last row
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

dataset inspect_dataset(const data_source& source, findings& warnings, findings& errors,
                        std::size_t most, const file_access& text_of) {
  findings wrong;
  dataset data;
  try {
    const csv_table table = read_csv(source.file, wrong, text_of);
    // With rows missing, what is said about their subjects would mislead.
    if (wrong.empty()) {
      file_reader reader(source, table, wrong, most);
      data = reader.read();
      const findings odd = reader.warnings();
      warnings.insert(warnings.end(), odd.begin(), odd.end());
    }
  } catch (const bad_input& error) {
    wrong.assign(1, error.what_found());
  }
  wrong.resize(std::min(wrong.size(), most));
  errors.insert(errors.end(), wrong.begin(), wrong.end());
  return data;
}

dataset read_dataset(const data_source& source, findings& warnings, const file_access& text_of) {
  findings errors;
  dataset data = inspect_dataset(source, warnings, errors, 1, text_of);
  if (!errors.empty()) throw bad_input(errors.front());
  return data;
}

}  // namespace varda
