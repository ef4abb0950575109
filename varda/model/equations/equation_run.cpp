// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/equation_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace varda {

namespace {

// An infusion that lasts longer than so many dosing intervals is taken for a slip in the data.
constexpr double most_overlaps = 1000.0;

double largest_dose(const subject& who) {
  double largest = 0.0;
  for (const dose& d : who.doses) largest = std::max(largest, std::fabs(d.amount));
  return largest > 0.0 ? largest : 1.0;
}

// Of a regimen that gives `one` every `interval`, the infusions that began before `at` and still
// run.
void add_running(dose_schedule& to, const arrival& one, double at, double interval) {
  if (one.rate == 0.0) return;
  const double since = std::fmod(one.time - at, interval);
  for (int k = 1; at + since - k * interval + one.duration > at; ++k) {
    arrival earlier = one;
    earlier.time = at + since - k * interval;
    to.add(earlier);
  }
}

}  // namespace

equation_run::equation_run(formula_program& program, const solver_settings& settings)
    : program_(program),
      settings_(settings),
      search_(program.states().size()),
      x_(program.states().size()),
      schedule_(x_.size()),
      regimen_(x_.size()),
      present_(x_.size()),
      initial_(x_.size()),
      trial_(x_.size()),
      sizes_(x_.size()) {
  solver_ = make_ode_solver(*this, settings);
}

bool equation_run::predict(const subject& who, const parameter_path& p,
                           const std::vector<int>& positions, std::span<double> f) {
  why_ = failure::none;
  if (walk(who, p, positions, f)) {
    why_ = failure::none;  // a search may have tried a state in vain
    return true;
  }
  std::fill(f.begin(), f.end(), std::numeric_limits<double>::quiet_NaN());
  return false;
}

bool equation_run::walk(const subject& who, const parameter_path& p,
                        const std::vector<int>& positions, std::span<double> f) {
  if (who.timeline.empty()) return true;
  time_ = who.timeline.front().time;
  program_.enter_segment(who, 0, p, positions);
  solver_->set_scale(largest_dose(who));
  if (!reset()) return false;
  for (const event& e : who.timeline) {
    if (!advance(e.time)) return false;
    const auto at = static_cast<std::size_t>(e.index);
    bool good = true;
    switch (e.kind) {
      case event_kind::dose:
        good = give(who.doses[at]);
        break;
      case event_kind::observation:
        good = observe(who, at, f);
        break;
      case event_kind::reset:
        good = reset();
        break;
      case event_kind::segment:
        program_.enter_segment(who, e.index, p, positions);
        solver_->restart();
        break;
    }
    if (!good) return false;
  }
  return true;
}

void equation_run::derivative(double t, const double* x, double* dxdt) {
  program_.derivatives(t, x, dxdt);
  const std::vector<double>& rates = doses_->rates();
  for (std::size_t s = 0; s < rates.size(); ++s) dxdt[s] += rates[s];
}

// Whatever was given before has no effect any more, doses that are still to arrive included.
bool equation_run::reset() {
  doses_ = &schedule_;
  schedule_.clear();
  program_.forget_doses();
  solver_->restart();
  for (std::size_t s = 0; s < x_.size(); ++s) {
    x_[s] = program_.initial(s, time_);
    if (!std::isfinite(x_[s])) return fail(failure::initial, time_, s, x_[s]);
  }
  return true;
}

bool equation_run::advance(double to) {
  for (;;) {
    const double change = doses_->next_change();
    const double stop = std::min(to, change);
    if (stop > time_) {
      status_ = solver_->advance(time_, stop, x_);
      if (status_ != ode_status::done) return fail(failure::solver, solver_->reached());
      time_ = stop;
    }
    if (change > to) return true;
    doses_->apply(change, x_);
    solver_->restart();
  }
}

bool equation_run::observe(const subject& who, std::size_t observation, std::span<double> f) {
  const bool common = program_.outputs().size() == 1;
  const auto k = common ? 0 : static_cast<std::size_t>(who.observations[observation].endpoint);
  f[observation] = program_.output(k, time_, x_);
  return std::isfinite(f[observation]) || fail(failure::output, time_, k, f[observation]);
}

