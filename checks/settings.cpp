// SPDX-License-Identifier: Apache-2.0
//
// Holds docs/model-file.md to the settings and words of the model file: settings SOURCE_DIR
// [--write]. Names what is missing or different and fails; with --write it brings the table of
// settings up to date first.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cmath>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "varda/model/settings_table.h"
#include "varda/model/words.h"

namespace {

using namespace varda;

const std::string marker = "<!-- made by checks/settings.cpp -->\n\n";

std::string quoted(const std::string& word) {
  return "`\"" + word + "\"`";
}

// Type and range of a setting.
struct cells {
  const estimation_settings defaults{};

  std::string operator()(const whole_number_setting& s) const {
    const std::string standard = s.automatic ? "automatic" : fmt::format("{}", defaults.*s.member);
    return fmt::format("whole number | {} | {} to {}", standard, s.least, s.most);
  }
  std::string operator()(const number_setting& s) const {
    std::string range =
        fmt::format("{} {}", s.at_least == range_end::excluded ? "above" : "at least", s.least);
    if (!std::isinf(s.most))
      range +=
          fmt::format(", {} {}", s.at_most == range_end::excluded ? "below" : "at most", s.most);
    return fmt::format("number | {} | {}", defaults.*s.member, range);
  }
  std::string operator()(const flag_setting& s) const {
    return fmt::format("true/false | `{}` |", defaults.*s.member);
  }
  std::string operator()(const word_setting& s) const {
    std::vector<std::string> words;
    for (const std::string& word : s.words) words.push_back(quoted(word));
    return fmt::format("text | {} | {}", quoted(s.get(defaults)), fmt::join(words, ", "));
  }
};

std::string table_of_settings() {
  std::string text = "| key | type | default | range | meaning |\n|---|---|---|---|---|\n";
  for (const setting& row : every_setting())
    text +=
        fmt::format("| `{}` | {} | {} |\n", row.name, std::visit(cells{}, row.kind), row.meaning);
  return text;
}

// The page in three parts: up to its table of settings, the table, and what follows.
struct page {
  std::string before, table, after;

  explicit page(const std::string& text) {
    const std::size_t start = text.find(marker);
    if (start == std::string::npos) throw std::runtime_error("the page has no table of settings");
    const std::size_t begin = start + marker.size();
    std::size_t end = begin;
    while (end < text.size() && text[end] == '|') end = text.find('\n', end) + 1;
    before = text.substr(0, begin);
    table = text.substr(begin, end - begin);
    after = text.substr(end);
  }
};

template <class Kind>
void add_words(std::vector<std::string>& to) {
  for (const std::string& word : words_of(every_name<Kind>())) to.push_back(word);
}

// The words that stand outside [estimation].
std::vector<std::string> words_of_the_model() {
  std::vector<std::string> words;
  add_words<parametrisation>(words);
  add_words<distribution>(words);
  add_words<effect_form>(words);
  add_words<error_kind>(words);
  return words;
}

std::vector<std::string> faults_of(const page& found) {
  std::vector<std::string> faults;
  if (found.table != table_of_settings())
    faults.emplace_back("its table of settings differs: run this program with --write");
  for (const setting& row : every_setting())
    if (found.after.find("`" + row.name + "`") == std::string::npos)
      faults.push_back(row.name + " is not explained below the table");
  for (const std::string& word : words_of_the_model())
    if (found.before.find("`" + word + "`") == std::string::npos &&
        found.before.find(quoted(word)) == std::string::npos)
      faults.push_back("the word " + word + " is not there");
  return faults;
}

// A check that finds nothing any more would keep silent.
void check_the_check() {
  const std::string& first = every_setting().front().name;
  const page wrong("no words\n\n" + marker + "| a |\n\nNo setting.\n");
  const std::size_t expected = 1 + every_setting().size() + words_of_the_model().size();
  if (wrong.table != "| a |\n" || faults_of(wrong).size() != expected)
    throw std::runtime_error("a page without " + first + " is not refused");
}

std::string contents(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error(path + " cannot be read");
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  try {
    check_the_check();
    const std::string path = std::string(argv[1]) + "/docs/model-file.md";
    page found(contents(path));
    if (argc > 2 && std::string(argv[2]) == "--write") {
      found.table = table_of_settings();
      std::ofstream(path) << found.before << found.table << found.after;
    }
    const std::vector<std::string> faults = faults_of(found);
    for (const std::string& fault : faults) std::printf("%s: %s\n", path.c_str(), fault.c_str());
    return faults.empty() ? 0 : 1;
  } catch (const std::exception& error) {
    std::printf("%s\n", error.what());
    return 1;
  }
}
