// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/lane_integrator.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace varda {

namespace {

constexpr std::uint32_t no_constants = 0xffffffffU;
constexpr std::size_t most_stages = 10;

bool is_exact(const formula_program& program, const solver_settings& settings) {
  return settings.method == solver_method::automatic && program.linear() &&
         program.states().size() <= linear_lanes::most_states;
}

}  // namespace

lane_integrator::lane_integrator(const formula_program& program, const solver_settings& settings,
                                 const lane_kernel& kernel, std::size_t block)
    : program_(program),
      settings_(settings),
      kernel_(kernel),
      block_(block),
      states_(program.states().size()),
      exact_(is_exact(program, settings)),
      moves_with_time_(std::any_of(program.derivatives().leaves.begin(),
                                   program.derivatives().leaves.end(),
                                   [](const leaf& l) { return l.kind == leaf_kind::time; })),
      occupants_(block),
      scripts_(block),
      events_(block / lane_quantum),
      stiff_(block),
      step_section_(program.derivatives(), block),
      stage_section_(program.derivatives(), block),
      jacobian_section_(program.jacobian(), block) {
  for (lane_array* row : {&time_, &step_, &stop_, &taken_, &error_, &tries_, &near_limit_,
                          &stage_time_, &inverse_step_})
    row->fill(block, 0.0);
  ones_.fill(block, 1.0);
  for (lane_array* rows : {&x_, &next_, &stage_x_, &input_, &time_slope_, &linear_input_})
    rows->fill(states_ * block, 0.0);
  constants_.fill(program.constants() * block, 0.0);
  slopes_.fill(most_stages * states_ * block, 0.0);
  clocks_ = {time_.data(), step_.data(), stop_.data(), taken_.data(), error_.data(), tries_.data()};
  shape_ = {states_, block, 0};

  const auto place = [&](lane_array& time, lane_array& states) {
    return [&](const leaf& l) -> const double* {
      switch (l.kind) {
        case leaf_kind::constant:
          return constants_.data() + l.index * block_;
        case leaf_kind::state:
          return states.data() + l.index * block_;
        default:
          return time.data();
      }
    };
  };
  step_section_.read_from(place(time_, x_));
  stage_section_.read_from(place(stage_time_, stage_x_));
  jacobian_section_.read_from(place(time_, x_));

  for (std::uint32_t s = 0; s < states_; ++s) {
    const auto rate = static_cast<std::uint32_t>(states_) + s;
    add_input_.push_back({lane_code::add, s, s, rate, s});
  }
  input_registers_.resize(2 * states_);
  for (std::size_t s = 0; s < states_; ++s)
    input_registers_[states_ + s] = input_.data() + s * block;
  if (exact_) prepare_exact();
  prepare_rosenbrock();
}

void lane_integrator::run(const lane_problem& problem) {
  problem_ = problem;
  tolerance_ = {settings_.relative, settings_.absolute * problem.scale};
  suspended_.clear();
  begun_.assign(problem.tasks->size(), false);
  if (exact_ && problem.common != nullptr) solve_together();
  if (exact_) return solve(method::exact);
  if (settings_.method != solver_method::stiff) solve(method::explicit_pair);
  solve(method::rosenbrock);
}

void lane_integrator::solve(method by) {
  queue_ = 0;
  for (std::size_t lane = 0; lane < block_; ++lane) occupants_[lane].memory = lane;
  for (active_ = 0; active_ < block_ && occupy(active_, by);) ++active_;
  // The rest of the last vector computes something harmless.
  if (active_ > 0)
    for (std::size_t lane = active_; lane < whole_lanes(active_); ++lane) copy_lane(0, lane);
  while (active_ > 0) {
    shape_.lanes = whole_lanes(active_);
    take_steps(by);
    for (std::size_t group = shape_.lanes / lane_quantum; group-- > 0;)
      while (events_[group] != 0) {
        const auto last = static_cast<std::size_t>(std::bit_width(events_[group]) - 1);
        events_[group] = static_cast<std::uint8_t>(events_[group] & ~(1U << last));
        const std::size_t lane = group * lane_quantum + last;
        if (lane >= active_ || go_on(lane, by) || occupy(lane, by)) continue;
        --active_;
        if (lane != active_) copy_lane(active_, lane);
      }
  }
}

