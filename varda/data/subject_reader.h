// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <span>

#include "varda/data/columns.h"
#include "varda/data/covariates.h"
#include "varda/data/dataset.h"
#include "varda/data/doses.h"
#include "varda/data/oddities.h"

namespace varda {

// Makes a subject of its records, one after the other.
class subject_reader {
 public:
  // `records`: all of the subject's, one at least. The arguments must outlive the reader.
  subject_reader(const column_map& columns, std::span<const csv_table::record> records,
                 oddities& odd);

  // Reads everything. What is wrong with a record, or with the whole, goes to `refuse`.
  subject read(const std::function<void(const finding&)>& refuse);

  int dose_records() const { return dose_records_; }
  int excluded() const { return excluded_; }
  // Whether a record was refused.
  bool refused() const { return refused_; }

 private:
  void take(const record_view& from);
  void find_infusions();
  double clock(const record_view& from, bool resets);
  void enter_segment(const record_view& from, double time);
  void give_due(double time);
  void reset(double time);
  void take_dose(const record_view& from, double time);
  void take_observation(const record_view& from, double time);
  void check_whole() const;

  const column_map& columns_;
  std::span<const csv_table::record> records_;
  oddities& odd_;
  covariate_path covariates_;
  additional_doses waiting_;
  subject made_;
  bool started_ = false;
  bool refused_ = false;    // a record, which may hold what the others lack
  double file_time_ = 0.0;  // of the record before
  double offset_ = 0.0;     // the subject's clock less TIME
  int dose_records_ = 0;
  int excluded_ = 0;
  // By row, of infusions whose rate stands in AMT: how long those last that begin there; -1 where
  // one ends.
  std::map<int, double> infusions_;
};

}  // namespace varda
