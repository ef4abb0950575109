// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "varda/data/csv.h"
#include "varda/data/dataset.h"
#include "varda/support/finding.h"

namespace varda {

// Columns with a meaning of their own, in the order of data_roles().
enum class role {
  id,
  time,
  dv,
  amt,
  evid,
  mdv,
  cmt,
  rate,
  dur,
  ii,
  addl,
  ss,
  dvid,
  cens,
  limit,
  occ
};

// Where the roles and the covariates of a model stand in a table.
class column_map {
 public:
  // Throws bad_input when a column is missing that the model, or data_source::columns, asks for.
  // Both arguments must outlive the map.
  column_map(const data_source& source, const csv_table& table);

  const data_source& model() const { return source_; }
  const std::string& file() const { return table_.file; }
  int position_of(role of) const { return roles_[static_cast<std::size_t>(of)]; }  // -1: none
  int position_of_covariate(std::size_t k) const { return covariates_[k]; }
  bool may_be_text(std::size_t covariate) const { return texts_[covariate]; }
  std::size_t covariates() const { return covariates_.size(); }
  const std::string& name_at(int position) const {
    return table_.header[static_cast<std::size_t>(position)];
  }
  std::string name_of(role of) const;  // as the file writes it
  // Columns that mean nothing and are one slip away from the name of a role that the file does not
  // have, each with that name: two letters exchanged, one too many or too few. A letter in place of
  // another may well be another word (RACE).
  std::vector<std::pair<std::string, std::string>> misspelt() const;

 private:
  int find(const std::string& name) const;
  bad_input no_column(const std::string& name) const;

  const data_source& source_;
  const csv_table& table_;
  std::vector<int> roles_;
  std::vector<int> covariates_;
  std::vector<bool> texts_;
};

// One record, read by role.
class record_view {
 public:
  // Both arguments must outlive the view.
  record_view(const column_map& columns, const csv_table::record& fields)
      : columns_(&columns), fields_(&fields) {}

  int row() const { return fields_->line; }
  std::string_view id() const;
  const data_source& model() const { return columns_->model(); }

  // The number in a column, nothing where it is missing or the file has no such column. Throws
  // bad_input at text and at numbers that are not finite, or not whole for the last one. Where
  // texts are levels, as in covariates that may be text, they are level_number().
  std::optional<double> number(role of) const;
  double number_or(role of, double fallback) const { return number(of).value_or(fallback); }
  std::optional<double> covariate(std::size_t k) const;
  std::optional<double> level(role of) const;
  int whole_number_or(role of, int fallback) const;

  // The field of a role, "" where the file has no such column.
  std::string_view text(role of) const;

  // An error at this record, in the column of a role or in no column.
  bad_input error(const std::string& code, const std::string& message, const std::string& remedy,
                  std::optional<role> at = std::nullopt) const;

 private:
  std::string_view field(int position) const {
    return fields_->fields[static_cast<std::size_t>(position)];
  }
  std::optional<double> number_at(int position, const std::string& remedy) const;
  std::optional<double> level_at(int position) const;

  const column_map* columns_;
  const csv_table::record* fields_;
};

}  // namespace varda
