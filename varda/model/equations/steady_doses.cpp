// SPDX-License-Identifier: Apache-2.0
//
// Doses at steady state: what their regimen has left when they are given. It depends on nothing
// that happened before, so that all individuals look for theirs together.
#include <algorithm>
#include <cmath>
#include <limits>

#include "varda/model/equations/equation_run.h"

namespace varda {

namespace {

// An infusion that lasts longer than so many dosing intervals is taken for a slip in the data.
constexpr double most_overlaps = 1000.0;

// Where solutions are exact.
constexpr double exact_tolerance = 1e-10;
// Where no solution is needed.
constexpr double most_tolerance = 1e-9;

}  // namespace

// One dosing interval before a dose record that was repeated for ever.
void equation_run::write_regimen(script& to, std::size_t individual) {
  const dose& d = *regimen_.given;
  const double end = d.time;
  const double begin = end - d.interval;
  const arrival first = effect_of(d, *regimen_.facts, individual);
  writer_.begin(to, begin);
  writer_.note(instruction::kind::constants, regimen_.table);
  writer_.note(instruction::kind::start, 0);
  writer_.schedule().add_running(first, begin, d.interval);
  arrival within = first;
  within.time = begin + std::fmod(first.time - end, d.interval);
  writer_.schedule().add(within);
  writer_.apply();
  writer_.go_to(end);
  writer_.note(instruction::kind::observe, 0);
}

void equation_run::find_steady_states() {
  for (std::size_t i = 0; i < who_->timeline.size(); ++i) {
    const event& e = who_->timeline[i];
    if (e.kind != event_kind::dose) continue;
    const dose& d = who_->doses[static_cast<std::size_t>(e.index)];
    if (d.steady_state)
      find_steady_state(d, facts_[static_cast<std::size_t>(e.index)], stages_[i + 1]);
  }
  regimen_ = {};
}

void equation_run::find_steady_state(const dose& d, dose_facts& facts, const stage& at) {
  const std::size_t count = formulas_.count();
  const std::size_t stride = formulas_.stride();
  const double* const initial = tables_.initial[add_initial(at.now, d.time)];
  searches_.resize(std::max(searches_.size(), count));
  for (steady_state_search& search : searches_) search.abandon();
  regimen_ = {&d, &facts, at.table};
  if (d.interval > 0.0) {
    epoch during = at.now;
    during.dose_time = d.time - d.interval;
    regimen_.table = formulas_.table_of(during);
    list_tables();
    find_periodic_states(initial);
  } else {
    find_resting_states(initial);
  }

  double* const rows = new_rows(states_);
  std::fill(rows, rows + states_ * stride, 0.0);
  for (std::size_t j = 0; j < count; ++j) {
    if (!searches_[j].found()) {
      fail(j, {.why = reason::steady_state, .time = d.time});
      continue;
    }
    for (std::size_t s = 0; s < states_; ++s)
      rows[s * stride + j] =
          searches_[j].solution()[static_cast<Eigen::Index>(s)] - initial[s * stride + j];
  }
  facts.settled = tables_.settled.size();
  tables_.settled.push_back(rows);
}

// Lets the searches have the residuals that they want until all are closed.
template <class Evaluate>
void equation_run::search(Evaluate evaluate) {
  Eigen::VectorXd x(static_cast<Eigen::Index>(states_));
  const auto component = [&](std::size_t s) -> double& { return x[static_cast<Eigen::Index>(s)]; };
  for (;;) {
    wanted_.clear();
    for (std::size_t j = 0; j < formulas_.count(); ++j)
      if (!failed(j) && searches_[j].open())
        for (std::size_t k = 0; k < searches_[j].wanted(); ++k) wanted_.push_back({j, k});
    const std::size_t n = wanted_.size();
    if (n == 0) return;
    trial_.reserve(states_ * n);
    outcome_.reserve(states_ * n);
    for (std::size_t w = 0; w < n; ++w) {
      searches_[wanted_[w].individual].state(wanted_[w].number, x);
      for (std::size_t s = 0; s < states_; ++s) trial_[s * n + w] = component(s);
    }
    evaluate();
    for (std::size_t w = 0; w < n; ++w) {
      bool good = true;
      for (std::size_t s = 0; s < states_; ++s) {
        component(s) = outcome_[s * n + w];
        good = good && std::isfinite(component(s));
      }
      searches_[wanted_[w].individual].take(wanted_[w].number, x, good);
    }
  }
}

// The states after one interval of the regimen from those of trial_, into outcome_; both have a
// column for each of tasks_. NaN where there is none.
void equation_run::follow_regimen() {
  const std::size_t n = tasks_.size();
  for (lane_task& task : tasks_) task.stiff = stiff_[task.individual] != 0;
  if (common_times_) write_regimen(common_, 0);
  integrator_.run({.tasks = &tasks_,
                   .scripts = this,
                   .tables = &tables_,
                   .common = common_times_ ? &common_ : nullptr,
                   .input = regimen_.given->input != dose_input::bolus,
                   .scale = scale_,
                   .start = trial_.data(),
                   .start_stride = n,
                   .observed = outcome_.data(),
                   .observed_stride = n});
  for (std::size_t k = 0; k < n; ++k) {
    if (tasks_[k].stiff) stiff_[tasks_[k].individual] = 1;
    if (tasks_[k].status != ode_status::done)
      outcome_[k] = std::numeric_limits<double>::quiet_NaN();
  }
}

void equation_run::find_periodic_states(const double* initial) {
  const dose& d = *regimen_.given;
  tasks_.clear();
  std::vector<Eigen::VectorXd> sizes;
  for (std::size_t j = 0; j < formulas_.count(); ++j) {
    const arrival first = effect_of(d, *regimen_.facts, j);
    if (failed(j) || first.duration > most_overlaps * d.interval) continue;
    tasks_.push_back({.individual = j});
    const double share = first.share == nullptr ? 1.0 : first.share[j];
    const double amount = share * first.amount + first.rate * first.duration;
    const double given = amount > 0.0 ? amount : 1.0;
    sizes.push_back(Eigen::VectorXd::Constant(static_cast<Eigen::Index>(states_), 1e-3 * given));
    sizes.back()[static_cast<Eigen::Index>(first.state)] = given;
  }
  const std::size_t n = tasks_.size();
  trial_.reserve(states_ * n);
  outcome_.reserve(states_ * n);
  for (std::size_t s = 0; s < states_; ++s)
    for (std::size_t k = 0; k < n; ++k)
      trial_[s * n + k] = initial[s * formulas_.stride() + tasks_[k].individual];
  // The first doses tell the sizes of the states.
  for (int repeat = 0; repeat < 2; ++repeat) {
    follow_regimen();
    for (std::size_t k = 0; k < n; ++k)
      for (std::size_t s = 0; s < states_; ++s) {
        double& size = sizes[k][static_cast<Eigen::Index>(s)];
        size = std::max(size, std::fabs(outcome_[s * n + k]));
        trial_[s * n + k] = outcome_[s * n + k];
      }
  }
  const double tolerance = integrator_.exact() ? exact_tolerance : 10.0 * settings_.relative;
  Eigen::VectorXd x(static_cast<Eigen::Index>(states_));
  for (std::size_t k = 0; k < n; ++k) {
    for (std::size_t s = 0; s < states_; ++s) x[static_cast<Eigen::Index>(s)] = trial_[s * n + k];
    if (x.allFinite()) searches_[tasks_[k].individual].begin(x, sizes[k], {.tolerance = tolerance});
  }
  search([&] {
    tasks_.clear();
    for (const wanted_state& w : wanted_) tasks_.push_back({.individual = w.individual});
    follow_regimen();
    for (std::size_t i = 0; i < states_ * wanted_.size(); ++i) outcome_[i] -= trial_[i];
  });
}

// The state at which a constant rate is in balance.
void equation_run::find_resting_states(const double* initial) {
  const dose& d = *regimen_.given;
  const std::size_t count = formulas_.count();
  const std::size_t stride = formulas_.stride();
  double* const states = new_rows(states_);
  double* const slopes = new_rows(states_);
  std::copy(initial, initial + states_ * stride, states);
  const auto evaluate = [&] {
    const std::size_t n = wanted_.size();
    for (std::size_t number = 0; number < states_; ++number) {
      const auto is_due = [&](const wanted_state& w) { return w.number == number; };
      if (std::none_of(wanted_.begin(), wanted_.end(), is_due)) continue;
      for (std::size_t w = 0; w < n; ++w)
        for (std::size_t s = 0; is_due(wanted_[w]) && s < states_; ++s)
          states[s * stride + wanted_[w].individual] = trial_[s * n + w];
      formulas_.derivatives(regimen_.table, d.time, states, slopes);
      for (std::size_t w = 0; w < n; ++w) {
        if (!is_due(wanted_[w])) continue;
        const std::size_t j = wanted_[w].individual;
        const arrival forever = effect_of(d, *regimen_.facts, j);
        for (std::size_t s = 0; s < states_; ++s)
          outcome_[s * n + w] = slopes[s * stride + j] + (s == forever.state ? forever.rate : 0.0);
      }
    }
  };

  // The sizes of the states are known after a first search.
  const auto size = static_cast<Eigen::Index>(states_);
  Eigen::VectorXd sizes(size);
  for (const bool again : {false, true}) {
    for (std::size_t j = 0; j < count; ++j) {
      if (failed(j) || (again && !searches_[j].found())) continue;
      const double rate = std::fabs(effect_of(d, *regimen_.facts, j).rate);
      Eigen::VectorXd x(size);
      for (Eigen::Index k = 0; k < size; ++k) {
        x[k] =
            again ? searches_[j].solution()[k] : initial[static_cast<std::size_t>(k) * stride + j];
        const bool known = again && x[k] != 0.0;
        sizes[k] =
            known ? std::fabs(x[k])
                  : std::max(std::fabs(initial[static_cast<std::size_t>(k) * stride + j]), rate);
      }
      searches_[j].begin(
          x, sizes,
          {.tolerance = std::min(settings_.relative, most_tolerance), .difference = 1e-6});
    }
    search(evaluate);
  }
}

}  // namespace varda