void lane_integrator::take_steps(method by) {
  switch (by) {
    case method::exact:
      return take_exact_steps();
    case method::explicit_pair:
      return take_explicit_steps();
    case method::rosenbrock:
      return take_rosenbrock_steps();
  }
}

// Takes tasks until there is one to solve.
bool lane_integrator::occupy(std::size_t lane, method by) {
  while (next_task(lane, by))
    if (follow(lane)) return true;
  return by == method::rosenbrock && resume(lane);
}

bool lane_integrator::next_task(std::size_t lane, method by) {
  std::vector<lane_task>& tasks = *problem_.tasks;
  const auto is_mine = [&](std::size_t task) {
    if (by == method::exact) return !begun_[task];
    const bool stiff = tasks[task].stiff || settings_.method == solver_method::stiff;
    return by == method::rosenbrock ? stiff && !begun_[task] : !stiff;
  };
  while (queue_ < tasks.size() && !is_mine(queue_)) ++queue_;
  if (queue_ >= tasks.size()) return false;
  occupant& o = occupants_[lane];
  o.task = queue_++;
  begun_[o.task] = true;
  o.plan = &problem_.scripts->script_of(tasks[o.task].individual, scripts_[o.memory]);
  o.next = 0;
  o.constants = no_constants;
  o.suspicious_steps = 0;
  o.calm_steps = 0;
  stiff_[lane] = 0;
  time_[lane] = o.plan->steps.empty() ? 0.0 : o.plan->steps.front().time;
  step_[lane] = 0.0;
  for (std::size_t s = 0; s < states_; ++s) {
    input_[s * block_ + lane] = 0.0;
    x_[s * block_ + lane] = 0.0;
  }
  return true;
}

void lane_integrator::load_constants(std::size_t lane, std::uint32_t table) {
  occupants_[lane].constants = table;
  const std::size_t individual = (*problem_.tasks)[occupants_[lane].task].individual;
  const double* from = problem_.tables->constants[table] + individual;
  for (std::size_t c = 0; c < program_.constants(); ++c)
    constants_[c * block_ + lane] = from[c * problem_.tables->stride];
}

// Does what is due; false where nothing is left to be done.
bool lane_integrator::follow(std::size_t lane) {
  occupant& o = occupants_[lane];
  const std::size_t individual = (*problem_.tasks)[o.task].individual;
  const std::size_t stride = problem_.tables->stride;
  const std::vector<instruction>& steps = o.plan->steps;
  const auto copy_states = [&](const double* from, std::size_t rows_apart) {
    for (std::size_t s = 0; s < states_; ++s) x_[s * block_ + lane] = from[s * rows_apart];
  };
  bool changed = false;
  for (; o.next < steps.size() && steps[o.next].time <= time_[lane]; ++o.next) {
    const instruction& now = steps[o.next];
    switch (now.what) {
      case instruction::kind::observe: {
        double* to = problem_.observed + now.index * states_ * problem_.observed_stride + o.task;
        for (std::size_t s = 0; s < states_; ++s)
          to[s * problem_.observed_stride] = x_[s * block_ + lane];
        continue;
      }
      case instruction::kind::add:
        x_[now.index * block_ + lane] +=
            now.share == nullptr ? now.value : now.value * now.share[individual];
        break;
      case instruction::kind::rates:
        for (std::size_t s = 0; s < states_; ++s)
          input_[s * block_ + lane] = o.plan->rates[now.index * states_ + s];
        break;
      case instruction::kind::constants:
        if (o.constants == now.index) continue;
        load_constants(lane, now.index);
        break;
      case instruction::kind::start:
        copy_states(problem_.start + o.task, problem_.start_stride);
        break;
      case instruction::kind::reset:
        copy_states(problem_.tables->initial[now.index] + individual, stride);
        break;
      case instruction::kind::settle:
        for (std::size_t s = 0; s < states_; ++s)
          x_[s * block_ + lane] += problem_.tables->settled[now.index][s * stride + individual];
        break;
    }
    changed = true;
  }
  if (o.next == steps.size()) return false;
  stop_[lane] = steps[o.next].time;
  tries_[lane] = 0.0;
  // The system has changed by a leap: the step is looked for anew.
  if (changed) step_[lane] = 0.0;
  fresh_ = fresh_ || changed;
  return true;
}