bool equation_run::give(const dose& d) {
  program_.set_dose(d.time, d.amount);
  const std::optional<arrival> effect = effect_of(d);
  if (!effect) return false;
  solver_->restart();
  if (d.steady_state) return give_at_steady_state(d, *effect);
  schedule_.add(*effect);
  if (effect->time <= time_) schedule_.apply(time_, x_);
  return true;
}

std::optional<double> equation_run::property(dose_property what, std::size_t state,
                                             double otherwise) {
  if (!program_.has(what, state)) return otherwise;
  const double value = program_.of_dose(what, state, time_);
  if (std::isfinite(value) && value >= 0.0) return value;
  which_property_ = what;
  fail(failure::dose_property, time_, state, value);
  return std::nullopt;
}

// What of a dose arrives, and when. An infusion whose rate is given lasts as long as the amount
// that is available; one whose duration is given has its rate.
std::optional<arrival> equation_run::effect_of(const dose& d) {
  arrival effect;
  effect.state = static_cast<std::size_t>(d.compartment - 1);
  const auto lag = property(dose_property::lag, effect.state, 0.0);
  const auto share = property(dose_property::bioavailability, effect.state, 1.0);
  if (!lag || !share) return std::nullopt;
  effect.time = d.time + *lag;
  const double amount = *share * d.amount;
  const auto infuse = [&](double rate) {
    effect.rate = rate;
    effect.duration = amount / rate;
  };
  switch (d.input) {
    case dose_input::bolus:
      effect.amount = amount;
      break;
    case dose_input::infusion:
      infuse(d.rate);
      break;
    case dose_input::modelled_rate: {
      const auto rate = property(dose_property::rate, effect.state, 0.0);
      if (!rate) return std::nullopt;
      if (*rate == 0.0) {
        which_property_ = dose_property::rate;
        fail(failure::dose_property, time_, effect.state, 0.0);
        return std::nullopt;
      }
      infuse(*rate);
      break;
    }
    case dose_input::modelled_duration: {
      const auto duration = property(dose_property::duration, effect.state, 0.0);
      if (!duration) return std::nullopt;
      if (*duration == 0.0) {
        effect.amount = amount;
      } else {
        effect.rate = amount / *duration;
        effect.duration = *duration;
      }
      break;
    }
  }
  return effect;
}

// Adds what the regimen has built up until now over the initial values, then what of it is still to
// come: infusions that run, doses on their way because of a lag, and the dose itself.
bool equation_run::give_at_steady_state(const dose& d, const arrival& first) {
  const double now = time_;
  for (std::size_t s = 0; s < x_.size(); ++s) initial_[s] = program_.initial(s, now);
  present_ = x_;
  x_ = initial_;
  doses_ = &regimen_;
  const bool found =
      d.interval > 0.0 ? find_periodic_state(d, first) : find_resting_state(d, first);
  doses_ = &schedule_;
  time_ = now;
  solver_->restart();
  program_.set_dose(d.time, d.amount);
  if (!found) return why_ == failure::none ? fail(failure::steady_state, now) : false;
  for (std::size_t s = 0; s < x_.size(); ++s) x_[s] = present_[s] + (x_[s] - initial_[s]);

  if (d.interval > 0.0) {
    add_running(schedule_, first, now, d.interval);
    const double lag = first.time - now;
    for (double before = 0.0; before <= lag; before += d.interval) {
      arrival due = first;
      due.time = first.time - before;
      schedule_.add(due);
    }
  } else if (first.time > now) {
    arrival rest = first;
    rest.time = now;
    rest.duration = first.time - now;
    schedule_.add(rest);
  }
  schedule_.apply(now, x_);
  return true;
}

