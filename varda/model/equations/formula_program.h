// SPDX-License-Identifier: Apache-2.0
//
// All formulas of a model, compiled against one table of values. What a formula depends on is
// known: a definition of parameters and covariates alone is evaluated once per segment, one that
// moves with time or states where a formula in hand needs it.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "varda/model/equations/expression.h"
#include "varda/model/equations/formula_error.h"
#include "varda/model/specification.h"
#include "varda/model/structural_model.h"

namespace varda {

// What a formula can tell about the doses into a state.
enum class dose_property { lag, bioavailability, rate, duration };

// Evaluation writes the table of values: one thread at a time.
class formula_program {
 public:
  // Throws formula_error. Names that are neither parameters nor defined are covariates.
  explicit formula_program(const equation_text& text);
  formula_program(const formula_program&) = delete;
  formula_program& operator=(const formula_program&) = delete;

  // The parameters that formulas use, in the order in which they were offered.
  const std::vector<std::string>& parameters() const { return parameters_; }
  const std::vector<std::string>& covariates() const { return covariates_; }
  const std::vector<std::string>& states() const { return states_; }
  const std::vector<std::string>& outputs() const { return output_names_; }
  bool derivatives_depend_on_time() const { return derivatives_depend_on_time_; }
  bool has(dose_property what, std::size_t state) const {
    return dosing_[static_cast<std::size_t>(what)][state].has_value();
  }

  // Sets the parameters and the covariates to those of a segment of the subject; `positions`
  // tells where each of covariates() stands in it.
  void enter_segment(const subject& who, int segment, const parameter_path& p,
                     const std::vector<int>& positions);
  // Sets the last dose, behind the names dose and tad, which are 0 without one.
  void set_dose(double time, double amount);
  void forget_doses();

  // dx/dt of all states at (t, x).
  void derivatives(double t, const double* x, double* dxdt);
  double output(std::size_t k, double t, std::span<const double> x);
  double initial(std::size_t state, double t);
  // Only where has(what, state).
  double of_dose(dose_property what, std::size_t state, double t);

 private:
  // What a value moves with between two events, as bits.
  enum dependence : unsigned { on_nothing = 0, on_time = 1, on_states = 2 };
  struct compiled {
    expression formula;
    std::vector<std::size_t> needs;  // positions of definitions that move, in order
    unsigned moves_with = on_nothing;
    std::size_t slot = 0;  // of a definition's value
  };
  struct symbol {
    std::size_t slot = 0;
    unsigned moves_with = on_nothing;
    std::optional<std::size_t> definition{};
  };
  class compiler;

  void refresh();
  void set_clock(double t);
  double value_of(const compiled& what);
  void evaluate(const std::vector<std::size_t>& needs);

  std::vector<std::string> parameters_;
  std::vector<std::string> covariates_;
  std::vector<std::string> states_;
  std::vector<std::string> output_names_;

  std::vector<double> values_;  // t, tad, dose, parameters, covariates, definitions, states
  std::vector<std::size_t> parameter_slots_;
  std::vector<std::size_t> covariate_slots_;
  std::size_t first_state_ = 0;
  std::vector<compiled> definitions_;
  std::vector<compiled> derivatives_;
  std::vector<std::size_t> derivative_needs_;
  std::vector<compiled> outputs_;
  std::vector<std::optional<compiled>> initial_;
  std::array<std::vector<std::optional<compiled>>, 4> dosing_;
  bool derivatives_depend_on_time_ = false;

  bool stale_ = true;  // the definitions that do not move are to be evaluated
  bool dosed_ = false;
  double dose_time_ = 0.0;
};

}  // namespace varda
