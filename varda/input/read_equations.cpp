// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "varda/data/csv.h"
#include "varda/input/model_file_parts.h"
#include "varda/model/equations/expression.h"
#include "varda/model/equations/formula_error.h"
#include "varda/model/structural_model.h"
#include "varda/support/text.h"

namespace varda {

namespace {

using formula_table = std::pair<const char*, std::vector<formula_line> equation_text::*>;

const std::array<formula_table, 8> formula_tables = {{
    {"definitions", &equation_text::definitions},
    {"outputs", &equation_text::outputs},
    {"derivatives", &equation_text::derivatives},
    {"initial", &equation_text::initial},
    {"lag", &equation_text::lag},
    {"bioavailability", &equation_text::bioavailability},
    {"rate", &equation_text::rate},
    {"duration", &equation_text::duration},
}};

// A formula is a text; a plain number will do as well.
std::vector<formula_line> read_formulas(section from) {
  std::vector<formula_line> lines;
  for (const std::string& name : from.keys())
    lines.push_back(
        {name, from.is_number(name) ? fmt::format("{}", *from.number(name)) : *from.text(name)});
  return lines;
}

double above_zero(section& from, const std::string& key, double fallback) {
  const double value = from.number_or(key, fallback);
  if (!(value > 0.0 && value < 1.0))
    throw from.error("E-MODEL-RANGE", key, fmt::format("{} is out of range", value),
                     "a tolerance lies between 0 and 1");
  return value;
}

solver_settings read_solver(section from) {
  solver_settings s;
  s.method = from.kind_or("method", s.method);
  s.relative = above_zero(from, "relative", s.relative);
  s.absolute = above_zero(from, "absolute", s.absolute);
  s.max_steps = from.whole_number_or("max_steps", s.max_steps, 1, 1000000000);
  from.refuse_leftovers();
  return s;
}

// Refuses what the formulas call by a name that no column of the data set has. A data set that
// cannot be read is refused where it is read.
void check_columns(const std::vector<std::string>& covariates, const model_specification& file,
                   const std::vector<formula_error>& places, const file_access& text_of) {
  std::vector<std::string> columns;
  try {
    findings refused_rows;
    columns = read_csv(file.data.file, refused_rows, text_of).header;
  } catch (const bad_input&) {
    return;
  }
  for (std::size_t k = 0; k < covariates.size(); ++k) {
    const std::string& name = covariates[k];
    if (std::any_of(columns.begin(), columns.end(),
                    [&](const std::string& c) { return equal_ignoring_case(c, name); }))
      continue;
    std::vector<std::string> known = columns;
    const equation_text& text = file.structure.equations;
    known.insert(known.begin(), {"t", "tad", "dose"});
    for (const auto* lines : {&text.definitions, &text.derivatives})
      for (const formula_line& line : *lines) known.push_back(line.name);
    known.insert(known.end(), text.parameters.begin(), text.parameters.end());
    formula_error error = places[k];
    const std::string near = did_you_mean(name, known);
    error.remedy = near.empty() ? "define it, or add it to [parameters] or to the data set"
                                : "did you mean " + near + "?";
    throw error;
  }
}

// For each covariate the first formula that uses it.
std::vector<formula_error> places_of(const std::vector<std::string>& covariates,
                                     const equation_text& text) {
  std::vector<formula_error> places;
  for (const std::string& name : covariates)
    for (const auto& [table, member] : formula_tables)
      for (const formula_line& line : text.*member) {
        const std::vector<std::string> names = expression(line.text).names();
        if (places.size() > static_cast<std::size_t>(&name - covariates.data()) ||
            std::find(names.begin(), names.end(), name) == names.end())
          continue;
        places.emplace_back(table, line.name, "E-MODEL-SYMBOL",
                            fmt::format("{} is no parameter, state, definition or column", name),
                            "");
      }
  return places;
}

}  // namespace

void read_equations(section& from, const file_access& text_of, model_specification& file) {
  const bool system = file.structure.name == equation_structure;
  equation_text& text = file.structure.equations;
  const bool short_form = !system && from.has("prediction");
  if (short_form) {
    text.outputs = {{"prediction", from.needed_text("prediction", "the prediction")}};
  } else {
    text.outputs = read_formulas(
        from.needed_table("outputs", system ? "what is observed, by endpoint" : "the predictions"));
  }
  for (const auto& [table, member] : formula_tables) {
    const bool for_both = member == &equation_text::definitions;
    if (member == &equation_text::outputs || !(system || for_both)) continue;
    if (const auto lines = from.table(table)) text.*member = read_formulas(*lines);
  }
  const auto refuse_empty = [&](const char* table, const char* what) {
    throw from.error("E-MODEL-MISSING", table, "this table is empty", what);
  };
  if (text.outputs.empty()) refuse_empty("outputs", "give a formula for each endpoint");
  if (system) {
    from.needed_table("derivatives", "the equations of the states");
    if (text.derivatives.empty()) refuse_empty("derivatives", "give an equation for each state");
    if (const auto solver = from.table("solver")) text.solver = read_solver(*solver);
  }

  try {
    const auto model = make_structural_model(file.structure);
    for (const std::string& name : model->covariates()) {
      std::vector<std::string>& wanted = file.data.covariates;
      if (std::find(wanted.begin(), wanted.end(), name) == wanted.end()) wanted.push_back(name);
    }
    for (int c = 1; system && c <= model->dose_compartments(); ++c) {
      if (model->models_rate(c)) file.data.modelled_rate.push_back(c);
      if (model->models_duration(c)) file.data.modelled_duration.push_back(c);
    }
    check_columns(model->covariates(), file, places_of(model->covariates(), text), text_of);
  } catch (const formula_error& e) {
    const bool top = short_form && e.section == "outputs";
    const section place = top ? from : *from.table(e.section);
    throw place.error(e.code, e.key, e.message, e.remedy);
  }
}

}  // namespace varda
