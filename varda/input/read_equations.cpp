// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "varda/data/csv.h"
#include "varda/formula/expression.h"
#include "varda/input/model_file_parts.h"
#include "varda/input/ready_structures.h"
#include "varda/model/equations/formula_error.h"
#include "varda/model/structural_model.h"
#include "varda/support/text.h"

namespace varda {

namespace {

using formula_table = std::pair<const char*, std::vector<formula_line> equation_text::*>;

const std::array<formula_table, 9> formula_tables = {{
    {"definitions", &equation_text::definitions},
    {"sums", &equation_text::sums},
    {"outputs", &equation_text::outputs},
    {"derivatives", &equation_text::derivatives},
    {"initial", &equation_text::initial},
    {"lag", &equation_text::lag},
    {"bioavailability", &equation_text::bioavailability},
    {"rate", &equation_text::rate},
    {"duration", &equation_text::duration},
}};

// Every formula with the section that it stands in.
std::vector<std::pair<std::string, const formula_line*>> all_formulas(const equation_text& text) {
  std::vector<std::pair<std::string, const formula_line*>> all;
  for (const auto& [table, member] : formula_tables)
    for (const formula_line& line : text.*member) all.emplace_back(table, &line);
  for (const outcome_text& of : text.outcomes)
    for (const formula_line& line : of.formulas) all.emplace_back("endpoint." + of.name, &line);
  return all;
}

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

// The columns of the data set. One that cannot be read is refused where it is read.
std::vector<std::string> columns_of(const data_source& data, const file_access& text_of) {
  std::vector<std::string> columns;
  try {
    columns = read_csv_header(data.file, text_of);
  } catch (const bad_input&) {
    return {};
  }
  for (const formula_line& line : data.define) columns.push_back(line.name);
  return columns;
}

auto find_column(const std::vector<std::string>& columns, const std::string& name) {
  return std::find_if(columns.begin(), columns.end(),
                      [&](const std::string& c) { return equal_ignoring_case(c, name); });
}

// The name of the column with a role, whether the file has it or not.
std::string column_of(const data_source& data, const std::string& role) {
  const auto renamed = data.columns.find(role);
  return renamed == data.columns.end() ? role : renamed->second;
}

// A built-in name hides a column of the same name: tells the first formula with each. Without
// amounts the last dose is none, which leaves nothing to estimate.
std::vector<formula_error> hidden_columns(const data_source& data, const equation_text& text,
                                          const std::vector<std::string>& columns) {
  struct built_in {
    std::string name;
    std::string role;
    const char* meaning;
  };
  std::vector<formula_error> found;
  for (const built_in& b : {built_in{"dose", "AMT", "the amount of the last dose"},
                            built_in{"tad", "", "the time since the last dose"},
                            built_in{"t", "TIME", "the time of the record"}}) {
    const auto column = find_column(columns, b.name);
    if (column == columns.end()) continue;
    if (!b.role.empty() && equal_ignoring_case(column_of(data, b.role), b.name)) continue;
    const bool no_doses =
        b.name != "t" && find_column(columns, column_of(data, "AMT")) == columns.end();
    bool told = false;
    for (const auto& [table, line] : all_formulas(text)) {
      const expression formula(line->text);
      const std::vector<std::string>& names = formula.names();
      if (told || std::find(names.begin(), names.end(), b.name) == names.end()) continue;
      told = true;
      found.emplace_back(
          table, line->name, no_doses ? "E-MODEL-HIDDEN" : "W-MODEL-HIDDEN",
          fmt::format("{} in a formula is {}, not the column {}{}", b.name, b.meaning, *column,
                      no_doses ? ", and the data have no doses" : ""),
          fmt::format("to use the column, write {}_column = \"{}\" in [data.define], and "
                      "{}_column in the formula",
                      b.name, b.name, b.name));
    }
  }
  return found;
}

// Refuses what the formulas call by a name that no column of the data set has.
void check_columns(const std::vector<std::string>& covariates, const model_specification& file,
                   const std::vector<formula_error>& places,
                   const std::vector<std::string>& columns) {
  if (columns.empty()) return;
  for (std::size_t k = 0; k < covariates.size(); ++k) {
    const std::string& name = covariates[k];
    if (find_column(columns, name) != columns.end()) continue;
    std::vector<std::string> known = columns;
    const equation_text& text = file.structure.equations;
    known.insert(known.begin(), {"t", "tad", "dose"});
    for (const auto* lines : {&text.definitions, &text.sums, &text.derivatives})
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
    for (const auto& [table, line] : all_formulas(text)) {
      const std::vector<std::string> names = expression(line->text).names();
      if (places.size() > static_cast<std::size_t>(&name - covariates.data()) ||
          std::find(names.begin(), names.end(), name) == names.end())
        continue;
      places.emplace_back(table, line->name, "E-MODEL-SYMBOL",
                          fmt::format("{} is no parameter, state, definition or column", name), "");
    }
  return places;
}

// Notes what the formulas do with covariates.
void note_uses(const std::vector<std::string>& covariates, const equation_text& text,
               std::map<std::string, covariate_use>& uses) {
  for (const auto& [table, line] : all_formulas(text))
    for (const auto& [name, made] : expression(line->text).uses()) {
      if (std::find(covariates.begin(), covariates.end(), name) == covariates.end()) continue;
      covariate_use& use = uses[name];
      use.computed = use.computed || made.computes;
      use.compared = use.compared || !made.texts.empty();
      for (const std::string& level : made.texts)
        if (std::find(use.levels.begin(), use.levels.end(), level) == use.levels.end())
          use.levels.push_back(level);
    }
}

bool uses_time(const equation_text& text) {
  for (const outcome_text& of : text.outcomes)
    if (of.kind == endpoint_kind::event) return true;
  for (const auto& [table, line] : all_formulas(text)) {
    const expression formula(line->text);
    for (const std::string& name : formula.names())
      if (name == "t" || name == "tad") return true;
  }
  return false;
}

// Has the data set bring what the formulas call by the name of a column, and doses what they have a
// formula for. Throws formula_error.
void ask_of_data(const structural_model& model, const std::vector<std::string>& columns,
                 model_specification& file) {
  const equation_text& text = file.structure.equations;
  for (const std::string& name : model.covariates()) {
    std::vector<std::string>& wanted = file.data.covariates;
    if (std::find(wanted.begin(), wanted.end(), name) == wanted.end()) wanted.push_back(name);
  }
  note_uses(model.covariates(), text, file.data.uses);
  check_columns(model.covariates(), file, places_of(model.covariates(), text), columns);
}

bool has_normal(const std::vector<endpoint>& endpoints) {
  return std::any_of(endpoints.begin(), endpoints.end(),
                     [](const endpoint& of) { return of.is_normal(); });
}

// The outputs that the model file asks for, all without it.
void choose_outputs(section& from, const ready_structure& chosen, equation_text& text) {
  text.outputs = chosen.equations.outputs;
  if (!from.has("outputs")) return;
  text.outputs.clear();
  std::vector<std::string> known;
  for (const formula_line& line : chosen.equations.outputs) known.push_back(line.name);
  for (const std::string& name : from.texts("outputs")) {
    const auto line = std::find(known.begin(), known.end(), name);
    if (line == known.end()) throw from.unknown_word("outputs", name, known);
    const auto is_same = [&](const formula_line& other) { return other.name == name; };
    if (std::any_of(text.outputs.begin(), text.outputs.end(), is_same))
      throw from.error("E-MODEL-WORD", "outputs", fmt::format("\"{}\" stands twice", name),
                       "name each output once");
    text.outputs.push_back(
        chosen.equations.outputs[static_cast<std::size_t>(line - known.begin())]);
  }
}

// A lag time and a bioavailability of doses into the first state, where it has neither.
void add_dose_properties(section& from, const ready_structure& chosen, equation_text& text) {
  const bool takes_them = chosen.kind == structure_kind::pharmacokinetics && text.sums.empty() &&
                          text.lag.empty() && text.bioavailability.empty();
  const auto add = [&](const char* key, const char* parameter, std::vector<formula_line>& lines) {
    if (!from.flag_or(key, false)) return;
    if (!takes_them)
      throw from.error("E-MODEL-KEY", key,
                       fmt::format("\"{}\" does not take this key", chosen.name),
                       "varda new NAME --equations writes its equations into a model file, where "
                       "they can be altered");
    lines.push_back({text.derivatives.front().name, parameter});
  };
  add("lag_time", "Tlag", text.lag);
  add("bioavailability", "F", text.bioavailability);
}

}  // namespace

void read_formula_tables(section& from, equation_text& text) {
  for (const auto& [table, member] : formula_tables)
    if (const auto lines = from.table(table)) text.*member = read_formulas(*lines);
}

void read_ready_structure(section& from, const ready_structure& chosen,
                          const std::map<std::string, section>& places, const file_access& text_of,
                          findings& warnings, model_specification& file) {
  equation_text& text = file.structure.equations;
  equation_text own = std::exchange(text, chosen.equations);
  text.parameters = std::move(own.parameters);
  text.outcomes = std::move(own.outcomes);
  choose_outputs(from, chosen, text);
  if (!has_normal(file.endpoints) && !from.has("outputs")) text.outputs.clear();
  add_dose_properties(from, chosen, text);
  const bool system = !text.derivatives.empty();
  if (system)
    if (const auto solver = from.table("solver")) text.solver = read_solver(*solver);
  file.structure.name = system ? equation_structure : formula_structure;
  file.data.doses_needed = chosen.kind == structure_kind::pharmacokinetics;

  const std::vector<std::string> columns = columns_of(file.data, text_of);
  for (const ready_parameter& p : chosen.parameters) {
    if (std::find(text.parameters.begin(), text.parameters.end(), p.name) != text.parameters.end())
      continue;
    const auto column = find_column(columns, p.name);
    if (column == columns.end())
      throw from.error(
          "E-MODEL-MISSING", "structure",
          fmt::format("the parameter {} of \"{}\", {}, is missing", p.name, chosen.name, p.meaning),
          "add it to [parameters], or a column with its values to the data");
    finding said = from.error("W-MODEL-COLUMN-PARAMETER", "structure",
                              fmt::format("{}, which [parameters] does not have, is taken from the "
                                          "column {} of the data",
                                          p.name, *column),
                              "add it to [parameters] if it is to be estimated")
                       .what_found();
    said.level = severity::warning;
    warnings.push_back(said);
  }
  try {
    const auto model = make_structural_model(file.structure);
    ask_of_data(*model, columns, file);
  } catch (const formula_error& e) {
    const auto endpoint = places.find(e.section);
    if (endpoint != places.end()) throw endpoint->second.error(e.code, e.key, e.message, e.remedy);
    throw from.error(e.code, "structure",
                     fmt::format("{} of \"{}\": {}", e.key, chosen.name, e.message), e.remedy);
  }
}

void read_equations(section& from, const std::map<std::string, section>& places,
                    const file_access& text_of, findings& warnings, model_specification& file) {
  const bool system = file.structure.name == equation_structure;
  equation_text& text = file.structure.equations;
  const bool short_form = !system && from.has("prediction");
  // Endpoints that are not normal bring their formulas themselves.
  const bool needed = has_normal(file.endpoints);
  if (!needed && !short_form && !from.has("outputs")) {
    text.outputs.clear();
  } else if (short_form) {
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
  if (needed && text.outputs.empty()) refuse_empty("outputs", "give a formula for each endpoint");
  if (system) {
    from.needed_table("derivatives", "the equations of the states");
    if (text.derivatives.empty()) refuse_empty("derivatives", "give an equation for each state");
    if (const auto solver = from.table("solver")) text.solver = read_solver(*solver);
  }

  const auto refusal = [&](const formula_error& e) {
    const bool top = short_form && e.section == "outputs";
    const auto endpoint = places.find(e.section);
    const section place = endpoint != places.end() ? endpoint->second
                          : top                    ? from
                                                   : *from.table(e.section);
    return place.error(e.code, e.key, e.message, e.remedy);
  };
  try {
    const auto model = make_structural_model(file.structure);
    const std::vector<std::string> columns = columns_of(file.data, text_of);
    ask_of_data(*model, columns, file);
    for (int c = 1; system && c <= model->dose_compartments(); ++c) {
      if (model->models_rate(c)) file.data.modelled_rate.push_back(c);
      if (model->models_duration(c)) file.data.modelled_duration.push_back(c);
    }
    for (const formula_error& e : hidden_columns(file.data, text, columns)) {
      if (e.code.starts_with("E-")) throw e;
      warnings.push_back(refusal(e).what_found());
      warnings.back().level = severity::warning;
    }
    file.data.time_needed = system || uses_time(text);
  } catch (const formula_error& e) {
    throw refusal(e);
  }
}

}  // namespace varda
