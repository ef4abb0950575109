// SPDX-License-Identifier: Apache-2.0
#include "varda/model/closed/linear_compartments.h"

#include <algorithm>

#include "varda/model/lanes/array.h"

namespace varda {

namespace {

// So many individuals at once: their rate constants stay in the first cache.
constexpr std::size_t block = 64;
constexpr std::size_t most_rates = 6;

// What is still to come of doses: memory that grows while predictions are made.
struct entry_memory : closed_entries {
  entry_memory() {
    entries.resize(16);
    first = entries.data();
    capacity = entries.size();
    grow = [](closed_entries& self) {
      auto& me = static_cast<entry_memory&>(self);
      me.entries.resize(2 * me.entries.size());
      me.first = me.entries.data();
      me.capacity = me.entries.size();
    };
  }
  std::vector<closed_entry> entries;
};

}  // namespace

struct linear_compartments::own_workspace final : workspace {
  explicit own_workspace(const lane_kernel& with) : kernel(with) {}
  const lane_kernel& kernel;
  std::vector<closed_step> steps;
  std::vector<closed_dose> doses;
  std::vector<closed_parameters> sets;
  std::vector<double> kept;  // times between changes that have a place where decays are kept
  lane_array rates;
  lane_array lines;
  entry_memory waiting;
};

linear_compartments::linear_compartments(int compartments,
                                         const std::vector<std::string>& disposition,
                                         const administration_choice& choice)
    : compartments_(compartments), of_disposition_(disposition.size()), choice_(choice) {
  if (choice.by == route::oral) names_.emplace_back("ka");
  names_.insert(names_.end(), disposition.begin(), disposition.end());
  if (choice.modelled_rate) names_.emplace_back("R");
  if (has_duration()) names_.emplace_back("D");
  if (choice.lag_time) names_.emplace_back("Tlag");
  if (choice.bioavailability) names_.emplace_back("F");
}

std::unique_ptr<structural_model::workspace> linear_compartments::make_workspace() const {
  return make_workspace(best_lane_kernel());
}

std::unique_ptr<structural_model::workspace> linear_compartments::make_workspace(
    const lane_kernel& kernel) const {
  return std::make_unique<own_workspace>(kernel);
}

closed_dose linear_compartments::taken_up(const dose& d) const {
  const bool oral = choice_.by == route::oral;
  closed_dose u;
  u.time = d.time;
  u.amount = d.amount;
  u.rate = d.rate;
  u.steady_state = d.steady_state;
  u.interval = d.interval;
  // A depot comes first in the numbers of the data and last here.
  const auto number = static_cast<std::uint32_t>(d.compartment - 1);
  const auto depot = static_cast<std::uint32_t>(compartments_);
  u.compartment = !oral ? number : number == 0 ? depot : number - 1;
  u.delayed = !oral || u.compartment == depot;
  switch (d.input) {
    case dose_input::bolus:
      u.input = choice_.by == route::zero_order && number == 0 ? closed_input::over_parameter
                                                               : closed_input::at_once;
      break;
    case dose_input::infusion:
      u.input = closed_input::at_rate;
      break;
    case dose_input::modelled_rate:
      u.input = closed_input::at_parameter;
      break;
    case dose_input::modelled_duration:
      u.input = closed_input::over_parameter;
      break;
  }
  return u;
}

void linear_compartments::lay_out(const subject& who, bool constant, own_workspace& own) const {
  using kind = closed_step::kind;
  own.doses.clear();
  for (const dose& d : who.doses) own.doses.push_back(taken_up(d));
  own.steps.clear();
  own.kept.clear();
  const bool repeats = who.doses.size() > 1;
  int in_force = 0;
  double change = who.timeline.empty() ? 0.0 : who.timeline.front().time;
  const auto place_of = [&](double time) {
    if (!repeats || !(time > 0.0)) return closed_step::not_kept;
    const auto known = std::find(own.kept.begin(), own.kept.end(), time);
    const auto place = static_cast<std::uint32_t>(known - own.kept.begin());
    if (known != own.kept.end()) return place;
    if (own.kept.size() == closed_problem::most_kept) return closed_step::not_kept;
    own.kept.push_back(time);
    return place;
  };
  for (const event& e : who.timeline) {
    if (e.kind == event_kind::segment && constant) continue;
    if (e.kind == event_kind::instant) continue;
    closed_step step;
    step.index = static_cast<std::uint32_t>(e.index);
    step.time = e.time;
    switch (e.kind) {
      case event_kind::observation:
        step.what = kind::observe;
        break;
      case event_kind::dose:
        step.what = kind::give;
        if (const int set = who.doses[step.index].record_segment;
            !constant && set >= 0 && set != in_force)
          own.doses[step.index].set = static_cast<std::uint32_t>(set);
        break;
      case event_kind::reset:
        step.what = kind::reset;
        break;
      case event_kind::segment:
        step.what = kind::change;
        in_force = e.index;
        break;
      case event_kind::instant:
        break;
    }
    if (step.what != kind::observe) {
      step.kept = place_of(e.time - change);
      change = e.time;
    }
    own.steps.push_back(step);
  }
}

void linear_compartments::set_parameters(const parameter_block& p, std::size_t first,
                                         std::size_t count, own_workspace& own) const {
  own.sets.resize(p.sets);
  own.rates.reserve(p.sets * most_rates * block);
  for (std::size_t s = 0; s < p.sets; ++s) {
    const double* next = p.values + s * p.parameters * p.stride + first;
    const auto row = [&](bool there) {
      const double* const here = next;
      if (there) next += p.stride;
      return there ? here : nullptr;
    };
    closed_parameters& set = own.sets[s];
    set.absorption = row(choice_.by == route::oral);
    const double* const disposition = next;
    next += of_disposition_ * p.stride;
    set.rate = row(choice_.modelled_rate);
    set.duration = row(has_duration());
    set.lag_time = row(choice_.lag_time);
    set.bioavailability = row(choice_.bioavailability);

    double* const rates = own.rates.data() + s * most_rates * block;
    const rate_rows rows = {rates,
                            rates + block,
                            {rates + 2 * block, rates + 3 * block},
                            {rates + 4 * block, rates + 5 * block}};
    write_rates(disposition, p.stride, count, rows);
    set.volume = rows.volume;
    set.elimination = rows.elimination;
    std::copy(rows.to, rows.to + 2, set.to);
    std::copy(rows.from, rows.from + 2, set.from);
  }
}

void linear_compartments::predict(const subject& who, const parameter_block& p,
                                  const prediction_block& f, workspace& scratch) const {
  auto& own = static_cast<own_workspace&>(scratch);
  lay_out(who, p.sets == 1, own);
  own.lines.reserve(f.observations * closed_problem::line);
  for (std::size_t first = 0; first < p.individuals; first += block) {
    const std::size_t count = std::min(block, p.individuals - first);
    set_parameters(p, first, count, own);
    own.kernel.closed_forms[compartments_ - 1](
        {.steps = own.steps.data(),
         .count = own.steps.size(),
         .begin = who.timeline.empty() ? 0.0 : who.timeline.front().time,
         .doses = own.doses.data(),
         .sets = own.sets.data(),
         .waiting = &own.waiting,
         .lines = own.lines.data(),
         .individuals = count,
         .f = f.values + first,
         .stride = f.stride,
         .observations = f.observations});
  }
}

}  // namespace varda
