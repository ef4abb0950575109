// SPDX-License-Identifier: Apache-2.0
#include "varda/model/structural_model.h"

#include <algorithm>
#include <utility>

#include "varda/model/closed/compartment_model.h"
#include "varda/model/closed/compartment_parameters.h"
#include "varda/model/equations/equation_model.h"
#include "varda/model/equations/formula_model.h"

namespace varda {

namespace {

using maker = std::unique_ptr<structural_model> (*)(const structure_choice&);

template <class Clearances, class Rates, route By>
std::unique_ptr<structural_model> make(const structure_choice& choice) {
  const bool intravenous = By == route::intravenous;
  const administration_choice given = {
      .by = By,
      .lag_time = choice.lag_time,
      .bioavailability = choice.bioavailability,
      .modelled_rate = intravenous && choice.modelled_rate,
      .modelled_duration = intravenous && choice.modelled_duration,
  };
  if (choice.by == parametrisation::rate_constant)
    return std::make_unique<compartment_model<Rates>>(given);
  return std::make_unique<compartment_model<Clearances>>(given);
}

using models = std::vector<std::pair<std::string, maker>>;

template <class Clearances, class Rates>
void add_routes(models& to, const std::string& compartments) {
  to.emplace_back(compartments + " intravenous", make<Clearances, Rates, route::intravenous>);
  to.emplace_back(compartments + " bolus", make<Clearances, Rates, route::intravenous>);
  to.emplace_back(compartments + " oral", make<Clearances, Rates, route::oral>);
  to.emplace_back(compartments + " zero-order", make<Clearances, Rates, route::zero_order>);
}

// Every structural model: a new one takes a class or a struct and a line here.
models list_models() {
  models all;
  add_routes<one_compartment_clearances, one_compartment_rates>(all, "one-compartment");
  add_routes<two_compartment_clearances, two_compartment_rates>(all, "two-compartment");
  add_routes<three_compartment_clearances, three_compartment_rates>(all, "three-compartment");
  return all;
}

const models& all_models() {
  static const models all = list_models();
  return all;
}

}  // namespace

void individual_model::predict(const subject& who, const parameter_block& p,
                               const prediction_block& f, workspace& scratch) const {
  const std::size_t size = p.parameters * p.sets;
  scratch.parameters.resize(size);
  scratch.predictions.resize(f.observations);
  for (std::size_t j = 0; j < p.individuals; ++j) {
    for (std::size_t k = 0; k < size; ++k) scratch.parameters[k] = p.values[k * p.stride + j];
    predict_individual(who, {scratch.parameters.data(), p.parameters, p.sets}, scratch.predictions,
                       scratch);
    for (std::size_t k = 0; k < f.observations; ++k)
      f.values[k * f.stride + j] = scratch.predictions[k];
  }
}

std::vector<std::string> structural_model_names() {
  std::vector<std::string> names;
  for (const auto& [name, make_it] : all_models()) names.push_back(name);
  return names;
}

std::unique_ptr<structural_model> make_structural_model(const structure_choice& choice) {
  if (choice.name == formula_structure) {
    // A hazard that is integrated makes a system of equations of it.
    const auto& outcomes = choice.equations.outcomes;
    if (std::none_of(outcomes.begin(), outcomes.end(),
                     [](const outcome_text& of) { return of.formula("hazard") != nullptr; }))
      return std::make_unique<formula_model>(choice.equations);
    return std::make_unique<equation_model>(choice.equations);
  }
  if (choice.name == equation_structure) return std::make_unique<equation_model>(choice.equations);
  for (const auto& [known, make_it] : all_models())
    if (known == choice.name) return make_it(choice);
  return nullptr;
}

}  // namespace varda