// The state at the time of a dose record that was repeated for ever before.
bool equation_run::find_periodic_state(const dose& d, const arrival& first) {
  const double end = time_;
  const double begin = end - d.interval;
  if (first.duration > most_overlaps * d.interval) return false;
  const auto repeat = [&] {
    time_ = begin;
    regimen_.clear();
    add_running(regimen_, first, begin, d.interval);
    arrival within = first;
    within.time = begin + std::fmod(first.time - end, d.interval);
    regimen_.add(within);
    regimen_.apply(begin, x_);
    solver_->restart();
    program_.set_dose(begin, d.amount);
    return advance(end);
  };

  const double amount = first.amount + first.rate * first.duration;
  const double given = amount > 0.0 ? amount : 1.0;
  std::fill(sizes_.begin(), sizes_.end(), 1e-3 * given);
  sizes_[first.state] = given;
  for (int k = 0; k < 2; ++k) {
    if (!repeat()) return false;
    for (std::size_t s = 0; s < x_.size(); ++s) sizes_[s] = std::max(sizes_[s], std::fabs(x_[s]));
  }
  trial_ = x_;
  const auto residual = [&](std::span<const double> x, std::span<double> change) {
    std::copy(x.begin(), x.end(), x_.begin());
    if (!repeat()) return false;
    for (std::size_t s = 0; s < x_.size(); ++s) change[s] = x_[s] - x[s];
    return true;
  };
  const bool found = search_.find(
      {.residual = residual, .sizes = sizes_, .tolerance = 10.0 * settings_.relative}, trial_);
  x_ = trial_;
  return found;
}

// The state at which a constant rate is in balance.
bool equation_run::find_resting_state(const dose& d, const arrival& forever) {
  regimen_.clear();
  arrival endless = forever;
  endless.time = time_;
  endless.duration = dose_schedule::never;
  regimen_.add(endless);
  regimen_.apply(time_, x_);
  const auto residual = [&](std::span<const double> x, std::span<double> change) {
    derivative(d.time, x.data(), change.data());
    return std::all_of(change.begin(), change.end(), [](double v) { return std::isfinite(v); });
  };
  // The sizes of the states are known after a first search.
  for (std::size_t s = 0; s < x_.size(); ++s)
    sizes_[s] = std::max(std::fabs(x_[s]), std::fabs(forever.rate));
  for (int k = 0; k < 2; ++k) {
    trial_ = x_;
    if (!search_.find({.residual = residual,
                       .sizes = sizes_,
                       .tolerance = settings_.relative,
                       .difference = 1e-6},
                      trial_))
      return false;
    x_ = trial_;
    for (std::size_t s = 0; s < x_.size(); ++s)
      if (x_[s] != 0.0) sizes_[s] = std::fabs(x_[s]);
  }
  return true;
}

bool equation_run::fail(failure why, double time, std::size_t which, double value) {
  why_ = why;
  failed_at_ = time;
  which_ = which;
  failed_value_ = value;
  return false;
}

std::string equation_run::last_failure() const {
  static constexpr const char* properties[] = {"lag", "bioavailability", "rate", "duration"};
  switch (why_) {
    case failure::none:
      return "";
    case failure::steady_state:
      return fmt::format("the dose at time {} has no steady state, or none was found", failed_at_);
    case failure::dose_property:
      return fmt::format("the {} of doses into {} is {} at time {}",
                         properties[static_cast<std::size_t>(which_property_)],
                         program_.states()[which_], failed_value_, failed_at_);
    case failure::initial:
      return fmt::format("the initial value of {} is {}", program_.states()[which_], failed_value_);
    case failure::output:
      return fmt::format("the output {} is {} at time {}", program_.outputs()[which_],
                         failed_value_, failed_at_);
    case failure::solver:
      break;
  }
  switch (status_) {
    case ode_status::too_many_steps:
      return fmt::format(
          "the equations take more than {} steps between two events, after time {}{}",
          settings_.max_steps, failed_at_,
          settings_.stiff ? "" : " (a stiff system needs method = \"stiff\")");
    case ode_status::step_too_small:
      return fmt::format("the equations cannot be solved to the tolerance at time {}", failed_at_);
    default:
      return fmt::format("the equations have no finite solution after time {}", failed_at_);
  }
}

}  // namespace varda