// What becomes of a lane after an event; false where its task has ended or is put off.
bool lane_integrator::go_on(std::size_t lane, method by) {
  if (time_[lane] != stop_[lane]) {
    const bool tired = tries_[lane] >= settings_.max_steps;
    const bool stuck =
        !(error_[lane] <= 1.0) &&
        step_[lane] <= 4.0 * 0x1p-52 * std::max(std::fabs(time_[lane]), std::fabs(stop_[lane]));
    if (stuck)
      return fail(lane,
                  std::isnan(error_[lane]) ? ode_status::not_finite : ode_status::step_too_small);
    if (tired) return fail(lane, ode_status::too_many_steps);
  } else {
    if (by == method::exact)
      for (std::size_t s = 0; s < states_; ++s)
        if (!std::isfinite(x_[s * block_ + lane])) return fail(lane, ode_status::not_finite);
    if (!follow(lane)) return false;
  }
  if (stiff_[lane] == 0) return true;
  suspend(lane);
  return false;
}

bool lane_integrator::fail(std::size_t lane, ode_status why) {
  lane_task& task = (*problem_.tasks)[occupants_[lane].task];
  task.status = why;
  task.reached = time_[lane];
  return false;
}

void lane_integrator::suspend(std::size_t lane) {
  suspended put_off{occupants_[lane], time_[lane], {}, {}};
  for (std::size_t s = 0; s < states_; ++s) {
    put_off.states.push_back(x_[s * block_ + lane]);
    put_off.input.push_back(input_[s * block_ + lane]);
  }
  (*problem_.tasks)[put_off.at.task].stiff = true;
  suspended_.push_back(std::move(put_off));
  stiff_[lane] = 0;
}

// Goes on with the first of the suspended tasks, from where it was.
bool lane_integrator::resume(std::size_t lane) {
  if (suspended_.empty()) return false;
  const suspended put_off = std::move(suspended_.back());
  suspended_.pop_back();
  stiff_[lane] = 0;
  occupant& o = occupants_[lane];
  const std::size_t memory = o.memory;
  o = put_off.at;
  o.memory = memory;
  const std::size_t individual = (*problem_.tasks)[o.task].individual;
  o.plan = &problem_.scripts->script_of(individual, scripts_[memory]);
  time_[lane] = put_off.time;
  stop_[lane] = o.plan->steps[o.next].time;
  tries_[lane] = 0.0;
  step_[lane] = 0.0;
  fresh_ = true;
  for (std::size_t s = 0; s < states_; ++s) {
    x_[s * block_ + lane] = put_off.states[s];
    input_[s * block_ + lane] = put_off.input[s];
  }
  load_constants(lane, o.constants);
  return true;
}

void lane_integrator::copy_lane(std::size_t from, std::size_t to) {
  for (lane_array* row : {&time_, &step_, &stop_, &tries_, &error_}) (*row)[to] = (*row)[from];
  for (std::size_t s = 0; s < states_; ++s) {
    x_[s * block_ + to] = x_[s * block_ + from];
    input_[s * block_ + to] = input_[s * block_ + from];
  }
  for (std::size_t c = 0; c < program_.constants(); ++c)
    constants_[c * block_ + to] = constants_[c * block_ + from];
  stiff_[to] = stiff_[from];
  if (from < active_) return;  // a copy that nobody asks for
  std::swap(occupants_[to], occupants_[from]);
}

