// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/formula_lanes.h"

#include <algorithm>

namespace varda {

formula_lanes::formula_lanes(const formula_program& program, const lane_kernel& kernel)
    : program_(program),
      kernel_(kernel),
      constant_section_(program.constant_section(), block),
      derivative_section_(program.derivatives(), block),
      initial_section_(program.initial(), block) {
  for (std::size_t k = 0; k < program.outputs().size(); ++k)
    outputs_.emplace_back(program.output(k), block);
  static const compiled_section nothing;
  for (std::size_t p = 0; p < dose_properties; ++p) {
    const auto what = static_cast<dose_property>(p);
    std::vector<bound_section>& sections = dosing_.emplace_back();
    for (std::size_t s = 0; s < program.states().size(); ++s)
      sections.emplace_back(program.has(what, s) ? program.of_dose(what, s) : nothing, block);
  }
  common_.fill((program.covariates().size() + 4 + 3 * program.summed_doses()) * block, 0.0);
}

void formula_lanes::begin(const subject& who, const parameter_block& p, std::size_t first,
                          std::size_t count, const std::vector<int>& positions) {
  who_ = &who;
  positions_ = &positions;
  count_ = count;
  stride_ = whole_lanes(count);
  sets_ = p.sets;
  used_tables_ = 0;
  const std::size_t rows = p.sets * p.parameters;
  parameters_.reserve(rows * stride_);
  for (std::size_t row = 0; row < rows; ++row) {
    const double* from = p.values + row * p.stride + first;
    double* to = parameters_.data() + row * stride_;
    std::copy(from, from + count, to);
    std::fill(to + count, to + stride_, from[count - 1]);
  }
}

bool formula_lanes::same(const constants_table& table, const epoch& now) const {
  const epoch& of = table.of;
  if (set_of(of.segment) != set_of(now.segment)) return false;
  if (program_.constants_know_dose() && of.dose != now.dose) return false;
  if (program_.constants_know_dose_time() &&
      (of.dosed != now.dosed || of.dose_time != now.dose_time))
    return false;
  if (of.summed != now.summed) return false;
  const std::vector<double>& covariates =
      who_->segments[static_cast<std::size_t>(now.segment)].covariates;
  for (std::size_t k = 0; k < positions_->size(); ++k)
    if (table.covariates[k] != covariates[static_cast<std::size_t>((*positions_)[k])]) return false;
  return true;
}

std::size_t formula_lanes::table_of(const epoch& now) {
  for (std::size_t k = used_tables_; k-- > 0;)
    if (same(tables_[k], now)) return k;
  if (used_tables_ == tables_.size()) tables_.emplace_back();
  constants_table& table = tables_[used_tables_];
  table.of = now;
  table.covariates.clear();
  for (const int position : *positions_)
    table.covariates.push_back(who_->segments[static_cast<std::size_t>(now.segment)]
                                   .covariates[static_cast<std::size_t>(position)]);
  table.rows.reserve(program_.constants() * stride_);
  std::vector<double*> rows;
  for (std::size_t c = 0; c < program_.constants(); ++c)
    rows.push_back(table.rows.data() + c * stride_);
  from_inputs(constant_section_, now, 0.0, rows);
  return used_tables_++;
}

void formula_lanes::fill_common(std::size_t row, double value) {
  std::fill(common_.data() + row * block, common_.data() + (row + 1) * block, value);
}

void formula_lanes::set_common(const epoch& now, double time) {
  const std::size_t first = program_.covariates().size();
  for (std::size_t k = 0; k < first; ++k)
    fill_common(k, who_->segments[static_cast<std::size_t>(now.segment)]
                       .covariates[static_cast<std::size_t>((*positions_)[k])]);
  fill_common(first, now.dose);
  fill_common(first + 1, now.dosed ? 1.0 : 0.0);
  fill_common(first + 2, now.dose_time);
  fill_common(first + 3, time);
  for (std::size_t k = 0; k < program_.summed_doses(); ++k) {
    const bool given = k < now.summed.size();
    const std::size_t row = first + 4 + 3 * k;
    fill_common(row, given ? now.summed[k].amount : 0.0);
    fill_common(row + 1, given ? 1.0 : 0.0);
    fill_common(row + 2, given ? now.summed[k].time : 0.0);
  }
}

void formula_lanes::from_inputs(bound_section& section, const epoch& now, double time,
                                const std::vector<double*>& rows) {
  set_common(now, time);
  const double* const parameters =
      parameters_.data() + set_of(now.segment) * program_.parameters().size() * stride_;
  const std::size_t first = program_.covariates().size();
  for (std::size_t lane = 0; lane < stride_; lane += block) {
    section.read_from([&](const leaf& l) -> const double* {
      switch (l.kind) {
        case leaf_kind::parameter:
          return parameters + l.index * stride_ + lane;
        case leaf_kind::covariate:
          return common_.data() + l.index * block;
        case leaf_kind::dose:
          return common_.data() + first * block;
        case leaf_kind::dosed:
          return common_.data() + (first + 1) * block;
        case leaf_kind::dose_time:
          return common_.data() + (first + 2) * block;
        case leaf_kind::summed_dose:
          return common_.data() + (first + 4 + 3 * l.index) * block;
        case leaf_kind::summed_dosed:
          return common_.data() + (first + 5 + 3 * l.index) * block;
        case leaf_kind::summed_dose_time:
          return common_.data() + (first + 6 + 3 * l.index) * block;
        default:
          return common_.data() + (first + 3) * block;
      }
    });
    for (std::size_t k = 0; k < rows.size(); ++k) section.write_to(k, rows[k] + lane);
    section.run(kernel_, std::min(block, stride_ - lane));
  }
}

void formula_lanes::from_constants(bound_section& section, std::size_t table, double time,
                                   const double* states, double* rows, std::size_t results) {
  const std::size_t time_row = program_.covariates().size() + 3;
  fill_common(time_row, time);
  const double* const constants = tables_[table].rows.data();
  for (std::size_t lane = 0; lane < stride_; lane += block) {
    section.read_from([&](const leaf& l) -> const double* {
      switch (l.kind) {
        case leaf_kind::constant:
          return constants + l.index * stride_ + lane;
        case leaf_kind::state:
          return states + l.index * stride_ + lane;
        default:
          return common_.data() + time_row * block;
      }
    });
    for (std::size_t k = 0; k < results; ++k) section.write_to(k, rows + k * stride_ + lane);
    section.run(kernel_, std::min(block, stride_ - lane));
  }
}

void formula_lanes::output(std::size_t k, std::size_t table, double time, const double* states,
                           double* row) {
  from_constants(outputs_[k], table, time, states, row, 1);
}

void formula_lanes::derivatives(std::size_t table, double time, const double* states,
                                double* slopes) {
  from_constants(derivative_section_, table, time, states, slopes, program_.states().size());
}

void formula_lanes::initial(const epoch& now, double time, double* rows) {
  std::fill(rows, rows + program_.states().size() * stride_, 0.0);
  std::vector<double*> places;
  for (const std::size_t state : program_.initial_states())
    places.push_back(rows + state * stride_);
  if (!places.empty()) from_inputs(initial_section_, now, time, places);
}

void formula_lanes::of_dose(dose_property what, std::size_t state, const epoch& now, double time,
                            double* row) {
  from_inputs(dosing_[static_cast<std::size_t>(what)][state], now, time, {row});
}

}  // namespace varda
