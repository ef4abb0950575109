// SPDX-License-Identifier: Apache-2.0
#include "varda/draft/catalogue.h"

#include <fmt/format.h>

#include "varda/model/structural_model.h"

namespace varda {

namespace {

constexpr std::string_view zero_order = " zero-order";
constexpr std::string_view intravenous = " intravenous";

// The closed form with zero-order absorption: that of intravenous doses with one parameter more.
std::optional<ready_structure> zero_order_form(const std::string& name) {
  if (!name.ends_with(zero_order)) return std::nullopt;
  const std::string compartments = name.substr(0, name.size() - zero_order.size());
  std::optional<ready_structure> s = find_ready_structure(compartments + std::string(intravenous));
  if (!s || !make_structural_model({.name = name})) return std::nullopt;
  s->name = name;
  s->about.replace(s->about.rfind("intravenous doses"), std::string::npos, "zero-order absorption");
  s->parameters.push_back(
      {"D", "duration of absorption", "time", 2.0, distribution::log_normal, "tmax"});
  s->equations = {};
  return s;
}

}  // namespace

std::vector<structure_group> structure_groups() {
  std::vector<structure_group> groups = {
      {"Linear compartments (closed form)", {}},
      {"Other pharmacokinetics", {}},
      {"Responses: PHARMACOKINETICS + RESPONSE", {}},
      {"Without pharmacokinetics", {}},
  };
  for (const std::string& name : structural_model_names())
    if (!name.ends_with(" bolus"))
      groups[0].structures.push_back({name, structure_called(name).about});
  for (const ready_structure& s : ready_structures()) {
    if (make_structural_model({.name = s.name})) continue;
    const std::size_t group = 1 + static_cast<std::size_t>(s.kind);
    groups[group].structures.push_back({s.name, s.about});
  }
  return groups;
}

ready_structure structure_called(const std::string& name) {
  if (const auto found = find_ready_structure(name)) return *found;
  if (const auto found = zero_order_form(name)) return *found;
  std::vector<std::string> known = structural_model_names();
  for (const ready_structure& s : ready_structures()) known.push_back(s.name);
  const std::string near = did_you_mean(name, known);
  throw bad_input({.code = "E-NEW-STRUCTURE",
                   .message = fmt::format("there is no structure \"{}\"", name),
                   .remedy = near.empty() ? "varda new --list shows all structures"
                                          : fmt::format("did you mean \"{}\"?", near)});
}

}  // namespace varda
