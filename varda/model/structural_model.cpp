// SPDX-License-Identifier: Apache-2.0
#include "varda/model/structural_model.h"

#include <utility>

#include "varda/model/one_compartment.h"

namespace varda {

namespace {

using maker = std::unique_ptr<structural_model> (*)();

template <class Model>
std::unique_ptr<structural_model> make() {
  return std::make_unique<Model>();
}

// Every structural model: a new one takes a class and a line here.
const std::vector<std::pair<std::string, maker>>& all_models() {
  static const std::vector<std::pair<std::string, maker>> models = {
      {"one-compartment bolus", make<one_compartment_bolus>},
      {"one-compartment oral", make<one_compartment_oral>},
  };
  return models;
}

}  // namespace

std::vector<std::string> structural_model_names() {
  std::vector<std::string> names;
  for (const auto& [name, make_it] : all_models()) names.push_back(name);
  return names;
}

std::unique_ptr<structural_model> make_structural_model(const structure_choice& choice) {
  for (const auto& [known, make_it] : all_models())
    if (known == choice.name) return make_it();
  return nullptr;
}

}  // namespace varda
