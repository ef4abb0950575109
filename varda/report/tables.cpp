// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cmath>
#include <numbers>

#include "varda/report/reports.h"

namespace varda {

std::string csv_field(const std::string& text) {
  if (text.find_first_of(",\"\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

double without_constant(double minus2ll, int observations) {
  return minus2ll - observations * std::log(2.0 * std::numbers::pi);
}

double quadrature_difference(const fit_result& result) {
  return (result.quadrature.minus2ll - result.likelihood.minus2ll) / result.likelihood.mc_se;
}

double log_normal_cv(double omega2) {
  return 100.0 * std::sqrt(std::expm1(omega2));
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
    add(t.name, t.natural(result.theta(static_cast<Eigen::Index>(k))), t.fixed,
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
  for (const iteration_record& record : result.iterations) {
    table += fmt::format("{},{},{}", record.iteration, record.minus2ll,
                         without_constant(record.minus2ll, model.data().observations()));
    for (std::size_t k = 0; k < model.thetas().size(); ++k)
      table +=
          fmt::format(",{}", model.thetas()[k].natural(record.theta(static_cast<Eigen::Index>(k))));
    for (const omega_element& e : model.omega_elements())
      table += fmt::format(",{}", record.omega(e.row(), e.column()));
    table += "\n";
  }
  return table;
}

std::string subjects_csv(const population_model& model, const fit_result& result) {
  const int effects = model.random_effects();
  std::string table = "id,observations,minus2ll_without_constant,ess,largest_weight";
  for (const random_effect& e : model.effects()) table += "," + csv_field("eta(" + e.name + ")");
  for (std::size_t i = 0; i < model.effects().size(); ++i)
    for (std::size_t j = 0; j <= i; ++j)
      table += "," + csv_field(fmt::format("var({},{})", model.effects()[i].name,
                                           model.effects()[j].name));
  if (result.quadrature.complete) table += ",agq_minus2ll_without_constant";
  table += "\n";
  if (!result.likelihood.complete) return table;
  for (int i = 0; i < model.subjects(); ++i) {
    const subject_integral& s = result.likelihood.subjects[static_cast<std::size_t>(i)];
    table += fmt::format(
        "{},{},{},{},{}", csv_field(model.data().subjects[static_cast<std::size_t>(i)].id),
        model.observations(i), without_constant(-2.0 * s.log_likelihood, model.observations(i)),
        s.effective_samples, s.largest_weight);
    for (int e = 0; e < effects; ++e) table += fmt::format(",{}", s.mean(e));
    for (int r = 0; r < effects; ++r)
      for (int c = 0; c <= r; ++c) table += fmt::format(",{}", s.covariance(r, c));
    if (result.quadrature.complete)
      table += fmt::format(
          ",{}",
          without_constant(-2.0 * result.quadrature.log_likelihoods[static_cast<std::size_t>(i)],
                           model.observations(i)));
    table += "\n";
  }
  return table;
}

}  // namespace varda
