// SPDX-License-Identifier: Apache-2.0
#include "varda/draft/model_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "varda/model/structural_model.h"
#include "varda/model/words.h"
#include "varda/support/text.h"

namespace varda {

namespace {

constexpr double usual_variance = 0.2;

struct table_of_formulas {
  const char* name;
  const char* comment;
  std::vector<formula_line> equation_text::*lines;
};

// In the order of a model file.
constexpr table_of_formulas tables[] = {
    {"definitions", "", &equation_text::definitions},
    {"sums", "", &equation_text::sums},
    {"derivatives", "States; the first is compartment 1 of the data.", &equation_text::derivatives},
    {"initial", "", &equation_text::initial},
    {"lag", "", &equation_text::lag},
    {"bioavailability", "", &equation_text::bioavailability},
    {"outputs", "", &equation_text::outputs},
};

// A text between TOML's double quotes.
std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + "\"";
}

// Four digits are enough for a start value. A whole number that is written with an exponent needs
// nothing more in TOML.
std::string number(double x) {
  return fmt::format("{:.4g}", x);
}

std::string commented(const std::string& text) {
  std::string result;
  for (std::size_t begin = 0; begin < text.size();) {
    std::size_t end = text.size();
    if (end - begin > 96) end = text.rfind(' ', begin + 96);
    if (end == std::string::npos || end <= begin) end = text.size();
    result += "# " + text.substr(begin, end - begin) + "\n";
    begin = end + 1;
  }
  return result;
}

bool is_closed_form(const ready_structure& s) {
  return make_structural_model({.name = s.name}) != nullptr;
}

std::string equations_of(const equation_text& text, const std::string& prefix,
                         const std::vector<std::string>& outputs, bool numbered) {
  std::string result;
  for (const table_of_formulas& table : tables) {
    const std::vector<formula_line>& lines = text.*table.lines;
    if (lines.empty()) continue;
    result +=
        fmt::format("\n{}[{}{}]\n",
                    *table.comment != '\0' && numbered ? fmt::format("# {}\n", table.comment) : "",
                    prefix, table.name);
    for (const formula_line& line : lines) {
      const bool is_output = table.lines == &equation_text::outputs;
      if (is_output && std::find(outputs.begin(), outputs.end(), line.name) == outputs.end())
        continue;
      result += fmt::format("{} = {}\n", line.name, quoted(line.text));
    }
  }
  return result;
}

std::vector<std::string> output_names(const drafted_model& draft) {
  std::vector<std::string> names;
  for (const drafted_endpoint& e : draft.endpoints) names.push_back(e.output);
  return names;
}

std::string model_section(const drafted_model& draft) {
  const ready_structure& s = draft.structure;
  const std::vector<std::string> outputs = output_names(draft);
  if (draft.as_equations)
    return fmt::format("\n[model]\nstructure = \"{}\"\n{}",
                       s.equations.derivatives.empty() ? formula_structure : equation_structure,
                       equations_of(s.equations, "model.", outputs, true));
  std::string text = fmt::format("\n[model]\nstructure = {}\n", quoted(s.name));
  if (outputs.size() < s.observed.size())
    text += fmt::format("outputs = [\"{}\"]\n", fmt::join(outputs, "\", \""));
  return text;
}

std::string parameter_section(const drafted_model& draft) {
  std::string text =
      "\n# Start values. Parameters vary log-normally between subjects unless a distribution is "
      "named.\n[parameters]\n";
  for (const ready_parameter& p : draft.structure.parameters) {
    const auto start = draft.start.find(p.name);
    text += fmt::format("{} = {{ start = {}{} }}  # {}{}\n", p.name,
                        number(start == draft.start.end() ? p.start : start->second),
                        p.law == distribution::log_normal
                            ? ""
                            : fmt::format(", distribution = \"{}\"", name_of(p.law)),
                        p.meaning, p.unit == "-" ? "" : fmt::format(" ({})", p.unit));
  }
  text += "\n# Variances of the random effects.\n[omega]\n";
  for (const ready_parameter& p : draft.structure.parameters) {
    if (p.law == distribution::none) continue;
    const auto variance = draft.variance.find(p.name);
    const auto start = draft.start.find(p.name);
    const double typical = start == draft.start.end() ? p.start : start->second;
    const double usual = p.law == distribution::normal
                             ? usual_variance * std::max(typical * typical, 1e-12)
                             : usual_variance;
    text += fmt::format("{} = {}\n", p.name,
                        number(variance == draft.variance.end() ? usual : variance->second));
  }
  return text;
}

std::string residual_section(const drafted_model& draft) {
  std::string text;
  // A single endpoint is told by the DVIDs 0 and 1 without further words.
  const std::string& first = draft.endpoints.front().dvid;
  const bool several =
      draft.endpoints.size() > 1 || !(first.empty() || first == "0" || first == "1");
  for (const drafted_endpoint& e : draft.endpoints) {
    const auto meaning =
        std::find_if(draft.structure.observed.begin(), draft.structure.observed.end(),
                     [&](const described_name& one) { return one.name == e.output; });
    text += fmt::format("\n# {}\n[residual{}]\n", meaning->meaning, several ? "." + e.output : "");
    if (several && !e.dvid.empty())
      text += fmt::format("dvid = {}\n", e.dvid.find_first_not_of("0123456789") == std::string::npos
                                             ? e.dvid
                                             : quoted(e.dvid));
    text += fmt::format("error = \"{}\"\n", name_of(e.error));
    for (const drafted_deviation& d : e.deviations)
      text += fmt::format("{} = {}\n", d.key, number(d.value));
  }
  return text;
}

}  // namespace

