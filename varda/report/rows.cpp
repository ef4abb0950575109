// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cmath>

#include "varda/report/reports.h"

namespace varda {

namespace {

// A field of the table; empty where there is no value.
std::string cell(double value) {
  return std::isfinite(value) ? fmt::format(",{}", value) : ",";
}

int censoring_flag(censoring kind) {
  return kind == censoring::none ? 0 : kind == censoring::right ? -1 : 1;
}

std::string rows_of(const population_model& model, const fit_result& result, int subject) {
  const auto at_subject = static_cast<std::size_t>(subject);
  const varda::subject& who = model.data().subjects[at_subject];
  const subject_predictions& p = result.predictions[at_subject];
  std::string rows;
  for (std::size_t k = 0; k < who.observations.size(); ++k) {
    const observation& at = who.observations[k];
    const auto j = static_cast<Eigen::Index>(k);
    rows += fmt::format(
        "{},{},{},{},{}", csv_field(who.id), at.time, at.value,
        csv_field(model.specification().data.endpoints[static_cast<std::size_t>(at.endpoint)]),
        censoring_flag(at.censored));
    rows += at.censored == censoring::interval ? cell(at.limit) : ",";
    rows += cell(p.population(j)) + cell(p.individual(j));
    rows += cell(p.residuals(j)) + cell(p.weighted_residuals(j));
    rows += result.npde.empty() ? "," : cell(result.npde[at_subject](j));
    for (const double value : p.parameters.col(j)) rows += cell(value);
    rows += "\n";
  }
  return rows;
}

}  // namespace

text_pieces rows_csv(const population_model& model, const fit_result& result) {
  std::string header = "ID,TIME,DV,DVID,CENS,LIMIT,PRED,IPRED,RES,IWRES,NPDE";
  for (const parameter& p : model.specification().parameters) header += "," + csv_field(p.name);
  return [&model, &result, header = header + "\n"](const text_sink& to) {
    to(header);
    if (result.predictions.empty()) return;
    for (int i = 0; i < model.subjects(); ++i)
      if (model.observations(i) > 0) to(rows_of(model, result, i));
  };
}

}  // namespace varda
