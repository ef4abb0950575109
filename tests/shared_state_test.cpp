// SPDX-License-Identifier: Apache-2.0
//
// Holds the `Reads:` and `Writes:` lines of the library's headers to the sources. A header and the
// source file of the same stem go together: the shared variables that either uses through an alias
// of a shared module must be listed, those that are assigned or allocated there on a `Writes:`
// line, and nothing else may be listed. What a function does with a variable that it is handed is
// not seen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "statsubs/sequences/bdsobl.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/state/standarderrorvariables.h"

namespace {

namespace fs = std::filesystem;
using names = std::set<std::string>;
using testing::ElementsAre;
using testing::IsEmpty;

#define STATSUBS_NAME(kind, name, extent, meaning, writer) #name,
const std::map<std::string, names> modules = {
    {"global_variables", {STATSUBS_GLOBAL_VARIABLES(STATSUBS_NAME)}},
    {"qrpemlocalvariables", {STATSUBS_QRPEMLOCALVARIABLES(STATSUBS_NAME)}},
    {"standarderrorvariables", {STATSUBS_STANDARDERRORVARIABLES(STATSUBS_NAME)}},
    {"saveearlyvars", {STATSUBS_SAVEEARLYVARS(STATSUBS_NAME)}},
    {"bdsobl", {STATSUBS_BDSOBL(STATSUBS_NAME)}}};
#undef STATSUBS_NAME

struct usage {
  names used, written;
};

using matches = std::sregex_iterator;

std::string without_comments(const std::string& text) {
  static const std::regex comment(R"re("(?:\\.|[^"\\\n])*"|//[^\n]*|/\*[^]*?\*/)re");
  return std::regex_replace(text, comment, " ");
}

// The names by which `code` reaches the shared modules: their own and its namespace aliases.
std::map<std::string, std::string> qualifiers(const std::string& code) {
  std::map<std::string, std::string> found;
  for (const auto& module : modules) found[module.first] = module.first;
  static const std::regex alias(R"(namespace\s+(\w+)\s*=\s*(?:::)?(?:statsubs::)?(\w+)\s*;)");
  for (matches match(code.begin(), code.end(), alias), end; match != end; ++match)
    if (modules.count((*match)[2]) != 0) found[(*match)[1]] = (*match)[2];
  return found;
}

// `code` from `position` on, past a subscript and element access such as "(i, j)" or ".slice(k)".
std::size_t past_element(const std::string& code, std::size_t position) {
  static const std::regex part(R"(^\s*(?:\.(?:slice|column))?\s*\()");
  std::smatch match;
  while (std::regex_search(code.begin() + static_cast<std::ptrdiff_t>(position), code.end(), match,
                           part)) {
    position += static_cast<std::size_t>(match.length());
    for (int depth = 1; depth > 0 && position < code.size(); ++position)
      depth += code[position] == '(' ? 1 : code[position] == ')' ? -1 : 0;
  }
  return position;
}

bool is_written(const std::string& code, std::size_t begin, std::size_t end) {
  static const std::regex before(R"((?:\+\+|--)\s*$)");
  static const std::regex after(
      R"(^\s*(?:=[^=]|(?:[-+*/%&|^]|<<|>>)=|\+\+|--|\.(?:bind|allocate|deallocate)\b))");
  const std::size_t margin = begin < 4 ? 0 : begin - 4;
  return std::regex_search(code.substr(margin, begin - margin), before) ||
         std::regex_search(code.substr(past_element(code, end), 16), after);
}

usage usage_in(const std::string& text) {
  const std::string code = without_comments(text);
  const auto known = qualifiers(code);
  static const std::regex qualified(R"(\b(?:statsubs::)?(\w+)::(\w+))");
  usage found;
  for (matches match(code.begin(), code.end(), qualified), end; match != end; ++match) {
    const auto module = known.find((*match)[1]);
    if (module == known.end() || modules.at(module->second).count((*match)[2]) == 0) continue;
    found.used.insert((*match)[2]);
    const auto begin = static_cast<std::size_t>(match->position());
    if (is_written(code, begin, begin + static_cast<std::size_t>(match->length())))
      found.written.insert((*match)[2]);
  }
  return found;
}

// The entries of all lists in `header` that begin with `label`. A list goes on for as long as lines
// end in a comma.
names listed(const std::string& header, const std::string& label) {
  const std::regex list("//[ \t]*" + label + R"(:((?:[^\n]*,[ \t]*\n[ \t]*//)*[^\n]*))");
  static const std::regex entry(R"([^,\s/](?:[^,\n]*[^,\s])?)");
  names found;
  for (matches match(header.begin(), header.end(), list), end; match != end; ++match) {
    const std::string entries = (*match)[1];
    for (matches name(entries.begin(), entries.end(), entry); name != end; ++name)
      if (name->str() != "none") found.insert(name->str());
  }
  return found;
}

std::vector<std::string> faults(const std::string& header, const std::string& source) {
  const names may_write = listed(header, "Writes");
  names may_use = listed(header, "Reads");
  may_use.insert(may_write.begin(), may_write.end());
  const auto [used, written] = usage_in(source + '\n' + header);
  std::vector<std::string> found;
  for (const auto& name : used)
    if (may_use.count(name) == 0) found.push_back(name + " is used and not listed");
  for (const auto& name : written)
    if (may_write.count(name) == 0) found.push_back(name + " is written and not on Writes");
  for (const auto& name : may_use)
    if (used.count(name) == 0) found.push_back(name + " is listed and not used");
  return found;
}

std::string contents(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(SharedState, HeadersListWhatTheirSourcesUse) {
  std::set<fs::path> stems;
  for (const auto& entry : fs::recursive_directory_iterator(STATSUBS_SOURCE_DIR "/statsubs"))
    if (const fs::path& path = entry.path(); path.extension() == ".cpp" || path.extension() == ".h")
      stems.insert(fs::path(path).replace_extension());
  ASSERT_GT(stems.size(), 20U);
  for (const fs::path& stem : stems)
    EXPECT_THAT(faults(contents(stem.string() + ".h"), contents(stem.string() + ".cpp")), IsEmpty())
        << stem;
}

const std::string aliases = R"(
namespace gv = statsubs::global_variables;
namespace other = statsubs::qrpemlocalvariables;
)";

TEST(SharedStateChecker, SeesUsesAndWrites) {
  const usage found = usage_in(aliases + R"(
    // gv::theta in a comment, "gv::omega" in a text
    f("gv::omegainv", gv::leneta == 3, gv::name_of_no_variable);
    gv::xmusub(row(2)) = 1.0;
    gv::nobstotal += gv::nobs;
    ++gv::icountgrad;
    other::choleskyfactor.slice(3)(1, 2) = gv::omegalchol(1, 2);
    gv::modeljacob.allocate("x", 1, 2);
    g(gv::cholsub.column(4), other::iseqtheta(1) <= 2);
    statsubs::saveearlyvars::globalstop = 0;
  )");
  const names written = {"xmusub",         "nobstotal",  "icountgrad",
                         "choleskyfactor", "modeljacob", "globalstop"};
  names used = {"leneta", "nobs", "omegalchol", "cholsub", "iseqtheta"};
  EXPECT_EQ(found.written, written);
  used.insert(written.begin(), written.end());
  EXPECT_EQ(found.used, used);
}

// The lists of all routines of a header count together.
TEST(SharedStateChecker, NamesEveryFault) {
  const std::string source = aliases + "void f() { gv::nobs = gv::nsub + gv::leneta; }";
  EXPECT_THAT(faults("// A text.\n// Reads: nsub,\n//   leneta\n// Writes: none\nvoid f();\n\n"
                     "// Reads: none\n// Writes: nobs\nvoid g();\n",
                     source),
              IsEmpty());
  EXPECT_THAT(faults("// Reads: nsub, nobs\n// Writes: theta\n", source),
              ElementsAre("leneta is used and not listed", "nobs is written and not on Writes",
                          "theta is listed and not used"));
}

}  // namespace