std::vector<std::string> deviation_keys_of(error_kind error) {
  switch (error) {
    case error_kind::additive:
      return {"additive"};
    case error_kind::proportional:
      return {"proportional"};
    case error_kind::combined:
    case error_kind::combined_sd:
      return {"additive", "proportional"};
    case error_kind::power:
      return {"proportional", "exponent"};
    case error_kind::log_normal:
      return {"log_normal"};
    case error_kind::box_cox:
      return {"additive", "lambda"};
  }
  return {};
}

drafted_model draft_of(const ready_structure& structure, const std::vector<std::string>& outputs) {
  drafted_model draft;
  draft.structure = structure;
  std::vector<std::string> wanted = outputs;
  std::vector<std::string> known;
  for (const described_name& o : structure.observed) known.push_back(o.name);
  if (wanted.empty()) wanted = known;
  for (const std::string& name : wanted) {
    if (std::find(known.begin(), known.end(), name) == known.end())
      throw bad_input({.code = "E-NEW-OPTION",
                       .message = fmt::format("\"{}\" has no output {}", structure.name, name),
                       .remedy = fmt::format("its outputs are {}", fmt::join(known, ", "))});
    draft.endpoints.push_back({name, "", error_kind::proportional, {{"proportional", 0.2}}});
  }
  return draft;
}

std::string model_text(const drafted_model& draft) {
  const ready_structure& s = draft.structure;
  if (draft.as_equations && s.equations.outputs.empty())
    throw bad_input({.code = "E-NEW-OPTION",
                     .message = fmt::format("\"{}\" is a closed form without equations", s.name),
                     .remedy = "leave --equations out"});
  std::string text = commented(s.about + ".") + commented("Source: " + s.source + ".");
  if (!s.note.empty()) text += commented("Note: " + s.note + ".");
  if (!s.compartments.empty()) {
    text += "# Compartments (CMT in the data):\n";
    for (std::size_t k = 0; k < s.compartments.size(); ++k)
      text +=
          fmt::format("#   {} {}: {}\n", k + 1, s.compartments[k].name, s.compartments[k].meaning);
  }
  for (const std::string& remark : draft.remarks) text += commented(remark);
  text += fmt::format("title = {}\n\n[data]\nfile = {}\n", quoted(s.name), quoted(draft.data_file));
  std::vector<std::string> columns;
  for (const auto& [role, column] : draft.columns)
    columns.push_back(fmt::format("{} = {}", role, quoted(column)));
  if (!columns.empty()) text += fmt::format("columns = {{ {} }}\n", fmt::join(columns, ", "));
  return text + model_section(draft) + parameter_section(draft) + residual_section(draft);
}

std::string equations_text(const ready_structure& s) {
  std::vector<std::string> outputs;
  for (const described_name& o : s.observed) outputs.push_back(o.name);
  return equations_of(s.equations, "model.", outputs, s.kind == structure_kind::pharmacokinetics);
}

std::string description_of(const ready_structure& s) {
  std::string text = fmt::format("{}\n  {}\n", s.name, wrapped(s.about + ".", 2));
  if (is_closed_form(s)) text += "  Computed in closed form.\n";
  if (s.kind == structure_kind::response)
    text += "  " +
            wrapped(fmt::format("A response: combine it with pharmacokinetics, structure = "
                                "\"one-compartment oral + {}\"{}.",
                                s.name,
                                s.needs == "C" ? ", or use it alone if the data have a column C "
                                                 "with concentrations"
                                               : ""),
                    2) +
            "\n";
  text += "\nParameters\n";
  for (const ready_parameter& p : s.parameters)
    text += fmt::format("  {:<12} {}{}{}\n", p.name, p.meaning,
                        p.unit == "-" ? "" : fmt::format(" ({})", p.unit),
                        p.law == distribution::log_normal
                            ? ""
                            : fmt::format("; usual distribution: {}", name_of(p.law)));
  if (!s.compartments.empty()) text += "\nCompartments\n";
  for (std::size_t k = 0; k < s.compartments.size(); ++k)
    text +=
        fmt::format("  {} {:<14} {}\n", k + 1, s.compartments[k].name, s.compartments[k].meaning);
  text += "\nOutputs\n";
  for (const described_name& o : s.observed)
    text += fmt::format("  {:<14} {}\n", o.name, o.meaning);
  if (!s.equations.outputs.empty()) text += "\nEquations\n" + equations_text(s);
  text += "\nSource\n  " + wrapped(s.source + ".", 2) + "\n";
  if (!s.note.empty()) text += "\nNote\n  " + wrapped(s.note + ".", 2) + "\n";
  return text;
}

}  // namespace varda
