// SPDX-License-Identifier: Apache-2.0
#include "varda/data/columns.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cmath>

#include "varda/data/levels.h"
#include "varda/support/text.h"

namespace varda {

const std::vector<std::string>& data_roles() {
  static const std::vector<std::string> names = {"ID",   "TIME", "DV",    "AMT", "EVID", "MDV",
                                                 "CMT",  "RATE", "DUR",   "II",  "ADDL", "SS",
                                                 "DVID", "CENS", "LIMIT", "OCC"};
  return names;
}

namespace {

std::string remedy_for(std::string_view text, role of) {
  if (of == role::time && text.find(':') != std::string_view::npos)
    return "write the time as a number: 8:30 is 8.5 in hours";
  if (of == role::dv && text.starts_with('<'))
    return "write the limit of quantification into DV and 1 into a column CENS";
  return "write a plain number, or '.' for a missing value";
}

std::string list_of(const std::vector<std::string>& columns) {
  constexpr std::size_t most = 20;
  std::string list;
  for (std::size_t k = 0; k < std::min(columns.size(), most); ++k)
    list += (k == 0 ? "its columns are " : ", ") + shortened(columns[k]);
  return columns.size() > most ? list + fmt::format(" and {} more", columns.size() - most) : list;
}

// 12,5 or -,5: digits on both sides of one comma, at most one of them missing.
bool has_decimal_comma(std::string_view text) {
  if (text.starts_with('-') || text.starts_with('+')) text.remove_prefix(1);
  const std::size_t comma = text.find(',');
  if (comma == std::string_view::npos || text.size() < 2) return false;
  const auto digits = [](std::string_view part) {
    return std::all_of(part.begin(), part.end(),
                       [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; });
  };
  return digits(text.substr(0, comma)) && digits(text.substr(comma + 1));
}

}  // namespace

column_map::column_map(const data_source& source, const csv_table& table)
    : source_(source), table_(table) {
  for (const std::string& name : data_roles()) {
    const auto renamed = source.columns.find(name);
    roles_.push_back(find(renamed == source.columns.end() ? name : renamed->second));
    // A column that the model file names must be there; one that only has its usual name need not.
    if (roles_.back() < 0 && renamed != source.columns.end()) throw no_column(renamed->second);
  }
  std::vector<role> needed = {role::id};
  if (source.time_needed) needed.push_back(role::time);
  if (source.values_needed) needed.push_back(role::dv);
  if (source.doses_needed) needed.push_back(role::amt);
  if (source.endpoints.size() > 1) needed.push_back(role::dvid);
  if (source.occasions) needed.push_back(role::occ);
  for (const role of : needed)
    if (position_of(of) < 0) throw no_column(name_of(of));
  for (const std::string& covariate : source.covariates) {
    covariates_.push_back(find(covariate));
    if (covariates_.back() < 0) throw no_column(covariate);
    const auto use = source.uses.find(covariate);
    texts_.push_back(use != source.uses.end() && use->second.may_be_text());
  }
}

int column_map::find(const std::string& name) const {
  for (std::size_t i = 0; i < table_.header.size(); ++i)
    if (equal_ignoring_case(table_.header[i], name)) return static_cast<int>(i);
  return -1;
}

namespace {

// Whether one letter can be taken out of `longer` to give `shorter`.
bool has_one_more(const std::string& longer, const std::string& shorter) {
  if (longer.size() != shorter.size() + 1) return false;
  const auto differs = std::mismatch(shorter.begin(), shorter.end(), longer.begin());
  return std::equal(differs.first, shorter.end(), differs.second + 1);
}

bool has_two_exchanged(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  const auto differs = std::mismatch(a.begin(), a.end(), b.begin());
  if (a.end() - differs.first < 2) return false;
  return differs.first[0] == differs.second[1] && differs.first[1] == differs.second[0] &&
         std::equal(differs.first + 2, a.end(), differs.second + 2);
}

}  // namespace

std::vector<std::pair<std::string, std::string>> column_map::misspelt() const {
  constexpr std::size_t shortest = 3;
  std::vector<std::string> absent;
  std::vector<bool> used(table_.header.size(), false);
  for (std::size_t k = 0; k < roles_.size(); ++k) {
    if (roles_[k] >= 0)
      used[static_cast<std::size_t>(roles_[k])] = true;
    else if (data_roles()[k].size() >= shortest)
      absent.push_back(lower_case(data_roles()[k]));
  }
  for (const int k : covariates_) used[static_cast<std::size_t>(k)] = true;
  std::vector<std::pair<std::string, std::string>> found;
  for (std::size_t i = 0; i < table_.header.size(); ++i) {
    const std::string name = lower_case(table_.header[i]);
    if (used[i] || name.size() < shortest) continue;
    for (const std::string& role : absent)
      if (has_one_more(name, role) || has_one_more(role, name) || has_two_exchanged(name, role)) {
        found.emplace_back(table_.header[i], role);
        for (char& c : found.back().second)
          c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      }
  }
  return found;
}

std::string column_map::name_of(role of) const {
  const int position = position_of(of);
  return position < 0 ? data_roles()[static_cast<std::size_t>(of)] : name_at(position);
}

bad_input column_map::no_column(const std::string& name) const {
  const std::string near = did_you_mean(name, table_.header);
  return bad_input({.code = "E-DATA-COLUMN",
                    .message = "the data file has no column " + name,
                    .remedy = near.empty() ? list_of(table_.header) : "did you mean " + near + "?",
                    .file = table_.file,
                    .row = table_.header_line,
                    .column = name});
}

std::string_view record_view::id() const {
  return field(columns_->position_of(role::id));
}

bad_input record_view::error(const std::string& code, const std::string& message,
                             const std::string& remedy, std::optional<role> at) const {
  return bad_input({.code = code,
                    .message = message,
                    .remedy = remedy,
                    .file = columns_->file(),
                    .row = row(),
                    .column = at ? columns_->name_of(*at) : "",
                    .subject = shortened(id())});
}

std::optional<double> record_view::number_at(int position, const std::string& remedy) const {
  const std::string_view text = field(position);
  if (is_missing(text)) return std::nullopt;
  const std::optional<double> value = to_number(text);
  if (value && std::isfinite(*value)) return value;
  const bool comma = has_decimal_comma(text);
  finding found =
      error(
          "E-DATA-NUMBER",
          comma ? fmt::format("'{}' has a decimal comma", shortened(text))
                : fmt::format("'{}' is not a {}number", shortened(text), value ? "finite " : ""),
          comma ? "write numbers with a decimal point; the separator of the columns stays" : remedy)
          .what_found();
  found.column = columns_->name_at(position);
  throw bad_input(found);
}

std::optional<double> record_view::number(role of) const {
  const int position = columns_->position_of(of);
  if (position < 0) return std::nullopt;
  return number_at(position, remedy_for(field(position), of));
}

std::optional<double> record_view::level_at(int position) const {
  const std::string_view text = field(position);
  if (is_missing(text)) return std::nullopt;
  if (is_utf8(text)) return level_number(text);
  finding found = error("E-DATA-ENCODING", "the text is not valid UTF-8", "save the file as UTF-8")
                      .what_found();
  found.column = columns_->name_at(position);
  throw bad_input(found);
}

std::optional<double> record_view::covariate(std::size_t k) const {
  const int position = columns_->position_of_covariate(k);
  if (columns_->may_be_text(k)) return level_at(position);
  return number_at(position,
                   "the model computes with this column; texts can be levels of an effect "
                   "\"categorical\", or compared with texts in a formula");
}

std::optional<double> record_view::level(role of) const {
  const int position = columns_->position_of(of);
  return position < 0 ? std::nullopt : level_at(position);
}

std::string_view record_view::text(role of) const {
  const int position = columns_->position_of(of);
  return position < 0 ? std::string_view() : field(position);
}

int record_view::whole_number_or(role of, int fallback) const {
  const std::optional<double> value = number(of);
  if (!value) return fallback;
  if (*value != std::floor(*value) || std::fabs(*value) > 1e6)
    throw error("E-DATA-NUMBER", fmt::format("{} is not a whole number up to 1000000", *value),
                "write a whole number", of);
  return static_cast<int>(*value);
}

}  // namespace varda
