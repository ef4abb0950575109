// SPDX-License-Identifier: Apache-2.0
#include "varda/input/section.h"

#include <fmt/format.h>

#include <toml++/toml.h>
#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

namespace varda {

struct section::source {
  std::string file;
  std::shared_ptr<const toml::table> document;  // keeps `table` alive
  const toml::table* table = nullptr;

  const toml::node* get(const std::string& key) const { return table->get(key); }
};

namespace {

int first_line(const toml::node& node) {
  return static_cast<int>(node.source().begin.line);
}

std::string quoted_list(const std::vector<std::string>& words) {
  return fmt::format("\"{}\"", fmt::join(words, "\", \""));
}

std::vector<double> finite_numbers(const toml::node& list) {
  std::vector<double> all;
  if (!list.is_array()) return all;
  for (const toml::node& entry : *list.as_array()) {
    if (!entry.is_number() || !std::isfinite(*entry.value<double>())) return {};
    all.push_back(*entry.value<double>());
  }
  return all;
}

// A table within a table costs the parser a call within a call, and so does letting go of it.
constexpr int most_levels = 100;

// The line on which a key has too many parts, or 0. The parser itself refuses lists within lists.
int line_of_deep_key(const std::string& text) {
  int line = 1;
  int parts = 0;
  std::string_view quote;  // that has been opened
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\n') ++line;
    const std::string_view rest = std::string_view(text).substr(i);
    if (!quote.empty()) {
      if (c == '\\' && quote.front() == '"') {
        ++i;
      } else if (rest.starts_with(quote) || (c == '\n' && quote.size() == 1)) {
        i += quote.size() - 1;
        quote = {};
      }
      continue;
    }
    if (c == '"' || c == '\'') {
      const bool three = rest.starts_with(c == '"' ? "\"\"\"" : "'''");
      quote = rest.substr(0, three ? 3 : 1);
      i += quote.size() - 1;
    } else if (c == '#') {
      i = std::min(text.find('\n', i), text.size()) - 1;
    } else if (c == '.') {
      if (++parts >= most_levels) return line;
    } else if (std::string_view("\n=[]{},").find(c) != std::string_view::npos) {
      parts = 0;
    }
  }
  return 0;
}

toml::table parse(const std::string& path, const file_access& text_of) {
  const std::optional<std::string> text = text_of(path);
  if (!text)
    throw bad_input({.code = "E-MODEL-FILE",
                     .message = "the model file cannot be opened",
                     .remedy = "check its name",
                     .file = path});
  if (const int line = line_of_deep_key(*text); line > 0)
    throw bad_input({.code = "E-MODEL-SYNTAX",
                     .message = fmt::format("a key has more than {} parts", most_levels),
                     .remedy = "no key of a model file has more than five",
                     .file = path,
                     .row = line});
  try {
    return toml::parse(*text, path);
  } catch (const toml::parse_error& error) {
    throw bad_input({.code = "E-MODEL-SYNTAX",
                     .message = std::string(error.description()),
                     .remedy = "the file is TOML: key = value lines under [section] headers",
                     .file = path,
                     .row = static_cast<int>(error.source().begin.line),
                     .column = fmt::format("{}", error.source().begin.column)});
  }
}

}  // namespace

section::section(std::shared_ptr<const source> from, std::string path)
    : source_(std::move(from)), path_(std::move(path)) {}

section section::of_file(const std::string& path, const file_access& text_of) {
  const auto document = std::make_shared<const toml::table>(parse(path, text_of));
  return section(std::make_shared<const source>(source{path, document, document.get()}), "");
}

bad_input section::error(const std::string& code, const std::string& key,
                         const std::string& message, const std::string& remedy) const {
  return bad_input({.code = code,
                    .message = message,
                    .remedy = remedy,
                    .file = source_->file,
                    .row = line_of(key),
                    .column = full_key(key)});
}

