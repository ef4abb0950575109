// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/formula_lanes.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "statsubs/distributions/gamma.h"

namespace varda {

namespace {

double log_factorial(double n) {
  constexpr std::size_t known = 256;
  static const std::array<double, known> table = [] {
    std::array<double, known> sums{};
    for (std::size_t k = 1; k < known; ++k)
      sums[k] = static_cast<double>(statsubs::gamln(static_cast<double>(k + 1)));
    return sums;
  }();
  if (!(n >= 0.0)) return 0.0;
  if (n < static_cast<double>(known)) return table[static_cast<std::size_t>(n)];
  return statsubs::gamln(n + 1.0);
}

}  // namespace

double largest_dose(const subject& who) {
  double largest = 0.0;
  for (const dose& d : who.doses) largest = std::max(largest, std::fabs(d.amount));
  return largest > 0.0 ? largest : 1.0;
}

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
  common_.fill((program.covariates().size() + common_rows + 3 * program.summed_doses()) * block,
               0.0);
}

void formula_lanes::begin(const subject& who, const parameter_block& p, std::size_t first,
                          std::size_t count, const std::vector<int>& positions) {
  who_ = &who;
  positions_ = &positions;
  count_ = count;
  stride_ = whole_lanes(count);
  sets_ = p.sets;
  used_tables_ = 0;
  if (program_.integrates_hazards()) scale_ = largest_dose(who);
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

void formula_lanes::set_common(const epoch& now, double time) {
  const std::size_t covariates = program_.covariates().size();
  for (std::size_t k = 0; k < covariates; ++k)
    std::fill_n(common_.data() + k * block, block,
                who_->segments[static_cast<std::size_t>(now.segment)]
                    .covariates[static_cast<std::size_t>((*positions_)[k])]);
  fill_common(dose_row, now.dose);
  fill_common(dosed_row, now.dosed ? 1.0 : 0.0);
  fill_common(dose_time_row, now.dose_time);
  fill_common(time_row, time);
  fill_common(scale_row, scale_);
  for (std::size_t k = 0; k < program_.summed_doses(); ++k) {
    const bool given = k < now.summed.size();
    std::fill_n(summed(k, 0), block, given ? now.summed[k].amount : 0.0);
    std::fill_n(summed(k, 1), block, given ? 1.0 : 0.0);
    std::fill_n(summed(k, 2), block, given ? now.summed[k].time : 0.0);
  }
}

void formula_lanes::set_row(const observation& at) {
  fill_common(observed_value_row, at.value);
  fill_common(log_factorial_row, log_factorial(at.value));
  fill_common(censoring_row, static_cast<double>(at.censored));
  fill_common(begin_time_row, at.begin);
  fill_common(limit_time_row, at.limit);
}

void formula_lanes::from_inputs(bound_section& section, const epoch& now, double time,
                                const std::vector<double*>& rows) {
  set_common(now, time);
  const double* const parameters =
      parameters_.data() + set_of(now.segment) * program_.parameters().size() * stride_;
  for (std::size_t lane = 0; lane < stride_; lane += block) {
    section.read_from([&](const leaf& l) -> const double* {
      switch (l.kind) {
        case leaf_kind::parameter:
          return parameters + l.index * stride_ + lane;
        case leaf_kind::covariate:
          return common_.data() + l.index * block;
        case leaf_kind::dose:
          return common(dose_row);
        case leaf_kind::dosed:
          return common(dosed_row);
        case leaf_kind::dose_time:
          return common(dose_time_row);
        case leaf_kind::scale:
          return common(scale_row);
        case leaf_kind::summed_dose:
          return summed(l.index, 0);
        case leaf_kind::summed_dosed:
          return summed(l.index, 1);
        case leaf_kind::summed_dose_time:
          return summed(l.index, 2);
        default:
          return common(time_row);
      }
    });
    for (std::size_t k = 0; k < rows.size(); ++k) section.write_to(k, rows[k] + lane);
    section.run(kernel_, std::min(block, stride_ - lane));
  }
}

void formula_lanes::from_constants(bound_section& section, std::size_t table, double time,
                                   const double* states, const observed_row& of, double* rows,
                                   std::size_t results) {
  fill_common(time_row, time);
  const double* const constants = tables_[table].rows.data();
  const auto state = [&](const double* some, std::size_t index, std::size_t lane) {
    return some == nullptr ? common(zero_row) : some + index * stride_ + lane;
  };
  for (std::size_t lane = 0; lane < stride_; lane += block) {
    section.read_from([&](const leaf& l) -> const double* {
      switch (l.kind) {
        case leaf_kind::constant:
          return constants + l.index * stride_ + lane;
        case leaf_kind::state:
          return states + l.index * stride_ + lane;
        case leaf_kind::begin_state:
          return state(of.begin, l.index, lane);
        case leaf_kind::limit_state:
          return state(of.limit, l.index, lane);
        case leaf_kind::observed:
          return common(observed_value_row);
        case leaf_kind::log_factorial:
          return common(log_factorial_row);
        case leaf_kind::censoring:
          return common(censoring_row);
        case leaf_kind::begin_time:
          return common(begin_time_row);
        case leaf_kind::limit_time:
          return common(limit_time_row);
        default:
          return common(time_row);
      }
    });
    for (std::size_t k = 0; k < results; ++k) section.write_to(k, rows + k * stride_ + lane);
    section.run(kernel_, std::min(block, stride_ - lane));
  }
}

void formula_lanes::output(const observed_row& of, std::size_t table, const double* states,
                           double* row) {
  if (!program_.has_normal_endpoints_alone()) set_row(*of.at);
  from_constants(outputs_[program_.output_of(*of.at)], table, of.at->time, states, of, row, 1);
}

void formula_lanes::derivatives(std::size_t table, double time, const double* states,
                                double* slopes) {
  from_constants(derivative_section_, table, time, states, {}, slopes, program_.states().size());
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
