// SPDX-License-Identifier: Apache-2.0
#include "varda/folder/saved_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "varda/support/archive.h"
#include "varda/support/digest.h"

namespace varda {

namespace {

// A line that names the file, one with the digest of what follows, and an archive.
const std::string mark = "varda run state 1\n";
constexpr std::size_t digest_size = 64;

}  // namespace

std::string saved_run_text(saved_run what) {
  std::ostringstream out;
  archive_writer to(out);
  to(what.of, what.body);
  const std::string content = out.str();
  return mark + sha256(content) + "\n" + content;
}

bool is_saved_run(const std::string& text) {
  return text.compare(0, mark.size(), mark) == 0;
}

saved_run read_saved_run(const std::string& text) {
  if (!is_saved_run(text)) throw std::runtime_error("it is not the state of a run");
  const std::size_t begin = mark.size() + digest_size + 1;
  if (text.size() < begin || text[begin - 1] != '\n' ||
      sha256(text.substr(begin)) != text.substr(mark.size(), digest_size))
    throw std::runtime_error("it is damaged");
  std::istringstream in(text.substr(begin));
  archive_reader from(in);
  saved_run what;
  from(what.of, what.body);
  return what;
}

std::vector<std::string> differences(const saved_run::identity& there,
                                     const saved_run::identity& here) {
  constexpr std::size_t shown = 12;
  const auto value_in = [](const saved_run::identity& list, const std::string& name) {
    const auto at = std::find_if(list.begin(), list.end(),
                                 [&](const auto& entry) { return entry.first == name; });
    return at == list.end() ? std::string("nothing") : at->second;
  };
  const auto cut = [](const std::string& value) {
    return value.size() > digest_size / 2 ? value.substr(0, shown) : value;
  };
  std::vector<std::string> result;
  for (const auto& [name, value] : here)
    if (value_in(there, name) != value)
      result.push_back(
          fmt::format("{} ({} there, {} here)", name, cut(value_in(there, name)), cut(value)));
  for (const auto& [name, value] : there)
    if (value_in(here, name) == "nothing" && value != "nothing")
      result.push_back(fmt::format("{} ({} there, nothing here)", name, cut(value)));
  return result;
}

}  // namespace varda
