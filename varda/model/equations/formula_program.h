// SPDX-License-Identifier: Apache-2.0
//
// All formulas of a model, compiled over lanes. What depends on neither time nor states is
// constant between two doses and segments: it is computed once for them, and what the other
// sections need of it are the program's constants.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "varda/data/observation.h"
#include "varda/model/equations/formula_error.h"
#include "varda/model/lanes/graph.h"
#include "varda/model/lanes/section.h"
#include "varda/model/specification.h"

namespace varda {

// What a formula can tell about the doses into a state.
enum class dose_property { lag, bioavailability, rate, duration };
inline constexpr std::size_t dose_properties = 4;

// What a register that a section reads holds.
enum class leaf_kind {
  number,
  parameter,
  covariate,
  dose,
  dosed,
  dose_time,
  summed_dose,  // of the doses that sums run over, the index-th, like the next two
  summed_dosed,
  summed_dose_time,
  scale,  // of the subject: its largest dose, or 1
  constant,
  time,
  state,
  // Of an observation: its value with the logarithm of that's factorial, what is known of it, and
  // the time and states where its risk began and at its limit.
  observed,
  log_factorial,
  censoring,
  begin_time,
  limit_time,
  begin_state,
  limit_state
};
struct leaf {
  leaf_kind kind = leaf_kind::number;
  std::size_t index = 0;
  double number = 0.0;
};

struct compiled_section {
  lane_section code;
  std::vector<leaf> leaves;
};

// dx/dt = A x + b: positions among the constants, where an entry is not 0.
struct linear_system {
  std::vector<std::optional<std::size_t>> a;  // by rows
  std::vector<std::optional<std::size_t>> b;
};

class formula_program {
 public:
  // Throws formula_error. Names that are neither parameters nor defined are covariates.
  explicit formula_program(const equation_text& text);

  // The parameters that formulas use, in the order in which they were offered.
  const std::vector<std::string>& parameters() const { return parameters_; }
  const std::vector<std::string>& covariates() const { return covariates_; }
  const std::vector<std::string>& states() const { return states_; }
  // What the model file calls outputs, then the quantities of endpoints that are not normal.
  const std::vector<std::string>& outputs() const { return output_names_; }
  std::size_t named_outputs() const { return named_outputs_; }
  bool has_normal_endpoints_alone() const { return first_outputs_.empty(); }
  // The output that an observation asks for.
  std::size_t output_of(const observation& at) const {
    const auto endpoint = static_cast<std::size_t>(at.endpoint);
    if (!first_outputs_.empty())
      return first_outputs_[endpoint] + static_cast<std::size_t>(at.quantity);
    return named_outputs_ == 1 ? 0 : endpoint;
  }
  // Whether an output has no formula; it is NaN for everybody.
  bool is_unknown(std::size_t output) const { return unknown_outputs_[output]; }
  // Whether some endpoint has a hazard that is integrated. Its cumulative hazard, times the
  // subject's scale, is a state behind those that doses go into; where the model file has no
  // states, there is one of no effect that takes them.
  bool integrates_hazards() const { return integrates_hazards_; }
  std::size_t dosed_states() const { return dosed_states_; }
  bool has(dose_property what, std::size_t state) const {
    return dosing_[static_cast<std::size_t>(what)][state].has_value();
  }

  // Whether constants change with the last dose's amount, with its time.
  bool constants_know_dose() const { return constants_know_dose_; }
  bool constants_know_dose_time() const { return constants_know_dose_time_; }
  // How many doses sums run over; 0 without sums.
  std::size_t summed_doses() const { return summed_doses_; }
  std::size_t constants() const { return constant_section_.code.results; }
  // From inputs alone.
  const compiled_section& constant_section() const { return constant_section_; }

  // The rest read numbers, constants, time and states; dx/dt of all states:
  const compiled_section& derivatives() const { return derivatives_; }
  // the same, then the entries of the Jacobian that are not 0, then d2x/dt2 by the time itself of
  // time_slopes();
  const compiled_section& jacobian() const { return jacobian_; }
  const std::vector<std::pair<std::size_t, std::size_t>>& jacobian_entries() const {
    return jacobian_entries_;
  }
  const std::vector<std::size_t>& time_slopes() const { return time_slopes_; }
  // one value:
  const compiled_section& output(std::size_t k) const { return outputs_[k]; }

  // From inputs and time: the states that have an initial value other than 0, in the order of
  // initial_states().
  const compiled_section& initial() const { return initial_; }
  const std::vector<std::size_t>& initial_states() const { return initial_states_; }
  // Only where has(what, state).
  const compiled_section& of_dose(dose_property what, std::size_t state) const {
    return *dosing_[static_cast<std::size_t>(what)][state];
  }

  // Where the system is linear with constant coefficients between events.
  const std::optional<linear_system>& linear() const { return linear_; }

 private:
  class compiler;

  std::vector<std::string> parameters_;
  std::vector<std::string> covariates_;
  std::vector<std::string> states_;
  std::vector<std::string> output_names_;
  std::size_t named_outputs_ = 0;
  std::vector<std::size_t> first_outputs_;  // by endpoint; empty where all are normal
  std::vector<bool> unknown_outputs_;
  bool integrates_hazards_ = false;
  std::size_t dosed_states_ = 0;

  bool constants_know_dose_ = false;
  bool constants_know_dose_time_ = false;
  std::size_t summed_doses_ = 0;
  compiled_section constant_section_;
  compiled_section derivatives_;
  compiled_section jacobian_;
  std::vector<std::pair<std::size_t, std::size_t>> jacobian_entries_;
  std::vector<std::size_t> time_slopes_;
  std::vector<compiled_section> outputs_;
  compiled_section initial_;
  std::vector<std::size_t> initial_states_;
  std::array<std::vector<std::optional<compiled_section>>, dose_properties> dosing_;
  std::optional<linear_system> linear_;
};

}  // namespace varda
