// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cmath>

#include "varda/report/reports.h"

namespace varda {

std::string csv_field(const std::string& text) {
  if (text.find_first_of(",\"\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

std::string estimates_csv(const population_model& model, const fit_result& result) {
  const standard_errors& errors = result.errors;
  std::string table = "parameter,estimate,fixed,se,rse,ci95_lower,ci95_upper\n";
  const auto add = [&](const std::string& name, double estimate, bool fixed, int k) {
    table += fmt::format("{},{},{}", csv_field(name), estimate, fixed ? 1 : 0);
    if (k >= 0 && !errors.chosen().empty()) {
      const estimate_error& e = errors.chosen()[static_cast<std::size_t>(k)];
      table += fmt::format(",{},{},{},{}\n", e.se, e.rse_percent, e.ci_lower, e.ci_upper);
    } else {
      table += ",,,,\n";
    }
  };
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    add(t.name, result.natural_theta(static_cast<Eigen::Index>(k)), t.fixed,
        errors.place_of_theta(static_cast<int>(k)));
  }
  for (const omega_element& e : model.omega_elements())
    add(e.name, result.omega(e.row(), e.column()), e.fixed,
        errors.place_of_omega(e.row(), e.column()));
  return table;
}

std::string iterations_csv(const population_model& model, const fit_result& result) {
  std::string table = "iteration,minus2ll,minus2ll_without_constant";
  for (const fixed_effect& t : model.thetas()) table += "," + csv_field(t.name);
  for (const omega_element& e : model.omega_elements()) table += "," + csv_field(e.name);
  table += "\n";
  for (std::size_t r = 0; r < result.iterations.size(); ++r) {
    const iteration_record& record = result.iterations[r];
    const natural_iteration& natural = result.natural_iterations[r];
    table += fmt::format("{},{},{}", record.iteration, record.minus2ll, natural.minus2ll);
    for (const double value : natural.theta) table += fmt::format(",{}", value);
    for (const omega_element& e : model.omega_elements())
      table += fmt::format(",{}", record.omega(e.row(), e.column()));
    table += "\n";
  }
  return table;
}

namespace {

std::string row_of_subject(const population_model& model, const fit_result& result, int subject) {
  const auto at = static_cast<std::size_t>(subject);
  const int effects = model.random_effects();
  const subject_integral& s = result.likelihood.subjects[at];
  std::string row = fmt::format("{},{},{},{},{}", csv_field(model.data().subjects[at].id),
                                model.observations(subject), result.objective.subjects[at],
                                s.effective_samples, s.largest_weight);
  if (result.health.empty()) {
    row += ",,,,";
  } else {
    const subject_health& h = result.health[at];
    row += fmt::format(",{}", h.points);
    row += std::isfinite(h.shape) ? fmt::format(",{}", h.shape) : ",";
    row += fmt::format(",{},{}", h.failed, h.sick ? 1 : 0);
  }
  for (int e = 0; e < effects; ++e) row += fmt::format(",{}", s.mean(e));
  for (int r = 0; r < effects; ++r)
    for (int c = 0; c <= r; ++c) row += fmt::format(",{}", s.covariance(r, c));
  if (result.quadrature.complete)
    row += fmt::format(",{}", result.objective.subjects_by_quadrature[at]);
  return row + "\n";
}

}  // namespace

text_pieces subjects_csv(const population_model& model, const fit_result& result) {
  std::string header =
      "id,observations,minus2ll_without_constant,ess,largest_weight,points,pareto_k,failed,"
      "badly_sampled";
  for (const random_effect& e : model.effects()) header += "," + csv_field("eta(" + e.name + ")");
  for (std::size_t i = 0; i < model.effects().size(); ++i)
    for (std::size_t j = 0; j <= i; ++j)
      header += "," + csv_field(fmt::format("var({},{})", model.effects()[i].name,
                                            model.effects()[j].name));
  if (result.quadrature.complete) header += ",agq_minus2ll_without_constant";
  return [&model, &result, header = header + "\n"](const text_sink& to) {
    to(header);
    if (!result.likelihood.complete) return;
    for (int i = 0; i < model.subjects(); ++i) to(row_of_subject(model, result, i));
  };
}

}  // namespace varda