void lane_integrator::add_input(double* to) {
  if (!problem_.input) return;
  for (std::size_t s = 0; s < states_; ++s) input_registers_[s] = to + s * block_;
  kernel_.run(add_input_.data(), add_input_.size(), input_registers_.data(), shape_.lanes);
}

void lane_integrator::differentiate(bound_section& section, double* to) {
  section.write_to(to, block_);
  section.run(kernel_, shape_.lanes);
  add_input(to);
}

void lane_integrator::combine(double* out, const double* x, const double* h, std::size_t count,
                              const double* coefficients, const std::size_t* stages) {
  const double* blocks[lane_terms::most_terms];
  for (std::size_t k = 0; k < count; ++k) blocks[k] = slope(stages[k]);
  kernel_.combine(out, x, h, {coefficients, blocks, count}, shape_);
}

void lane_integrator::move_stage_time(double fraction) {
  if (!moves_with_time_) return;
  const double* const taken = taken_.data();
  kernel_.combine(stage_time_.data(), time_.data(), ones_.data(), {&fraction, &taken, 1},
                  {1, block_, shape_.lanes});
}

void lane_integrator::finish_steps(double order, std::size_t count, const double* coefficients,
                                   const std::size_t* stages, const double* h) {
  const double* blocks[lane_terms::most_terms];
  for (std::size_t k = 0; k < count; ++k) blocks[k] = slope(stages[k]);
  kernel_.measure_errors(clocks_, h, {coefficients, blocks, count}, x_.data(), next_.data(),
                         tolerance_, shape_);
  kernel_.finish_steps(clocks_, x_.data(), next_.data(),
                       {-1.0 / order, static_cast<double>(settings_.max_steps)}, shape_,
                       events_.data());
}

void lane_integrator::prepare_exact() {
  const linear_system& system = *program_.linear();
  for (const std::optional<std::size_t>& entry : system.a)
    linear_.push_back(entry ? constants_.data() + *entry * block_ : nullptr);
  // 0 times each state is added up.
  not_finite_.fill(2 * block_, 0.0);
  not_finite_registers_ = {not_finite_.data(), not_finite_.data() + block_};
  for (std::uint32_t s = 0; s < states_; ++s) {
    not_finite_registers_.push_back(x_.data() + s * block_);
    note_not_finite_.push_back({lane_code::multiply_add, 0, s + 2, 1, 0});
  }
  // Registers: the input of the doses, that of the equations, and their sum.
  linear_registers_.resize(3 * states_);
  for (std::uint32_t s = 0; s < states_; ++s) {
    const auto n = static_cast<std::uint32_t>(states_);
    const bool own = system.b[s].has_value();
    linear_registers_[s] = input_.data() + s * block_;
    linear_registers_[n + s] = own ? constants_.data() + *system.b[s] * block_ : nullptr;
    linear_registers_[2 * n + s] = linear_input_.data() + s * block_;
    sum_linear_input_.push_back(
        {own ? lane_code::add : lane_code::copy, 2 * n + s, s, own ? n + s : s, s});
  }
}

