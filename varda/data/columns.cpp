// SPDX-License-Identifier: Apache-2.0
#include "varda/data/columns.h"

#include <fmt/format.h>

#include <cmath>

#include "varda/support/text.h"

namespace varda {

const std::vector<std::string>& data_roles() {
  static const std::vector<std::string> names = {"ID",   "TIME", "DV",    "AMT", "EVID", "MDV",
                                                 "CMT",  "RATE", "DUR",   "II",  "ADDL", "SS",
                                                 "DVID", "CENS", "LIMIT", "OCC"};
  return names;
}

namespace {

std::string remedy_for(const std::string& text, role of) {
  if (of == role::time && text.find(':') != std::string::npos)
    return "write the time as a number: 8:30 is 8.5 in hours";
  if (of == role::dv && text.starts_with('<'))
    return "write the limit of quantification into DV and 1 into a column CENS";
  if (text.find(',') != std::string::npos) return "numbers have a decimal point";
  return "write a plain number, or '.' where it is missing";
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
  std::vector<role> needed = {role::id, role::time};
  if (source.values_needed) needed.push_back(role::dv);
  if (source.doses_needed) needed.push_back(role::amt);
  if (source.endpoints.size() > 1) needed.push_back(role::dvid);
  if (source.occasions) needed.push_back(role::occ);
  for (const role of : needed)
    if (position_of(of) < 0) throw no_column(name_of(of));
  for (const std::string& covariate : source.covariates) {
    covariates_.push_back(find(covariate));
    if (covariates_.back() < 0) throw no_column(covariate);
  }
}

int column_map::find(const std::string& name) const {
  for (std::size_t i = 0; i < table_.header.size(); ++i)
    if (equal_ignoring_case(table_.header[i], name)) return static_cast<int>(i);
  return -1;
}

std::string column_map::name_of(role of) const {
  const int position = position_of(of);
  return position < 0 ? data_roles()[static_cast<std::size_t>(of)] : name_at(position);
}

bad_input column_map::no_column(const std::string& name) const {
  const std::string near = did_you_mean(name, table_.header);
  return bad_input(
      {.code = "E-DATA-COLUMN",
       .message = "the data file has no column " + name,
       .remedy = near.empty() ? fmt::format("its columns are {}", fmt::join(table_.header, ", "))
                              : "did you mean " + near + "?",
       .file = table_.file,
       .row = table_.header_line,
       .column = name});
}

const std::string& record_view::id() const {
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
                    .subject = id()});
}

std::optional<double> record_view::number_at(int position, const std::string& remedy) const {
  const std::string& text = field(position);
  if (is_missing(text)) return std::nullopt;
  const std::optional<double> value = to_number(text);
  if (value && std::isfinite(*value)) return value;
  finding found = error("E-DATA-NUMBER",
                        fmt::format("'{}' is not a {}number", text, value ? "finite " : ""), remedy)
                      .what_found();
  found.column = columns_->name_at(position);
  throw bad_input(found);
}

std::optional<double> record_view::number(role of) const {
  const int position = columns_->position_of(of);
  if (position < 0) return std::nullopt;
  return number_at(position, remedy_for(field(position), of));
}

std::optional<double> record_view::covariate(std::size_t k) const {
  return number_at(columns_->position_of_covariate(k),
                   "covariates are numbers: write the levels of a category as 0 and 1");
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
