// SPDX-License-Identifier: Apache-2.0
#include "varda/report/check_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "varda/support/memory.h"
#include "varda/support/text.h"
#include "varda/version.h"

namespace varda {

namespace {

using sink = std::back_insert_iterator<std::string>;

void write_count(sink out, const std::string& what, int count, const std::string& remark = "") {
  fmt::format_to(out, "  {:<26} {:>8}{}{}\n", what, count, remark.empty() ? "" : "   ", remark);
}

void write_endpoints(sink out, const model_specification& model, const dataset& data) {
  const std::vector<std::string>& dvids = model.data.endpoints;
  for (std::size_t k = 0; k < dvids.size(); ++k) {
    const int censored = data.censored_of(static_cast<int>(k));
    const std::string remark = censored > 0 ? fmt::format("{} censored", censored) : "";
    std::string name = "observations";
    if (dvids.size() > 1)
      name += fmt::format(" of {} (DVID {})", model.endpoints[k].name, dvids[k]);
    write_count(out, name, data.observations_of(static_cast<int>(k)), remark);
  }
}

std::string range_of_observations(const dataset& data) {
  const auto [least, most] = std::minmax_element(
      data.subjects.begin(), data.subjects.end(), [](const subject& a, const subject& b) {
        return a.observations.size() < b.observations.size();
      });
  return fmt::format("{} to {} each", least->observations.size(),
                     count_of(std::ssize(most->observations), "observation"));
}

void write_data(sink out, const model_specification& model, const dataset& data) {
  fmt::format_to(out, "Data {}\n", data.file);
  write_count(out, "records", data.records);
  if (data.left_out > 0) write_count(out, "rows excluded (keep, drop)", data.left_out);
  write_count(out, "subjects", static_cast<int>(data.subjects.size()), range_of_observations(data));
  write_endpoints(out, model, data);
  write_count(out, "excluded (MDV 1)", data.excluded);
  write_count(out, "dose records", data.dose_records, count_of(data.doses(), "dose") + " given");
  if (model.data.occasions) write_count(out, "occasions, at most", data.occasions());
  for (std::size_t k = 0; k < data.covariate_names.size(); ++k)
    fmt::format_to(
        out, "  covariate {} {}\n", data.covariate_names[k],
        data.covariate_varies[k] ? "varies within subjects" : "is constant within subjects");
}

void write_start(sink out, const dataset& data, const check_result& result) {
  fmt::format_to(
      out,
      "\nFirst evaluation, at the start values with all random effects 0\n{:<20} {:>12} {:>18}\n",
      "  subject", "observations", "-2 log density");
  const std::vector<std::optional<double>>& start = result.start_minus2_log_density;
  bool whole = true;
  for (std::size_t i = 0; i < start.size(); ++i) {
    const subject& who = data.subjects[i];
    fmt::format_to(out, "  {:<18} {:>12} ", who.id, who.observations.size());
    if (start[i])
      fmt::format_to(out, "{:>18.4f}\n", *start[i]);
    else
      fmt::format_to(out, "{:>18}\n", "failed");
    whole = whole && start[i].has_value();
  }
  if (whole)
    fmt::format_to(out, "  {:<18} {:>12} {:>18.4f}\n", "all", data.observations(),
                   result.minus2_log_density);
}

}  // namespace

std::string check_text(const check_result& result) {
  std::string text;
  const sink out(text);
  fmt::format_to(out, "varda {}  check of {}\n", version, result.model_path);
  if (result.model && !result.model->title.empty())
    fmt::format_to(out, "{}\n", result.model->title);
  if (result.data) {
    fmt::format_to(out, "\n");
    write_data(out, *result.model, *result.data);
  }
  if (!result.start_minus2_log_density.empty()) write_start(out, *result.data, result);
  if (const std::optional<memory_forecast>& memory = result.memory)
    fmt::format_to(
        out, "\n{}\n",
        wrapped(fmt::format("Memory: about {} a process for the fit ({} if it needs all "
                            "points), {} more for the diagnostics",
                            bytes_in_words(memory->fit), bytes_in_words(memory->fit_at_most),
                            bytes_in_words(memory->diagnostics)),
                2));
  if (!result.errors.empty() || !result.warnings.empty()) fmt::format_to(out, "\n");
  for (const finding& f : result.errors) fmt::format_to(out, "{}\n", to_lines(f));
  for (const finding& f : result.warnings) fmt::format_to(out, "{}\n", to_lines(f));
  fmt::format_to(out, "\n{}: {}{}, {}\n", result.errors.empty() ? "OK" : "NOT USABLE",
                 count_of(std::ssize(result.errors), "error"),
                 result.errors.size() < most_data_errors ? "" : " or more",
                 count_of(std::ssize(result.warnings), "warning"));
  return text;
}

}  // namespace varda
