// SPDX-License-Identifier: Apache-2.0
//
// Holds docs/structures.md to the structures that are built into varda: structures SOURCE_DIR
// [--write]. Names what is different and fails; with --write it brings the page up to date first.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "varda/draft/catalogue.h"
#include "varda/draft/model_text.h"
#include "varda/model/structural_model.h"
#include "varda/model/words.h"

namespace {

using namespace varda;

const std::string begin_marker = "<!-- made by checks/structures.cpp -->\n";
const std::string end_marker = "<!-- end of what checks/structures.cpp makes -->\n";

std::string parameter_table(const ready_structure& s) {
  std::string text = "| parameter | meaning | unit | usual distribution |\n|---|---|---|---|\n";
  for (const ready_parameter& p : s.parameters)
    text += fmt::format("| `{}` | {} | {} | {} |\n", p.name, p.meaning, p.unit, name_of(p.law));
  return text;
}

std::string example(const ready_structure& s) {
  const std::string full =
      s.kind == structure_kind::response ? "one-compartment oral + " + s.name : s.name;
  std::string text = fmt::format("```toml\n[model]\nstructure = \"{}\"\n\n[parameters]\n", full);
  const ready_structure whole = structure_called(full);
  for (const ready_parameter& p : whole.parameters)
    text += fmt::format("{} = {{ start = {}{} }}\n", p.name, p.start,
                        p.law == distribution::log_normal
                            ? ""
                            : fmt::format(", distribution = \"{}\"", name_of(p.law)));
  return text + "```\n";
}

std::string section_of(const ready_structure& s) {
  std::string text = fmt::format("\n### {}\n\n{}.\n\n", s.name, s.about);
  if (!s.note.empty())
    text +=
        fmt::format("{}{}.\n\n", static_cast<char>(std::toupper(s.note.front())), s.note.substr(1));
  text += parameter_table(s);
  if (!s.compartments.empty()) {
    text += "\n| compartment | |\n|---|---|\n";
    for (std::size_t k = 0; k < s.compartments.size(); ++k)
      text +=
          s.kind == structure_kind::response
              ? fmt::format("| `{}` | {} |\n", s.compartments[k].name, s.compartments[k].meaning)
              : fmt::format("| {} `{}` | {} |\n", k + 1, s.compartments[k].name,
                            s.compartments[k].meaning);
  }
  const std::string equations = equations_text(s);
  if (!equations.empty()) text += "\n```toml" + equations + "```\n";
  return text + "\nExample:\n\n" + example(s) + fmt::format("\nSource: {}.\n", s.source);
}

std::string made_part() {
  std::string text = "\n| structure | |\n|---|---|\n";
  for (const structure_group& group : structure_groups())
    for (const listed_structure& s : group.structures)
      text += fmt::format("| `{}` | {} |\n", s.name, s.about);
  for (const structure_group& group : structure_groups()) {
    if (make_structural_model({.name = group.structures.front().name})) continue;
    text += fmt::format("\n## {}\n", group.heading);
    for (const listed_structure& s : group.structures) text += section_of(structure_called(s.name));
  }
  return text + "\n";
}

// The page in three parts: what stands before the structures, they, and what follows.
struct page {
  std::string before, made, after;

  explicit page(const std::string& text) {
    const std::size_t begin = text.find(begin_marker);
    const std::size_t end = text.find(end_marker);
    if (begin == std::string::npos || end == std::string::npos || end < begin)
      throw std::runtime_error("the page has no place for the structures");
    before = text.substr(0, begin + begin_marker.size());
    made = text.substr(before.size(), end - before.size());
    after = text.substr(end);
  }
};

std::string contents(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error(path + " cannot be read");
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  try {
    const std::string path = std::string(argv[1]) + "/docs/structures.md";
    page found(contents(path));
    if (argc > 2 && std::string(argv[2]) == "--write") {
      found.made = made_part();
      std::ofstream(path) << found.before << found.made << found.after;
    }
    if (found.made == made_part()) return 0;
    const std::string expected = made_part();
    const auto differs =
        std::mismatch(found.made.begin(), found.made.end(), expected.begin(), expected.end());
    std::printf("%s: differs from the structures at line %td: run this program with --write\n",
                path.c_str(),
                std::count(found.before.begin(), found.before.end(), '\n') + 1 +
                    std::count(found.made.begin(), differs.first, '\n'));
    return 1;
  } catch (const std::exception& error) {
    std::printf("%s\n", error.what());
    return 1;
  }
}
