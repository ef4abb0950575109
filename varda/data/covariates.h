// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "varda/data/columns.h"
#include "varda/data/dataset.h"

namespace varda {

// The covariates and the occasion of a subject from record to record. A value holds from its record
// on until the next one; before the first value the first one holds.
class covariate_path {
 public:
  // `records`: all of the subject's.
  covariate_path(const column_map& columns, std::span<const csv_table::record> records);

  // The segment that begins with a record, or nothing where the record changes nothing. Throws
  // bad_input at a value that is no number.
  std::optional<segment> next(const record_view& from, double time);

  const segment& in_force() const { return in_force_; }
  int occasions() const { return static_cast<int>(occasions_.size()); }
  // Position of a covariate without any value in the subject, or -1.
  int without_value() const;

 private:
  segment in_force_;
  std::vector<double> occasions_;  // values of OCC in the order of their first appearance
};

}  // namespace varda
