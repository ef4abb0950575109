// SPDX-License-Identifier: Apache-2.0
//
// Initial value problems of one system for many individuals, a lane each: every lane has a clock
// and a step of its own, and a lane that has finished takes the next task. All decisions are made
// lane by lane, so that no solution depends on what else is being solved.
//
// Systems that are linear with constant coefficients are solved exactly. Others take Verner's
// explicit pair of orders 7 and 6 (the "most efficient" one; Numer. Algorithms 53, 2010) or, where
// they are stiff, Steinebach's Rosenbrock method of order 5 (Rodas5P; BIT Numer. Math. 63, 2023).
// Steps are under error control. The explicit method notices when its steps are held down by
// stability: the task then goes on with the other one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "varda/model/equations/bound_section.h"
#include "varda/model/equations/formula_program.h"
#include "varda/model/equations/script.h"
#include "varda/model/lanes/array.h"
#include "varda/model/lanes/kernel.h"
#include "varda/model/specification.h"

namespace varda {

enum class ode_status { done, not_finite, too_many_steps, step_too_small };

// One solution to be followed: its script says how.
struct lane_task {
  std::size_t individual = 0;
  bool stiff = false;  // in: known to be; out: found to be
  ode_status status = ode_status::done;
  double reached = 0.0;  // the time at which a solution failed
};

// What scripts speak of: tables with a column for each individual, rows `stride` apart.
struct lane_tables {
  std::size_t stride = 0;
  std::vector<const double*> constants;
  std::vector<const double*> initial;
  std::vector<const double*> settled;
};

class script_source {
 public:
  virtual ~script_source() = default;
  // The script of an individual, written into `memory` or standing elsewhere.
  virtual const script& script_of(std::size_t individual, script& memory) = 0;
};

struct lane_problem {
  std::vector<lane_task>* tasks = nullptr;
  script_source* scripts = nullptr;
  const lane_tables* tables = nullptr;
  const script* common = nullptr;  // the script where all individuals have the same
  bool input = false;              // scripts may set rates
  double scale = 1.0;              // the absolute tolerance is this times that of the settings
  const double* start = nullptr;   // states of the tasks: row s, column task
  std::size_t start_stride = 0;
  double* observed = nullptr;  // row (observation x states + s), column task
  std::size_t observed_stride = 0;
};

class lane_integrator {
 public:
  // `program` must outlive the integrator. `block` lanes, a multiple of lane_quantum.
  lane_integrator(const formula_program& program, const solver_settings& settings,
                  const lane_kernel& kernel, std::size_t block);
  lane_integrator(const lane_integrator&) = delete;
  lane_integrator& operator=(const lane_integrator&) = delete;

  void run(const lane_problem& problem);

  // Whether solutions are exact.
  bool exact() const { return exact_; }

 private:
  enum class method { exact, explicit_pair, rosenbrock };

  // What a lane is at.
  struct occupant {
    std::size_t task = 0;
    const script* plan = nullptr;
    std::size_t next = 0;  // of its instructions
    std::uint32_t constants = 0;
    std::size_t memory = 0;  // its place among scripts_
    int suspicious_steps = 0;
    int calm_steps = 0;
  };
  // A task that goes on with another method.
  struct suspended {
    occupant at;
    double time = 0.0;
    std::vector<double> states;
    std::vector<double> input;
  };

  void solve(method by);
  void take_steps(method by);
  bool occupy(std::size_t lane, method by);
  bool resume(std::size_t lane);
  bool next_task(std::size_t lane, method by);
  bool follow(std::size_t lane);
  void load_constants(std::size_t lane, std::uint32_t table);
  bool go_on(std::size_t lane, method by);
  void suspend(std::size_t lane);
  void copy_lane(std::size_t from, std::size_t to);
  bool fail(std::size_t lane, ode_status why);

  void solve_together();
  void propagate_all(double to);
  void prepare_exact();
  void take_exact_steps();
  void take_explicit_steps();
  void note_stiff_lanes();
  void prepare_rosenbrock();
  void take_rosenbrock_steps();

  // The derivatives at x_ or at stage_x_ into a block of slopes.
  void differentiate(bound_section& section, double* slope);
  void add_input(double* slope);
  // Adds up blocks of slopes_.
  void combine(double* out, const double* x, const double* h, std::size_t count,
               const double* coefficients, const std::size_t* stages);
  void move_stage_time(double fraction);
  void finish_steps(double order, std::size_t count, const double* coefficients,
                    const std::size_t* stages, const double* h);
  double* slope(std::size_t stage) { return slopes_.data() + stage * states_ * block_; }

  const formula_program& program_;
  solver_settings settings_;
  const lane_kernel& kernel_;
  std::size_t block_;
  std::size_t states_;
  bool exact_;
  bool moves_with_time_;

  lane_problem problem_;
  std::size_t queue_ = 0;   // the next task, or the next suspended one
  std::size_t active_ = 0;  // lanes in use are the first ones
  std::vector<occupant> occupants_;
  std::vector<script> scripts_;
  std::vector<suspended> suspended_;
  std::vector<bool> begun_;  // tasks
  bool fresh_ = false;       // a lane has no step yet

  // Blocks of one row, of a row for each state, and of more.
  lane_array time_, step_, stop_, taken_, error_, tries_, near_limit_, ones_, stage_time_;
  lane_array x_, next_, stage_x_, input_;
  lane_array constants_, slopes_;
  std::vector<std::uint8_t> events_;
  std::vector<char> stiff_;  // lanes found to be
  lane_clocks clocks_;
  lane_shape shape_;
  lane_tolerance tolerance_;

  bound_section step_section_;   // reads x_
  bound_section stage_section_;  // reads stage_x_
  std::vector<lane_operation> add_input_;
  std::vector<double*> input_registers_;

  std::vector<const double*> linear_;
  std::vector<lane_operation> note_not_finite_;
  std::vector<double*> not_finite_registers_;
  lane_array not_finite_;
  lane_array linear_input_;
  std::vector<lane_operation> sum_linear_input_;
  std::vector<double*> linear_registers_;

  bound_section jacobian_section_;
  lane_array jacobian_, time_slope_, inverse_step_, factor_memory_;
  std::vector<lane_operation> factor_;
  std::vector<lane_operation> solve_;
  std::vector<double*> factor_registers_;
  std::size_t first_right_side_ = 0;
};

}  // namespace varda
