// SPDX-License-Identifier: Apache-2.0
//
// A system of differential equations taken through a subject's doses, observations, resets and
// segments.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "varda/data/dataset.h"
#include "varda/model/equations/dose_schedule.h"
#include "varda/model/equations/formula_program.h"
#include "varda/model/equations/ode_solver.h"
#include "varda/model/equations/steady_state.h"

namespace varda {

class equation_run final : private ode_system {
 public:
  // `program` must outlive the run, which changes its values.
  equation_run(formula_program& program, const solver_settings& settings);
  equation_run(const equation_run&) = delete;
  equation_run& operator=(const equation_run&) = delete;

  // As structural_model::predict. False where a prediction cannot be made; f is then NaN.
  bool predict(const subject& who, const parameter_path& p, const std::vector<int>& positions,
               std::span<double> f);

  // Why the last call of predict failed; empty if it did not.
  std::string last_failure() const;

 private:
  enum class failure { none, solver, steady_state, dose_property, initial, output };

  std::size_t size() const override { return x_.size(); }
  void derivative(double t, const double* x, double* dxdt) override;
  bool depends_on_time() const override { return program_.derivatives_depend_on_time(); }

  bool walk(const subject& who, const parameter_path& p, const std::vector<int>& positions,
            std::span<double> f);
  bool reset();
  bool advance(double to);
  bool observe(const subject& who, std::size_t observation, std::span<double> f);

  bool give(const dose& d);
  std::optional<arrival> effect_of(const dose& d);
  std::optional<double> property(dose_property what, std::size_t state, double otherwise);
  bool give_at_steady_state(const dose& d, const arrival& first);
  bool find_periodic_state(const dose& d, const arrival& first);
  bool find_resting_state(const dose& d, const arrival& forever);
  bool fail(failure why, double time, std::size_t which = 0, double value = 0.0);

  formula_program& program_;
  solver_settings settings_;
  std::unique_ptr<ode_solver> solver_;
  steady_state_search search_;

  double time_ = 0.0;
  std::vector<double> x_;
  dose_schedule schedule_;
  dose_schedule regimen_;           // the doses of a steady state alone
  dose_schedule* doses_ = nullptr;  // the one of the two that is in force
  std::vector<double> present_;     // kept while a steady state is looked for, like initial_
  std::vector<double> initial_;
  std::vector<double> trial_;
  std::vector<double> sizes_;

  failure why_ = failure::none;
  ode_status status_ = ode_status::done;
  dose_property which_property_ = dose_property::lag;
  std::size_t which_ = 0;
  double failed_at_ = 0.0;
  double failed_value_ = 0.0;
};

}  // namespace varda
