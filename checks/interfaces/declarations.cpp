// SPDX-License-Identifier: Apache-2.0
#include "checks/interfaces/declarations.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <regex>
#include <set>
#include <stdexcept>

#include "statsubs/sequences/bdsobl.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/state/standarderrorvariables.h"

namespace interfaces {

namespace {

namespace fs = std::filesystem;
using matches = std::sregex_iterator;

std::string without_line_comments(const std::string& text) {
  static const std::regex comment("//[^\n]*");
  return std::regex_replace(text, comment, "");
}

std::string with_single_blanks(const std::string& text) {
  static const std::regex blanks("[\\s\\\\]+");
  return std::regex_replace(text, blanks, " ");
}

// Empty for a parameter that is no reference or pointer to a plain type.
std::optional<parameter> parsed_parameter(const std::string& text, std::size_t position) {
  static const std::regex shape(R"(\s*(const )?(int|double|bool|char)([&*])(?: (\w+))?\s*)");
  std::smatch match;
  if (!std::regex_match(text, match, shape)) return std::nullopt;
  const std::string name = match[4].matched ? match[4].str() : "unused" + std::to_string(position);
  return parameter{match[2], match[1].matched, match[3] == "*", name};
}

std::optional<std::vector<parameter>> parsed_parameters(const std::string& list) {
  std::vector<parameter> found;
  const std::string text = with_single_blanks(list);
  if (text.find_first_not_of(' ') == std::string::npos) return found;
  static const std::regex comma(",");
  for (std::sregex_token_iterator item(text.begin(), text.end(), comma, -1), end; item != end;
       ++item) {
    const auto parameter = parsed_parameter(*item, found.size() + 1);
    if (!parameter) return std::nullopt;
    found.push_back(*parameter);
  }
  return found;
}

bool is_public_header(const fs::path& path) {
  static const std::set<std::string> left_out = {"support", "c", "fortran"};
  static const std::set<std::string> host_interface = {"host.h", "output_units.h"};
  return path.extension() == ".h" && left_out.count(path.parent_path().filename()) == 0 &&
         host_interface.count(path.filename()) == 0;
}

}  // namespace

std::string contents(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<routine> declared_routines(const std::string& header, const std::string& text) {
  static const std::regex declaration(
      R"(\n(STATSUBS_API\s+)?(void|int|double)\s+(\w+)\(([^()]*)\);)");
  const std::string code = without_line_comments(text);
  std::vector<routine> found;
  for (matches match(code.begin(), code.end(), declaration), end; match != end; ++match) {
    const auto parameters = parsed_parameters((*match)[4]);
    const bool marked = (*match)[1].matched;
    if (!parameters && !marked) continue;
    if (!parameters || !marked)
      throw std::runtime_error(
          header + ": " + (*match)[3].str() +
          (marked ? " has an argument that C does not know" : " is not marked STATSUBS_API"));
    found.push_back({header, "", (*match)[2], (*match)[3], *parameters});
  }
  return found;
}

std::vector<routine> public_routines(const std::string& source) {
  std::set<fs::path> headers;
  for (const auto& entry : fs::recursive_directory_iterator(fs::path(source) / "statsubs"))
    if (is_public_header(entry.path())) headers.insert(entry.path());
  std::vector<routine> found;
  for (const fs::path& path : headers) {
    const std::string name = path.lexically_relative(source).generic_string();
    const auto more = declared_routines(name, contents(path.string()));
    found.insert(found.end(), more.begin(), more.end());
  }
  return found;
}

std::vector<routine> host_callables(const std::string& source) {
  // A comment that stands alone heads a group; the last one before the row is the row's own.
  static const std::regex row(
      R"((?:/\* ([^*]*) \*/ )?X\((void|int|double), (\w+), \(([^()]*)\), \([^()]*\)\))");
  const std::string text = with_single_blanks(contents(source + "/statsubs/state/host.h"));
  std::vector<routine> found;
  for (matches match(text.begin(), text.end(), row), end; match != end; ++match)
    found.push_back(
        {"", (*match)[1], (*match)[2], (*match)[3], parsed_parameters((*match)[4]).value()});
  return found;
}

std::vector<shared_variable> shared_variables() {
#define STATSUBS_ROW(kind, name, extent, meaning, writer) \
  {module, #kind, #name, extent, meaning, writer},
  std::vector<shared_variable> all;
  const auto add = [&all](const std::vector<shared_variable>& rows) {
    all.insert(all.end(), rows.begin(), rows.end());
  };
  const char* module = "global_variables";
  add({STATSUBS_GLOBAL_VARIABLES(STATSUBS_ROW)});
  module = "qrpemlocalvariables";
  add({STATSUBS_QRPEMLOCALVARIABLES(STATSUBS_ROW)});
  module = "standarderrorvariables";
  add({STATSUBS_STANDARDERRORVARIABLES(STATSUBS_ROW)});
  module = "saveearlyvars";
  add({STATSUBS_SAVEEARLYVARS(STATSUBS_ROW)});
  module = "bdsobl";
  add({STATSUBS_BDSOBL(STATSUBS_ROW)});
#undef STATSUBS_ROW
  return all;
}

}  // namespace interfaces
