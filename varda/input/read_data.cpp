// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <filesystem>
#include <string>

#include "varda/data/dataset.h"
#include "varda/formula/expression.h"
#include "varda/input/model_file_parts.h"

namespace varda {

namespace {

// A formula of columns. Whether there are such columns the data set will tell.
std::string read_formula(section& from, const std::string& key) {
  const std::string text =
      from.is_number(key) ? fmt::format("{}", *from.number(key)) : from.text(key).value_or("");
  try {
    if (from.has(key)) expression{text};
  } catch (const syntax_error& error) {
    throw from.error("E-MODEL-FORMULA", key, error.message, error.remedy);
  }
  return text;
}

void read_definitions(section from, data_source& data) {
  for (const std::string& name : from.keys()) {
    if (!is_formula_name(name))
      throw from.error("E-MODEL-NAME", name, fmt::format("{} cannot be used in a formula", name),
                       "a name is a letter, then letters, digits and underscores");
    data.define.push_back({name, read_formula(from, name)});
  }
}

}  // namespace

void read_data(section from, model_specification& file) {
  const std::filesystem::path given = from.needed_text("file", "the data set");
  const std::filesystem::path folder = std::filesystem::path(file.path).parent_path();
  file.data.file = (given.is_absolute() ? given : folder / given).string();
  if (auto columns = from.table("columns")) {
    for (const std::string& role : data_roles())
      if (const auto name = columns->text(role)) file.data.columns[role] = *name;
    columns->refuse_leftovers();
  }
  file.data.keep = read_formula(from, "keep");
  file.data.drop = read_formula(from, "drop");
  if (auto define = from.table("define")) read_definitions(*define, file.data);
  from.refuse_leftovers();
}

}  // namespace varda
