// SPDX-License-Identifier: Apache-2.0
#include "varda/input/model_file_parts.h"

#include <algorithm>

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

}  // namespace

void read_structure(section from, const std::map<std::string, section>& places,
                    const file_access& text_of, findings& warnings, model_specification& file) {
  std::vector<std::string> structures = structural_model_names();
  structures.insert(structures.end(), {formula_structure, equation_structure});
  std::string& name = file.structure.name;
  name = from.needed_text("structure", "the structural model");
  if (std::find(structures.begin(), structures.end(), name) == structures.end())
    throw from.unknown_word("structure", name, structures);
  const bool own_equations = name == formula_structure || name == equation_structure;
  file.data.doses_needed = !own_equations;
  if (!own_equations && !file.data.outcomes.empty())
    throw from.error("E-MODEL-ENDPOINT", "structure",
                     "endpoints that are not normal need a model in formulas or equations",
                     "write the structure as \"formula\" or \"equations\"");
  if (own_equations)
    read_equations(from, places, text_of, warnings, file);
  else
    read_compartments(from, file.structure);
  from.refuse_leftovers();
}

}  // namespace varda
