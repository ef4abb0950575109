// SPDX-License-Identifier: Apache-2.0
#include "varda/input/ready_structures.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "varda/input/model_file_parts.h"
#include "varda/input/section.h"
#include "varda/input/structure_texts.h"

namespace varda {

namespace {

constexpr std::string_view plus = " + ";

structure_kind kind_of(const std::string& word) {
  if (word == "response") return structure_kind::response;
  return word == "complete" ? structure_kind::complete : structure_kind::pharmacokinetics;
}

std::vector<described_name> read_descriptions(section from) {
  std::vector<described_name> all;
  for (const std::string& name : from.keys())
    all.push_back({name, from.needed_text(name, "what it is")});
  return all;
}

ready_structure read_ready_structure(std::string_view text) {
  section from =
      section::of_file("a ready structure", [&](const std::string&) { return std::string(text); });
  ready_structure s;
  s.name = from.needed_text("name", "its name");
  s.about = from.needed_text("about", "one line");
  s.kind = kind_of(from.needed_text("kind", "what it can be combined with"));
  s.needs = from.text("needs").value_or("");
  s.source = from.needed_text("source", "the literature");
  s.note = from.text("note").value_or("");
  const section parameters = from.needed_table("parameters", "the parameters");
  for (const std::string& name : parameters.keys()) {
    section one = section(parameters).needed_table(name, "a parameter");
    s.parameters.push_back({name, one.needed_text("meaning", "what it is"),
                            one.needed_text("unit", "the kind of its unit"),
                            one.needed_number("start", "a start value"),
                            one.kind_or("distribution", distribution::log_normal),
                            one.needed_text("guess", "a start value from data")});
    one.refuse_leftovers();
  }
  if (const auto compartments = from.table("compartments"))
    s.compartments = read_descriptions(*compartments);
  s.observed = read_descriptions(from.needed_table("observed", "what the outputs are"));
  read_formula_tables(from, s.equations);
  from.refuse_leftovers();
  return s;
}

std::vector<ready_structure> read_all() {
  std::vector<ready_structure> all;
  for (const std::string_view text : structure_texts()) all.push_back(read_ready_structure(text));
  return all;
}

const ready_structure* find_one(std::string name) {
  constexpr std::string_view other_word = " bolus";
  if (name.ends_with(other_word))
    name.replace(name.size() - other_word.size(), std::string::npos, " intravenous");
  for (const ready_structure& s : ready_structures())
    if (s.name == name) return &s;
  return nullptr;
}

template <class T>
void append_all(std::vector<T>& to, const std::vector<T>& more) {
  to.insert(to.end(), more.begin(), more.end());
}

ready_structure combined(const ready_structure& first, const ready_structure& second) {
  if (first.kind != structure_kind::pharmacokinetics || second.kind != structure_kind::response)
    throw bad_input(
        {.code = "E-MODEL-COMBINATION",
         .message = fmt::format("\"{}\" and \"{}\" do not go together", first.name, second.name),
         .remedy = "pharmacokinetics stand before the plus, and a response behind it "
                   "(varda new --list)"});
  ready_structure s = first;
  s.name += std::string(plus) + second.name;
  s.about += "; " + second.about;
  s.source += "; " + second.source;
  if (!second.note.empty()) s.note += (s.note.empty() ? "" : "; ") + second.note;
  append_all(s.parameters, second.parameters);
  append_all(s.compartments, second.compartments);
  append_all(s.observed, second.observed);
  for (const auto member :
       {&equation_text::definitions, &equation_text::sums, &equation_text::derivatives,
        &equation_text::initial, &equation_text::lag, &equation_text::bioavailability,
        &equation_text::outputs})
    append_all(s.equations.*member, second.equations.*member);
  return s;
}

}  // namespace

const std::vector<ready_structure>& ready_structures() {
  static const std::vector<ready_structure> all = read_all();
  return all;
}

std::optional<ready_structure> find_ready_structure(const std::string& name) {
  const std::size_t at = name.find(plus);
  const ready_structure* const first = find_one(name.substr(0, at));
  if (first == nullptr) return std::nullopt;
  if (at == std::string::npos) return *first;
  const ready_structure* const second = find_one(name.substr(at + plus.size()));
  if (second == nullptr) return std::nullopt;
  return combined(*first, *second);
}

}  // namespace varda
