// SPDX-License-Identifier: Apache-2.0
#include "varda/model/structural_model.h"

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

std::unique_ptr<structural_model::workspace> structural_model::make_workspace() const {
  return std::make_unique<workspace>();
}

// One individual after the other.
void structural_model::predict(const subject& who, const parameter_block& p,
                               const prediction_block& f, workspace&) const {
  std::vector<double> values(p.parameters * p.sets);
  std::vector<double> predictions(f.observations);
  for (std::size_t j = 0; j < p.lanes; ++j) {
    for (std::size_t k = 0; k < values.size(); ++k) values[k] = p.values[k * p.stride + j];
    predict(who, parameter_path(values.data(), p.parameters, p.sets), predictions);
    for (std::size_t i = 0; i < f.observations; ++i) f.values[i * f.stride + j] = predictions[i];
  }
}

std::string structural_model::last_failure(const workspace&) const {
  return {};
}

void structural_model::predict(const subject& who, const parameter_path& p,
                               std::span<double> f) const {
  if (own_ == nullptr) own_ = make_workspace();
  predict(who, p.block(), {f.data(), f.size(), 1, 1}, *own_);
}

std::string structural_model::last_failure() const {
  return own_ == nullptr ? std::string() : last_failure(*own_);
}

std::vector<std::string> structural_model_names() {
  std::vector<std::string> names;
  for (const auto& [name, make_it] : all_models()) names.push_back(name);
  return names;
}

std::unique_ptr<structural_model> make_structural_model(const structure_choice& choice) {
  if (choice.name == formula_structure) return std::make_unique<formula_model>(choice.equations);
  if (choice.name == equation_structure) return std::make_unique<equation_model>(choice.equations);
  for (const auto& [known, make_it] : all_models())
    if (known == choice.name) return make_it(choice);
  return nullptr;
}

}  // namespace varda
