// SPDX-License-Identifier: Apache-2.0
//
// Holds the `Reads:` and `Writes:` lines of the library's headers to the sources. A header and the
// source file of the same stem go together: the shared variables that either uses through an alias
// of a shared module must be listed, those that are assigned or allocated there on a `Writes:`
// line, and nothing else may be listed. What a function does with a variable that it is handed is
// not seen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

usage usage_in(const std::string& text) {
  static const std::regex qualified(R"((\+\+\s*|--\s*)?\b(?:statsubs::)?(\w+)::(\w+))");
  // Element access such as "(i, j)" or ".slice(k)", then what assigns or allocates.
  static const std::regex assigned(
      R"((?:\s*(?:\.(?:slice|column))?\s*\((?:[^()]|\((?:[^()]|\([^()]*\))*\))*\))*\s*)"
      R"((?:=[^=]|(?:[-+*/%&|^]|<<|>>)=|\+\+|--|\.(?:bind|allocate|deallocate)\b))");
  const std::string code = without_comments(text);
  const auto known = qualifiers(code);
  usage found;
  for (matches match(code.begin(), code.end(), qualified), end; match != end; ++match) {
    const auto module = known.find((*match)[2]);
    if (module == known.end() || modules.at(module->second).count((*match)[3]) == 0) continue;
    found.used.insert((*match)[3]);
    if ((*match)[1].matched || std::regex_search((*match)[0].second, code.end(), assigned,
                                                 std::regex_constants::match_continuous))
      found.written.insert((*match)[3]);
  }
  return found;
}

// The entries of all lists in `header` that begin with `label`. A list goes on for as long as lines
// end in a comma.
names listed(const std::string& header, const std::string& label) {
  const std::regex list("//[ \t]*" + label + R"(:((?:[^\n]*,[ \t]*\n[ \t]*//)*[^\n]*))");
  static const std::regex entry(R"([^,\s/](?:[^,\n]*[^,\s])?)");
  names found;
  for (matches match(header.begin(), header.end(), list), end; match != end; ++match)
    found.insert(std::sregex_token_iterator((*match)[1].first, (*match)[1].second, entry), {});
  found.erase("none");
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

// The sample has a use or a write of every kind. The lists of all routines of a header count
// together.
TEST(SharedStateChecker, NamesEveryFault) {
  const std::string source = contents(STATSUBS_SOURCE_DIR "/checks/shared_state_sample.txt");
  EXPECT_THAT(faults("// A text.\n// Reads: leneta, nobs,\n//   omegalchol, cholsub, iseqtheta\n"
                     "// Writes: none\nvoid f();\n\n// Reads: none\n// Writes: xmusub, nobstotal, "
                     "icountgrad, choleskyfactor,\n// modeljacob, globalstop\nvoid g();\n",
                     source),
              IsEmpty());
  const std::string unlisted = " is used and not listed",
                    unwritten = " is written and not on Writes";
  EXPECT_THAT(
      faults("// Reads: nobs, omegalchol, cholsub, iseqtheta, xmusub, nobstotal, icountgrad\n"
             "// Reads: choleskyfactor, modeljacob\n// Writes: theta\n",
             source),
      ElementsAre("globalstop" + unlisted, "leneta" + unlisted, "choleskyfactor" + unwritten,
                  "globalstop" + unwritten, "icountgrad" + unwritten, "modeljacob" + unwritten,
                  "nobstotal" + unwritten, "xmusub" + unwritten, "theta is listed and not used"));
}

}  // namespace
