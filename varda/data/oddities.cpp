// SPDX-License-Identifier: Apache-2.0
#include "varda/data/oddities.h"

#include <fmt/format.h>

#include <algorithm>

#include "varda/support/text.h"

namespace varda {

void oddities::count(const std::string& code, const wording& what, const std::string& remedy,
                     const finding& place) {
  const auto same = [&](const kind& k) {
    return k.first.code == code && k.what.several == what.several;
  };
  auto at = std::find_if(kinds_.begin(), kinds_.end(), same);
  if (at == kinds_.end()) {
    finding first = place;
    first.level = severity::warning;
    first.code = code;
    first.remedy = remedy;
    at = kinds_.insert(kinds_.end(), kind{.first = first, .what = what});
  }
  ++at->cases;
}

void oddities::count(const std::string& code, const wording& what, const std::string& remedy,
                     const record_view& at, role column) {
  count(code, what, remedy, at.error("", "", "", column).what_found());
}

void oddities::say(const std::string& code, const std::string& message, const std::string& remedy,
                   const finding& place) {
  finding first = place;
  first.level = severity::warning;
  first.code = code;
  first.remedy = remedy;
  kinds_.push_back({.first = first, .what = {message, ""}});
}

void oddities::ignored(const record_view& at, role column, const wording& records,
                       const std::string& remedy) {
  const finding place = at.error("", "", "", column).what_found();
  count("W-DATA-IGNORED",
        {fmt::format("{} holds a {}, which is ignored", records.one, place.column),
         fmt::format("{} hold a {}, which is ignored", records.several, place.column)},
        remedy, place);
}

findings oddities::warnings() const {
  findings all;
  for (const kind& k : kinds_) {
    all.push_back(k.first);
    all.back().message = k.cases == 0 ? k.what.one : count_of(k.cases, k.what.one, k.what.several);
  }
  return all;
}

}  // namespace varda