// Exact solutions of one script need no clocks: the lanes go from stop to stop together. Those that
// are not finite are left to the other way, which tells since when.
void lane_integrator::solve_together() {
  const std::vector<lane_task>& tasks = *problem_.tasks;
  const std::size_t stride = problem_.tables->stride;
  const script& plan = *problem_.common;
  for (std::size_t first = 0; first < tasks.size(); first += block_) {
    const std::size_t count = std::min(block_, tasks.size() - first);
    shape_.lanes = whole_lanes(count);
    // The rest of the last vector follows the last task.
    const auto each_lane = [&](auto visit) {
      for (std::size_t lane = 0; lane < shape_.lanes; ++lane)
        visit(lane, first + std::min(lane, count - 1));
    };
    std::uint32_t constants = no_constants;
    std::fill(time_.data(), time_.data() + shape_.lanes, plan.steps.front().time);
    std::fill(not_finite_.data(), not_finite_.data() + shape_.lanes, 0.0);
    std::fill(input_.data(), input_.data() + states_ * block_, 0.0);
    std::fill(x_.data(), x_.data() + states_ * block_, 0.0);
    for (const instruction& now : plan.steps) {
      if (now.time > time_[0]) propagate_all(now.time);
      switch (now.what) {
        case instruction::kind::observe:
          for (std::size_t s = 0; s < states_; ++s)
            std::copy(
                x_.data() + s * block_, x_.data() + s * block_ + count,
                problem_.observed + (now.index * states_ + s) * problem_.observed_stride + first);
          break;
        case instruction::kind::add:
          each_lane([&](std::size_t lane, std::size_t task) {
            x_[now.index * block_ + lane] +=
                now.share == nullptr ? now.value : now.value * now.share[tasks[task].individual];
          });
          break;
        case instruction::kind::rates:
          for (std::size_t s = 0; s < states_; ++s)
            std::fill(input_.data() + s * block_, input_.data() + s * block_ + shape_.lanes,
                      plan.rates[now.index * states_ + s]);
          break;
        case instruction::kind::constants:
          if (constants == now.index) break;
          constants = now.index;
          for (std::size_t c = 0; c < program_.constants(); ++c)
            each_lane([&](std::size_t lane, std::size_t task) {
              constants_[c * block_ + lane] =
                  problem_.tables->constants[constants][c * stride + tasks[task].individual];
            });
          break;
        case instruction::kind::start:
          for (std::size_t s = 0; s < states_; ++s)
            each_lane([&](std::size_t lane, std::size_t task) {
              x_[s * block_ + lane] = problem_.start[s * problem_.start_stride + task];
            });
          break;
        case instruction::kind::reset:
          for (std::size_t s = 0; s < states_; ++s)
            each_lane([&](std::size_t lane, std::size_t task) {
              x_[s * block_ + lane] =
                  problem_.tables->initial[now.index][s * stride + tasks[task].individual];
            });
          break;
        case instruction::kind::settle:
          for (std::size_t s = 0; s < states_; ++s)
            each_lane([&](std::size_t lane, std::size_t task) {
              x_[s * block_ + lane] +=
                  problem_.tables->settled[now.index][s * stride + tasks[task].individual];
            });
          break;
      }
    }
    for (std::size_t lane = 0; lane < count; ++lane)
      begun_[first + lane] = not_finite_[lane] == 0.0;
  }
}

void lane_integrator::propagate_all(double to) {
  std::fill(stop_.data(), stop_.data() + shape_.lanes, to);
  take_exact_steps();
  kernel_.run(note_not_finite_.data(), note_not_finite_.size(), not_finite_registers_.data(),
              shape_.lanes);
}

void lane_integrator::take_exact_steps() {
  const linear_system& system = *program_.linear();
  const bool input = problem_.input || std::any_of(system.b.begin(), system.b.end(),
                                                   [](const auto& b) { return b.has_value(); });
  if (input)
    kernel_.run(sum_linear_input_.data(), sum_linear_input_.size(), linear_registers_.data(),
                shape_.lanes);
  kernel_.propagate({states_, linear_.data(), input ? linear_input_.data() : nullptr}, x_.data(),
                    time_.data(), stop_.data(), shape_);
  std::copy(stop_.data(), stop_.data() + shape_.lanes, time_.data());
  std::fill(events_.begin(),
            events_.begin() + static_cast<std::ptrdiff_t>(shape_.lanes / lane_quantum),
            std::uint8_t{0xff});
}

}  // namespace varda
