// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/new.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "varda/cli/at_root.h"
#include "varda/cli/shared_files.h"
#include "varda/cli/table_sink.h"
#include "varda/draft/catalogue.h"
#include "varda/draft/from_data.h"
#include "varda/model/words.h"
#include "varda/support/text.h"

namespace varda {

namespace {

bad_input bad_option(const std::string& message, const std::string& remedy) {
  return bad_input({.code = "E-NEW-OPTION", .message = message, .remedy = remedy});
}

std::string list_of_structures() {
  std::string text;
  for (const structure_group& group : structure_groups()) {
    text += fmt::format("{}{}\n", text.empty() ? "" : "\n", group.heading);
    for (const listed_structure& s : group.structures)
      text += fmt::format("  {}\n    {}\n", s.name, wrapped(s.about, 4));
  }
  return text +
         "\nvarda new --list NAME describes one, varda new NAME --data FILE --output MODEL.toml "
         "writes a\nmodel file for your data.\n";
}

std::map<std::string, std::string> columns_of(const std::vector<std::string>& pairs) {
  std::map<std::string, std::string> columns;
  for (const std::string& pair : pairs) {
    const std::size_t at = pair.find('=');
    std::string role = pair.substr(0, at);
    std::transform(role.begin(), role.end(), role.begin(), [](char c) {
      return 'a' <= c && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    const std::vector<std::string>& roles = data_roles();
    if (at == std::string::npos || at + 1 == pair.size() ||
        std::find(roles.begin(), roles.end(), role) == roles.end())
      throw bad_option(
          fmt::format("'{}' names no column", pair),
          fmt::format("write ROLE=NAME, say DV=CONC; the roles are {}", fmt::join(roles, ", ")));
    columns[role] = pair.substr(at + 1);
  }
  return columns;
}

std::optional<error_kind> error_called(const std::string& word) {
  if (word.empty()) return std::nullopt;
  std::vector<std::string> words;
  for (const named<error_kind>& entry : every_name<error_kind>()) {
    if (word == entry.name) return entry.value;
    words.emplace_back(entry.name);
  }
  throw bad_option(fmt::format("'{}' is no residual error", word),
                   fmt::format("it can be {}", fmt::join(words, ", ")));
}

// A file that cannot be written is told before the work.
void refuse_output(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code ignored;
  if (path.empty()) return;
  if (!fs::is_directory(fs::absolute(path).parent_path(), ignored))
    throw bad_input({.code = "E-RUN-OUTPUT",
                     .message = "there is no such folder",
                     .remedy = "create it, or choose another name with --output",
                     .file = path});
  if (!fs::exists(path, ignored)) return;
  throw bad_input({.code = "E-RUN-OUTPUT",
                   .message = "the file is there already and would be lost",
                   .remedy = "choose another name with --output, or move it away",
                   .file = path});
}

void write(const std::string& text, const std::string& path) {
  table_sink out(path);
  out.write(text);
  refuse_output(path);
  out.finish();
}

draft_request asked_of_data(const new_request& request, const ready_structure& structure) {
  draft_request asked;
  asked.structure = structure;
  asked.as_equations = request.as_equations;
  asked.outputs = request.outputs;
  asked.data = request.data;
  asked.output = request.output;
  asked.columns = columns_of(request.columns);
  asked.error = error_called(request.error);
  return asked;
}

std::string plain_draft(const new_request& request, const ready_structure& structure) {
  if (!request.columns.empty())
    throw bad_option("columns are named and no data", "give the data set with --data");
  drafted_model draft = draft_of(structure, request.outputs);
  draft.as_equations = request.as_equations;
  if (const auto error = error_called(request.error))
    for (drafted_endpoint& e : draft.endpoints) {
      e.error = *error;
      e.deviations.clear();
      for (const std::string& key : deviation_keys_of(*error))
        e.deviations.push_back({key, key == "exponent" ? 1.0 : key == "lambda" ? 0.5 : 0.2});
    }
  draft.remarks = {"Put in the name of your data set and start values that suit it."};
  return model_text(draft);
}

}  // namespace

exit_status new_model(const new_request& request, job& peers) {
  if (request.structure.empty())
    return at_root(peers, [&] { write(list_of_structures(), request.output); });
  const ready_structure structure = structure_called(request.structure);
  if (request.list)
    return at_root(peers, [&] { write(description_of(structure), request.output); });
  if (request.data.empty())
    return at_root(peers, [&] {
      refuse_output(request.output);
      write(plain_draft(request, structure), request.output);
    });
  at_root(peers, [&] { refuse_output(request.output); });
  peers.use_threads(0);
  const draft_result drafted =
      draft_from_data(asked_of_data(request, structure), shared_files(peers), peers);
  return at_root(peers, [&] {
    for (const finding& warning : drafted.warnings)
      std::fputs((to_lines(warning) + "\n").c_str(), stderr);
    for (const std::string& line : drafted.recognised)
      std::fputs((wrapped(line, 2) + "\n").c_str(), stderr);
    write(drafted.text, request.output);
    if (!request.output.empty())
      std::fputs(fmt::format("{0} is written; varda check {0} and varda fit {0} are next.\n",
                             request.output)
                     .c_str(),
                 stderr);
  });
}

}  // namespace varda