bad_input section::unknown_word(const std::string& key, const std::string& value,
                                const std::vector<std::string>& words) const {
  const std::string near = did_you_mean(value, words);
  return error(
      "E-MODEL-WORD", key, fmt::format("\"{}\" is not known here", value),
      near.empty() ? "it can be " + quoted_list(words) : fmt::format("did you mean \"{}\"?", near));
}

std::vector<std::string> section::keys() const {
  std::vector<std::pair<toml::source_position, std::string>> found;
  for (const auto& [key, node] : *source_->table)
    found.emplace_back(key.source().begin, std::string(key.str()));
  std::stable_sort(found.begin(), found.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> all;
  for (auto& [position, key] : found) all.push_back(std::move(key));
  return all;
}

int section::line_of(const std::string& key) const {
  const toml::node* node = source_->get(key);
  return first_line(node != nullptr ? *node : *source_->table);
}

bool section::has(const std::string& key) {
  asked_.insert(key);
  return source_->table->contains(key);
}

bool section::is_number(const std::string& key) const {
  const toml::node* node = source_->get(key);
  return node != nullptr && node->is_number();
}

bool section::is_text(const std::string& key) const {
  const toml::node* node = source_->get(key);
  return node != nullptr && node->is_string();
}

bool section::is_table(const std::string& key) const {
  const toml::node* node = source_->get(key);
  return node != nullptr && node->is_table();
}

void section::refuse_leftovers() const {
  for (const std::string& name : keys()) {
    if (asked_.contains(name)) continue;
    const std::vector<std::string> known(asked_.begin(), asked_.end());
    const std::string near = did_you_mean(name, known);
    throw error("E-MODEL-KEY", name, "this key is not known",
                near.empty() ? "the keys here are " + fmt::format("{}", fmt::join(known, ", "))
                             : "did you mean " + near + "?");
  }
}

std::optional<double> section::number(const std::string& key) {
  if (!has(key)) return std::nullopt;
  const toml::node* node = source_->get(key);
  const auto value = node->value<double>();  // takes integers too
  if (!value || !node->is_number() || !std::isfinite(*value))
    throw error("E-MODEL-TYPE", key, "a finite number is expected",
                "write a number without quotes");
  return *value;
}

double section::number_or(const std::string& key, double fallback) {
  return number(key).value_or(fallback);
}

double section::bound_or(const std::string& key, double fallback) {
  const toml::node* node = source_->get(key);
  if (node != nullptr && node->is_floating_point() && std::isinf(*node->value<double>())) {
    accept(key);
    return *node->value<double>();
  }
  return number_or(key, fallback);
}

int section::whole_number_or(const std::string& key, int fallback, int least, int most) {
  if (!has(key)) return fallback;
  const toml::node* node = source_->get(key);
  const auto value = node->value<std::int64_t>();
  if (!value || !node->is_integer())
    throw error("E-MODEL-TYPE", key, "a whole number is expected",
                "write a whole number without quotes");
  if (*value < least || *value > most)
    throw error("E-MODEL-RANGE", key, fmt::format("{} is out of range", *value),
                fmt::format("it must lie between {} and {}", least, most));
  return static_cast<int>(*value);
}

bool section::flag_or(const std::string& key, bool fallback) {
  if (!has(key)) return fallback;
  const toml::node* node = source_->get(key);
  const auto value = node->value<bool>();
  if (!value || !node->is_boolean())
    throw error("E-MODEL-TYPE", key, "true or false is expected", "write true or false");
  return *value;
}

std::optional<std::string> section::text(const std::string& key) {
  if (!has(key)) return std::nullopt;
  const auto value = source_->get(key)->value<std::string>();
  if (!value) throw error("E-MODEL-TYPE", key, "a text is expected", "write it in double quotes");
  return *value;
}

std::optional<std::string> section::word(const std::string& key,
                                         const std::vector<std::string>& words) {
  const auto value = text(key);
  if (value && std::find(words.begin(), words.end(), *value) == words.end())
    throw unknown_word(key, *value, words);
  return value;
}

std::optional<section> section::table(const std::string& key) {
  if (!has(key)) return std::nullopt;
  const toml::node* node = source_->get(key);
  if (!node->is_table())
    throw error("E-MODEL-TYPE", key, "a table is expected", "write [" + full_key(key) + "]");
  return section(
      std::make_shared<const source>(source{source_->file, source_->document, node->as_table()}),
      full_key(key));
}

std::vector<section> section::tables(const std::string& key) {
  std::vector<section> all;
  if (!has(key)) return all;
  const toml::array* array = source_->get(key)->as_array();
  const bool right =
      array != nullptr &&
      std::all_of(array->begin(), array->end(), [](const toml::node& n) { return n.is_table(); });
  if (!right)
    throw error("E-MODEL-TYPE", key, "a list of tables is expected",
                "write " + key + " = [ { ... } ]");
  for (const toml::node& n : *array) {
    auto entry =
        std::make_shared<const source>(source{source_->file, source_->document, n.as_table()});
    all.push_back(section(std::move(entry), fmt::format("{}[{}]", full_key(key), all.size() + 1)));
  }
  return all;
}

std::vector<double> section::numbers(const std::string& key) {
  return has(key) ? finite_numbers(*source_->get(key)) : std::vector<double>();
}

double section::needed_number(const std::string& key, const std::string& what) {
  const auto value = number(key);
  if (!value) throw missing(key, what);
  return *value;
}

std::string section::needed_text(const std::string& key, const std::string& what) {
  const auto value = text(key);
  if (!value) throw missing(key, what);
  return *value;
}

section section::needed_table(const std::string& key, const std::string& what) {
  auto found = table(key);
  if (!found) throw missing(key, what);
  return *found;
}

double section::fixable_number(const std::string& key, const std::string& inner,
                               const std::string& what, bool& fixed) {
  if (is_number(key)) return *number(key);
  section entry = needed_table(key, what);
  const double value = entry.needed_number(inner, what);
  fixed = entry.flag_or("fixed", false);
  entry.refuse_leftovers();
  return value;
}

std::vector<std::string> section::texts(const std::string& key) {
  const toml::array* array = has(key) ? source_->get(key)->as_array() : nullptr;
  if (array == nullptr || array->empty())
    throw error("E-MODEL-TYPE", key, "a list of names is expected",
                "write " + key + " = [\"CL\", \"V\"]");
  std::vector<std::string> all;
  for (const toml::node& n : *array) {
    if (!n.is_string())
      throw error("E-MODEL-TYPE", key, "a list of names is expected",
                  "write each name in double quotes");
    all.push_back(*n.value<std::string>());
  }
  return all;
}

std::vector<std::vector<double>> section::rows(const std::string& key) {
  const auto wrong = [&] {
    return error("E-MODEL-TYPE", key, "a matrix is expected, a list of rows",
                 "write " + key + " = [[0.3], [0.01, 0.2]]");
  };
  const toml::array* array = has(key) ? source_->get(key)->as_array() : nullptr;
  if (array == nullptr) throw wrong();
  std::vector<std::vector<double>> all;
  for (const toml::node& row : *array) {
    all.push_back(finite_numbers(row));
    if (all.back().empty()) throw wrong();
  }
  return all;
}

// A key that is not there may stand in the file with a slip of the pen.
bad_input section::missing(const std::string& key, const std::string& what) const {
  for (const std::string& other : keys())
    if (!asked_.contains(other) && !did_you_mean(other, {key}).empty())
      return error("E-MODEL-KEY", other, "this key is not known", "did you mean " + key + "?");
  return error("E-MODEL-MISSING", key, "this key is missing", "it gives " + what);
}

std::string section::full_key(const std::string& key) const {
  if (path_.empty() || key.empty()) return path_ + key;
  return path_ + "." + key;
}

}  // namespace varda
