// SPDX-License-Identifier: Apache-2.0
#include "varda/input/model_file_parts.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "varda/input/ready_structures.h"
#include "varda/model/structural_model.h"

namespace varda {

namespace {

void read_compartments(section& from, structure_choice& choice) {
  choice.by = from.kind_or("parametrisation", choice.by);
  choice.lag_time = from.flag_or("lag_time", false);
  choice.bioavailability = from.flag_or("bioavailability", false);
  choice.modelled_rate = from.flag_or("modelled_rate", false);
  choice.modelled_duration = from.flag_or("modelled_duration", false);
  if (choice.name.ends_with("intravenous") || choice.name.ends_with("bolus")) return;
  for (const char* key : {"modelled_rate", "modelled_duration"})
    if (from.has(key))
      throw from.error("E-MODEL-KEY", key, "only intravenous models take this key",
                       "the duration of zero-order absorption is always a parameter");
}

std::optional<ready_structure> find_or_refuse(section& from, const std::string& name) {
  try {
    return find_ready_structure(name);
  } catch (const bad_input& error) {
    const finding& found = error.what_found();
    throw from.error(found.code, "structure", found.message, found.remedy);
  }
}

// The lists are too long for a message.
bad_input unknown_structure(const section& from, const std::string& name,
                            const std::vector<std::string>& structures) {
  const std::size_t plus = name.find(" + ");
  for (const std::string& part :
       {name.substr(0, plus), plus == std::string::npos ? "" : name.substr(plus + 3)}) {
    if (part.empty() || find_ready_structure(part)) continue;
    const std::string near = did_you_mean(part, structures);
    if (near.empty()) break;
    return from.error("E-MODEL-WORD", "structure", fmt::format("\"{}\" is not known here", part),
                      fmt::format("did you mean \"{}\"?", near));
  }
  return from.error("E-MODEL-WORD", "structure", fmt::format("\"{}\" is not known here", name),
                    "varda new --list shows all structures");
}

}  // namespace

void read_structure(section from, const std::map<std::string, section>& places,
                    const file_access& text_of, findings& warnings, model_specification& file) {
  std::vector<std::string> structures = structural_model_names();
  structures.insert(structures.end(), {formula_structure, equation_structure});
  std::string& name = file.structure.name;
  name = from.needed_text("structure", "the structural model");
  const bool own_equations = name == formula_structure || name == equation_structure;
  const bool known = std::find(structures.begin(), structures.end(), name) != structures.end();
  // Formulas of endpoints know the states of a system, and nothing of a closed form.
  const bool in_closed_form = known && !own_equations && file.structure.equations.outcomes.empty();
  if (!own_equations && !in_closed_form) {
    const std::optional<ready_structure> ready = find_or_refuse(from, name);
    if (ready) {
      read_ready_structure(from, *ready, places, text_of, warnings, file);
      from.refuse_leftovers();
      return;
    }
    if (known)
      throw from.error("E-MODEL-ENDPOINT", "structure",
                       "endpoints that are not normal need a model in formulas or equations",
                       "write the structure as \"formula\" or \"equations\"");
    for (const ready_structure& s : ready_structures()) structures.push_back(s.name);
    throw unknown_structure(from, name, structures);
  }
  file.data.doses_needed = !own_equations;
  if (own_equations)
    read_equations(from, places, text_of, warnings, file);
  else
    read_compartments(from, file.structure);
  from.refuse_leftovers();
}

}  // namespace varda
