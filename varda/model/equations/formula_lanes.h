// SPDX-License-Identifier: Apache-2.0
//
// The formulas of a model at the parameters of many individuals of one subject.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "varda/data/dataset.h"
#include "varda/model/equations/bound_section.h"
#include "varda/model/equations/formula_program.h"
#include "varda/model/lanes/array.h"
#include "varda/model/lanes/kernel.h"
#include "varda/model/structural_model.h"

namespace varda {

// A dose that sums run over.
struct summed_dose {
  double time = 0.0;
  double amount = 0.0;
  bool operator==(const summed_dose&) const = default;
};

// The largest dose of a subject, or 1 where it has none with an amount.
double largest_dose(const subject& who);

// What formulas can know besides parameters, time and states.
struct epoch {
  int segment = 0;
  bool dosed = false;
  double dose_time = 0.0;
  double dose = 0.0;
  std::vector<summed_dose> summed{};  // only where the program has sums
};

// An observation, and the states where its risk began and at its limit; null where all are 0.
struct observed_row {
  const observation* at = nullptr;
  const double* begin = nullptr;
  const double* limit = nullptr;
};

// Rows of numbers have one for each individual, stride() apart where there are several.
class formula_lanes {
 public:
  // `program` must outlive this.
  formula_lanes(const formula_program& program, const lane_kernel& kernel);

  // Takes up `count` individuals from `first` on. `positions` tells where each of the program's
  // covariates stands in a segment's.
  void begin(const subject& who, const parameter_block& p, std::size_t first, std::size_t count,
             const std::vector<int>& positions);
  std::size_t count() const { return count_; }
  std::size_t stride() const { return stride_; }

  // The table of constants of an epoch, computed unless an earlier one is the same.
  std::size_t table_of(const epoch& now);
  const double* table(std::size_t k) const { return tables_[k].rows.data(); }
  std::size_t tables() const { return used_tables_; }

  // The output that the observation asks for, at its time.
  void output(const observed_row& of, std::size_t table, const double* states, double* row);
  void derivatives(std::size_t table, double time, const double* states, double* slopes);
  void initial(const epoch& now, double time, double* rows);
  // Only where the program has it.
  void of_dose(dose_property what, std::size_t state, const epoch& now, double time, double* row);

 private:
  static constexpr std::size_t block = 64;
  struct constants_table {
    epoch of;
    std::vector<double> covariates;
    lane_array rows;
  };

  bool same(const constants_table& table, const epoch& now) const;
  std::size_t set_of(int segment) const {
    return sets_ == 1 ? 0 : static_cast<std::size_t>(segment);
  }
  void set_common(const epoch& now, double time);
  void from_inputs(bound_section& section, const epoch& now, double time,
                   const std::vector<double*>& rows);
  void from_constants(bound_section& section, std::size_t table, double time, const double* states,
                      const observed_row& of, double* rows, std::size_t results);
  // Blocks behind those of the covariates.
  enum common_row : std::size_t {
    dose_row,
    dosed_row,
    dose_time_row,
    time_row,
    scale_row,
    observed_value_row,
    log_factorial_row,
    censoring_row,
    begin_time_row,
    limit_time_row,
    zero_row,
    common_rows
  };
  double* common(common_row row) {
    return common_.data() + (program_.covariates().size() + row) * block;
  }
  // Amount (0), whether there is one (1) and time (2) of a dose that sums run over.
  double* summed(std::size_t dose, std::size_t what) {
    return common_.data() + (program_.covariates().size() + common_rows + 3 * dose + what) * block;
  }
  void fill_common(common_row row, double value) { std::fill_n(common(row), block, value); }
  void set_row(const observation& at);

  const formula_program& program_;
  const lane_kernel& kernel_;
  bound_section constant_section_;
  bound_section derivative_section_;
  bound_section initial_section_;
  std::vector<bound_section> outputs_;
  std::vector<std::vector<bound_section>> dosing_;  // by property and state; may be empty sections

  const subject* who_ = nullptr;
  const std::vector<int>* positions_ = nullptr;
  std::size_t count_ = 0;
  std::size_t stride_ = 0;
  std::size_t sets_ = 0;
  double scale_ = 1.0;
  lane_array parameters_;
  // Blocks of covariates, then common_rows, then three of each dose that sums run over.
  lane_array common_;
  std::vector<constants_table> tables_;
  std::size_t used_tables_ = 0;
};

}  // namespace varda
