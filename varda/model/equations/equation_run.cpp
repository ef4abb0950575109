// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/equation_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "varda/model/equations/outcome_formulas.h"
#include "varda/support/stop.h"
#include "varda/support/text.h"

namespace varda {

namespace {

// More individuals take the memory of a subject's observations out of the second cache and gain
// nothing.
constexpr std::size_t most_individuals = 256;

}  // namespace

equation_run::equation_run(const formula_program& program, const solver_settings& settings,
                           const lane_kernel& kernel, std::size_t block)
    : program_(program),
      settings_(settings),
      formulas_(program, kernel),
      integrator_(program, settings, kernel, block),
      states_(program.states().size()),
      writer_(states_) {}

void equation_run::predict(const subject& who, const parameter_block& p,
                           const std::vector<int>& positions, const prediction_block& f) {
  first_failure_ = {};
  if (who.timeline.empty()) return;
  who_ = &who;
  scale_ = largest_dose(who);
  for (std::size_t first = 0; first < p.individuals; first += most_individuals) {
    const std::size_t count = std::min(most_individuals, p.individuals - first);
    if (!stop_requested()) {
      predict_some(who, p, first, count, positions, f);
      continue;
    }
    for (std::size_t k = 0; k < f.observations; ++k)
      std::fill_n(f.values + k * f.stride + first, count, std::numeric_limits<double>::quiet_NaN());
  }
}

void equation_run::predict_some(const subject& who, const parameter_block& p, std::size_t first,
                                std::size_t count, const std::vector<int>& positions,
                                const prediction_block& f) {
  failures_.assign(count, {});
  stiff_.assign(count, 0);
  used_memory_ = 0;
  formulas_.begin(who, p, first, count, positions);
  tables_.stride = formulas_.stride();
  tables_.initial.clear();
  tables_.settled.clear();
  lay_out(who);
  find_steady_states();
  list_tables();
  solve();
  write_outputs(first, f);
  const auto bad = std::find_if(failures_.begin(), failures_.end(),
                                [](const failure& one) { return one.why != reason::none; });
  if (bad != failures_.end() && first_failure_.why == reason::none) first_failure_ = *bad;
}

double* equation_run::new_rows(std::size_t rows) {
  if (used_memory_ == memory_.size()) memory_.emplace_back();
  lane_array& one = memory_[used_memory_++];
  one.reserve(rows * formulas_.stride());
  return one.data();
}

void equation_run::list_tables() {
  tables_.constants.clear();
  for (std::size_t k = 0; k < formulas_.tables(); ++k)
    tables_.constants.push_back(formulas_.table(k));
}

void equation_run::fail(std::size_t individual, const failure& how) {
  if (!failed(individual)) failures_[individual] = how;
}

// Evaluates what the formulas say of all events; none of it depends on a state.
void equation_run::lay_out(const subject& who) {
  stages_.resize(who.timeline.size() + 1);
  facts_.assign(who.doses.size(), {});
  stage current;
  current.table = formulas_.table_of(current.now);
  current.initial = add_initial(current.now, who.timeline.front().time);
  stages_[0] = current;
  common_times_ = true;
  for (std::size_t i = 0; i < who.timeline.size(); ++i) {
    const event& e = who.timeline[i];
    switch (e.kind) {
      case event_kind::observation:
        break;
      case event_kind::dose: {
        const dose& d = who.doses[static_cast<std::size_t>(e.index)];
        current.now.dosed = true;
        current.now.dose_time = d.time;
        current.now.dose = d.amount;
        if (program_.summed_doses() > 0 && d.compartment == 1)
          current.now.summed.push_back({d.time, d.amount});
        // What is said at a record holds for its additional doses.
        const bool additional = d.record_segment >= 0;
        epoch at_record = current.now;
        if (additional) at_record.segment = d.record_segment;
        if (additional) at_record.dose_time = d.record_time;
        evaluate_dose(d, at_record, additional ? d.record_time : d.time,
                      facts_[static_cast<std::size_t>(e.index)]);
        break;
      }
      case event_kind::reset:
        current.now = {.segment = current.now.segment};
        current.initial = add_initial(current.now, e.time);
        break;
      case event_kind::segment:
        current.now.segment = e.index;
        break;
      case event_kind::instant:
        break;
    }
    if (e.kind != event_kind::observation && e.kind != event_kind::instant)
      current.table = formulas_.table_of(current.now);
    stages_[i + 1] = current;
  }
}

std::size_t equation_run::add_initial(const epoch& now, double time) {
  double* const rows = new_rows(states_);
  formulas_.initial(now, time, rows);
  for (std::size_t j = 0; j < formulas_.count(); ++j)
    for (const std::size_t s : program_.initial_states()) {
      const double value = rows[s * formulas_.stride() + j];
      if (!std::isfinite(value))
        fail(j, {.why = reason::initial, .time = time, .which = s, .value = value});
    }
  tables_.initial.push_back(rows);
  return tables_.initial.size() - 1;
}

void equation_run::evaluate_dose(const dose& d, const epoch& now, double time, dose_facts& facts) {
  const auto state = static_cast<std::size_t>(d.compartment - 1);
  const auto evaluate = [&](dose_property what, bool zero_allowed) {
    if (!program_.has(what, state)) return;
    double* const row = new_rows(1);
    formulas_.of_dose(what, state, now, time, row);
    facts.rows[static_cast<std::size_t>(what)] = row;
    for (std::size_t j = 0; j < formulas_.count(); ++j)
      if (!(std::isfinite(row[j]) && (row[j] > 0.0 || (zero_allowed && row[j] == 0.0))))
        fail(j, {.why = reason::dose_property,
                 .time = d.time,
                 .which = state,
                 .value = row[j],
                 .property = what});
  };
  evaluate(dose_property::lag, true);
  evaluate(dose_property::bioavailability, true);
  if (d.input == dose_input::modelled_rate) evaluate(dose_property::rate, false);
  if (d.input == dose_input::modelled_duration) evaluate(dose_property::duration, true);
  const auto known = [&](dose_property what) {
    return facts.rows[static_cast<std::size_t>(what)] != nullptr;
  };
  // What depends on the individual, other than how much of a dose arrives.
  if (known(dose_property::lag) || known(dose_property::rate) || known(dose_property::duration) ||
      (d.input != dose_input::bolus && known(dose_property::bioavailability)))
    common_times_ = false;
}

// What of a dose arrives, and when. An infusion whose rate is given lasts as long as the amount
// that is available; one whose duration is given has its rate. Where times are common to all
// individuals, the share of each remains to be applied.
arrival equation_run::effect_of(const dose& d, const dose_facts& facts,
                                std::size_t individual) const {
  const auto row = [&](dose_property what) { return facts.rows[static_cast<std::size_t>(what)]; };
  const auto value = [&](dose_property what, double otherwise) {
    return row(what) == nullptr ? otherwise : row(what)[individual];
  };
  arrival effect;
  effect.state = static_cast<std::size_t>(d.compartment - 1);
  effect.time = d.time + value(dose_property::lag, 0.0);
  const double share = common_times_ ? 1.0 : value(dose_property::bioavailability, 1.0);
  const double amount = share * d.amount;
  const auto infuse = [&](double rate) {
    effect.rate = rate;
    effect.duration = amount / rate;
  };
  const auto at_once = [&] {
    effect.amount = amount;
    if (common_times_) effect.share = row(dose_property::bioavailability);
  };
  switch (d.input) {
    case dose_input::bolus:
      at_once();
      break;
    case dose_input::infusion:
      infuse(d.rate);
      break;
    case dose_input::modelled_rate:
      infuse(value(dose_property::rate, 0.0));
      break;
    case dose_input::modelled_duration: {
      const double duration = value(dose_property::duration, 0.0);
      if (duration == 0.0) {
        at_once();
      } else {
        effect.rate = amount / duration;
        effect.duration = duration;
      }
      break;
    }
  }
  return effect;
}

const script& equation_run::script_of(std::size_t individual, script& memory) {
  if (failed(individual)) {
    memory.clear();
    return memory;
  }
  if (common_times_) return common_;
  if (regimen_.given != nullptr)
    write_regimen(memory, individual);
  else
    write_script(memory, individual);
  return memory;
}

void equation_run::write_script(script& to, std::size_t individual) {
  using kind = instruction::kind;
  writer_.begin(to, who_->timeline.front().time);
  writer_.note(kind::constants, stages_[0].table);
  writer_.note(kind::reset, stages_[0].initial);
  for (std::size_t i = 0; i < who_->timeline.size(); ++i) {
    const event& e = who_->timeline[i];
    const auto at = static_cast<std::size_t>(e.index);
    writer_.go_to(e.time);
    if (e.kind == event_kind::observation) {
      writer_.note(kind::observe, at);
      continue;
    }
    if (e.kind == event_kind::instant) {
      writer_.note(kind::observe, who_->observations.size() + at);
      continue;
    }
    writer_.note(kind::constants, stages_[i + 1].table);
    if (e.kind == event_kind::dose) give(who_->doses[at], facts_[at], individual);
    // Whatever was given before has no effect any more, doses that are still to arrive included.
    if (e.kind == event_kind::reset) {
      writer_.forget();
      writer_.note(kind::reset, stages_[i + 1].initial);
    }
  }
}

// A dose at steady state adds what the regimen has built up until now over the initial values, then
// what of it is still to come: infusions that run, doses on their way because of a lag, and the
// dose itself.
void equation_run::give(const dose& d, const dose_facts& facts, std::size_t individual) {
  const double now = writer_.time();
  const arrival first = effect_of(d, facts, individual);
  dose_schedule& schedule = writer_.schedule();
  if (!d.steady_state) {
    schedule.add(first);
    if (first.time <= now) writer_.apply();
    return;
  }
  writer_.note(instruction::kind::settle, facts.settled);
  if (d.interval > 0.0) {
    schedule.add_running(first, now, d.interval);
    const double lag = first.time - now;
    for (double before = 0.0; before <= lag; before += d.interval) {
      arrival due = first;
      due.time = first.time - before;
      schedule.add(due);
    }
  } else if (first.time > now) {
    arrival rest = first;
    rest.time = now;
    rest.duration = first.time - now;
    schedule.add(rest);
  }
  writer_.apply();
}

void equation_run::solve() {
  if (common_times_) write_script(common_, 0);
  tasks_.clear();
  for (std::size_t j = 0; j < formulas_.count(); ++j)
    tasks_.push_back({.individual = j, .stiff = stiff_[j] != 0});
  const std::size_t rows =
      (who_->observations.size() + static_cast<std::size_t>(who_->instants)) * states_;
  observed_.reserve(rows * formulas_.stride());
  const bool infusions = std::any_of(who_->doses.begin(), who_->doses.end(),
                                     [](const dose& d) { return d.input != dose_input::bolus; });
  integrator_.run({.tasks = &tasks_,
                   .scripts = this,
                   .tables = &tables_,
                   .common = common_times_ ? &common_ : nullptr,
                   .input = infusions,
                   .scale = scale_,
                   .observed = observed_.data(),
                   .observed_stride = formulas_.stride()});
  for (const lane_task& task : tasks_)
    if (task.status != ode_status::done)
      fail(task.individual, {.why = reason::solver, .time = task.reached, .status = task.status});
}

void equation_run::write_outputs(std::size_t first, const prediction_block& f) {
  const std::size_t count = formulas_.count();
  const std::size_t stride = formulas_.stride();
  double* const row = new_rows(1);
  const auto states_at = [&](int place) -> const double* {
    return place < 0 ? nullptr
                     : observed_.data() + static_cast<std::size_t>(place) * states_ * stride;
  };
  for (std::size_t i = 0; i < who_->timeline.size(); ++i) {
    const event& e = who_->timeline[i];
    if (e.kind != event_kind::observation) continue;
    const auto at = static_cast<std::size_t>(e.index);
    const observation& o = who_->observations[at];
    const std::size_t k = program_.output_of(o);
    formulas_.output({&o, states_at(o.at_begin), states_at(o.at_limit)}, stages_[i + 1].table,
                     states_at(e.index), row);
    std::copy(row, row + count, f.values + at * f.stride + first);
    // The hazard at the very beginning may be infinite where simulations ask for it.
    if (program_.is_unknown(k) || o.quantity > quantity::expected) continue;
    for (std::size_t j = 0; j < count; ++j)
      if (!std::isfinite(row[j]))
        fail(j, {.why = reason::output, .time = e.time, .which = k, .value = row[j]});
  }
  for (std::size_t j = 0; j < count; ++j)
    if (failed(j))
      for (std::size_t i = 0; i < f.observations; ++i)
        f.values[i * f.stride + first + j] = std::numeric_limits<double>::quiet_NaN();
}

std::string equation_run::last_failure() const {
  static constexpr const char* properties[] = {"lag", "bioavailability", "rate", "duration"};
  const failure& f = first_failure_;
  switch (f.why) {
    case reason::none:
      return "";
    case reason::steady_state:
      return fmt::format("the dose at time {} has no steady state, or none was found", f.time);
    case reason::dose_property:
      return fmt::format("the {} of doses into {} is {} at time {}",
                         properties[static_cast<std::size_t>(f.property)],
                         program_.states()[f.which], f.value, f.time);
    case reason::initial:
      return fmt::format("the initial value of {} is {}", program_.states()[f.which], f.value);
    case reason::output:
      if (f.which >= program_.named_outputs())
        return fmt::format("the endpoint {} has no finite likelihood or prediction at time {}",
                           program_.outputs()[f.which], f.time);
      return fmt::format("the output {} is {} at time {}", program_.outputs()[f.which], f.value,
                         f.time);
    case reason::solver:
      break;
  }
  switch (f.status) {
    case ode_status::too_many_steps:
      return fmt::format("the equations take more than {} between two events, after time {}{}",
                         count_of(settings_.max_steps, "step"), f.time,
                         settings_.method == solver_method::non_stiff
                             ? " (a stiff system needs method = \"stiff\")"
                             : "");
    case ode_status::step_too_small:
      return fmt::format("the equations cannot be solved to the tolerance at time {}", f.time);
    default:
      return fmt::format("the equations have no finite solution after time {}", f.time);
  }
}

}  // namespace varda
