// SPDX-License-Identifier: Apache-2.0
#include "varda/support/finding.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>

#include "varda/support/text.h"

namespace varda {

namespace {

// Edits that turn a into b: insertion, deletion, substitution, exchange of neighbours (Damerau's
// distance in its restricted form).
std::size_t distance(const std::string& a, const std::string& b) {
  const std::size_t columns = b.size() + 1;
  std::vector<std::size_t> d((a.size() + 1) * columns);
  const auto at = [&](std::size_t i, std::size_t j) -> std::size_t& { return d[i * columns + j]; };
  for (std::size_t i = 0; i <= a.size(); ++i) at(i, 0) = i;
  for (std::size_t j = 0; j <= b.size(); ++j) at(0, j) = j;
  for (std::size_t i = 1; i <= a.size(); ++i)
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t substitution = at(i - 1, j - 1) + (a[i - 1] == b[j - 1] ? 0 : 1);
      at(i, j) = std::min({at(i - 1, j) + 1, at(i, j - 1) + 1, substitution});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        at(i, j) = std::min(at(i, j), at(i - 2, j - 2) + 1);
    }
  return at(a.size(), b.size());
}

}  // namespace

namespace {

std::string place_of(const finding& what) {
  std::string place = what.file;
  const auto add = [&place](const std::string& part) {
    place += (place.empty() ? "" : ", ") + part;
  };
  if (what.row > 0) add(fmt::format("row {}", what.row));
  if (!what.column.empty()) add(fmt::format("column {}", what.column));
  if (!what.subject.empty()) add(fmt::format("subject {}", what.subject));
  return place + (place.empty() ? "" : ":");
}

std::string what_is_said(const finding& what) {
  return fmt::format("{} {}: {}{}{}", what.level == severity::error ? "error" : "warning",
                     what.code, what.message, what.remedy.empty() ? "" : "; ", what.remedy);
}

}  // namespace

std::string to_text(const finding& what) {
  const std::string place = place_of(what);
  return place + (place.empty() ? "" : " ") + what_is_said(what);
}

std::string to_lines(const finding& what) {
  const std::string line = to_text(what);
  const std::string place = place_of(what);
  if (line.size() <= terminal_columns || place.empty()) return wrapped(line, 2);
  return wrapped(place, 2) + "\n" + wrapped("  " + what_is_said(what), 2);
}

bad_input::bad_input(finding what) : found_(std::move(what)), text_(to_text(found_)) {}

std::string did_you_mean(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  // A third of the letters may be wrong, one at least, but never all; more is another word.
  std::size_t least = std::max<std::size_t>(word.size() / 3, 1) + 1;
  for (const std::string& candidate : candidates) {
    const std::size_t edits = distance(lower_case(word), lower_case(candidate));
    if (edits >= std::min(least, std::max(word.size(), candidate.size()))) continue;
    least = edits;
    best = candidate;
  }
  return best;
}

}  // namespace varda
