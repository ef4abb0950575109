// SPDX-License-Identifier: Apache-2.0
//
// A system of differential equations taken through a subject's doses, observations, resets and
// segments, for many individuals at once.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "varda/data/dataset.h"
#include "varda/model/equations/formula_lanes.h"
#include "varda/model/equations/formula_program.h"
#include "varda/model/equations/lane_integrator.h"
#include "varda/model/equations/script.h"
#include "varda/model/equations/steady_state.h"
#include "varda/model/structural_model.h"

namespace varda {

class equation_run final : public structural_model::workspace, private script_source {
 public:
  // Blocks of so many lanes fit into the first cache with the stages of a few states.
  static constexpr std::size_t usual_block = 64;

  // `program` must outlive the run.
  equation_run(const formula_program& program, const solver_settings& settings,
               const lane_kernel& kernel = best_lane_kernel(), std::size_t block = usual_block);

  // As structural_model::predict: NaN for all observations of an individual of whom one cannot be
  // predicted.
  void predict(const subject& who, const parameter_block& p, const std::vector<int>& positions,
               const prediction_block& f);

  // Why the first individual that failed in the last call of predict did; empty if none did.
  std::string last_failure() const;

 private:
  enum class reason { none, solver, steady_state, dose_property, initial, output };
  struct failure {
    reason why = reason::none;
    double time = 0.0;
    std::size_t which = 0;  // state or output
    double value = 0.0;
    dose_property property = dose_property::lag;
    ode_status status = ode_status::done;
  };

  // What happens at an event of the timeline, for all individuals.
  struct stage {
    epoch now;  // from this event on
    std::size_t table = 0;
    std::size_t initial = 0;  // row of the initial values, at resets
  };
  // What is known of a dose: rows of its properties, null where the model has none.
  struct dose_facts {
    const double* rows[dose_properties] = {};
    std::size_t settled = 0;  // row of the steady states
  };

  const script& script_of(std::size_t individual, script& memory) override;

  void predict_some(const subject& who, const parameter_block& p, std::size_t first,
                    std::size_t count, const std::vector<int>& positions,
                    const prediction_block& f);
  void lay_out(const subject& who);
  void evaluate_dose(const dose& d, const epoch& now, double time, dose_facts& facts);
  std::size_t add_initial(const epoch& now, double time);
  double* new_rows(std::size_t rows);
  void list_tables();

  void write_script(script& to, std::size_t individual);
  arrival effect_of(const dose& d, const dose_facts& facts, std::size_t individual) const;
  void give(const dose& d, const dose_facts& facts, std::size_t individual);
  void write_regimen(script& to, std::size_t individual);

  void find_steady_states();
  void find_steady_state(const dose& d, dose_facts& facts, const stage& at);
  void find_periodic_states(const double* initial);
  void find_resting_states(const double* initial);
  void follow_regimen();
  template <class Evaluate>
  void search(Evaluate evaluate);

  bool failed(std::size_t individual) const { return failures_[individual].why != reason::none; }
  void fail(std::size_t individual, const failure& how);
  void solve();
  void write_outputs(std::size_t first, const prediction_block& f);

  const formula_program& program_;
  solver_settings settings_;
  formula_lanes formulas_;
  lane_integrator integrator_;
  std::size_t states_;

  const subject* who_ = nullptr;
  double scale_ = 1.0;
  std::vector<failure> failures_;
  std::vector<char> stiff_;
  std::vector<stage> stages_;  // of the beginning, and after each event
  std::vector<dose_facts> facts_;
  std::vector<lane_array> memory_;  // rows that live as long as a call
  std::size_t used_memory_ = 0;
  lane_tables tables_;

  script_writer writer_;
  bool common_times_ = false;
  script common_;

  // The steady state that is being looked for, and the states whose residuals are.
  struct regimen {
    const dose* given = nullptr;
    const dose_facts* facts = nullptr;
    std::size_t table = 0;
  };
  struct wanted_state {
    std::size_t individual = 0;
    std::size_t number = 0;
  };
  regimen regimen_;
  std::vector<steady_state_search> searches_;
  std::vector<wanted_state> wanted_;
  std::vector<lane_task> tasks_;
  lane_array trial_;
  lane_array outcome_;
  lane_array observed_;

  failure first_failure_;
};

}  // namespace varda
