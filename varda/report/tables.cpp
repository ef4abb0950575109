// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cmath>
#include <numbers>

#include "varda/report/reports.h"

namespace varda {

namespace {

// A field that holds a separator or a quote is quoted, its quotes doubled.
std::string field(const std::string& text) {
  if (text.find_first_of(",\"\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

std::string omega_name(const population_model& model, int i, int j) {
  return fmt::format("omega({},{})", model.effect_name(i), model.effect_name(j));
}

// Elements of omega that are not structurally zero, lower triangle row by row.
template <class Visit>
void for_each_omega(const population_model& model, Visit visit) {
  const Eigen::MatrixXd start = model.start_omega();
  for (int i = 0; i < model.random_effects(); ++i)
    for (int j = 0; j <= i; ++j)
      if (model.omega_mask()(i, j) != 0.0 || start(i, j) != 0.0) visit(i, j);
}

}  // namespace

double without_constant(double minus2ll, int observations) {
  return minus2ll - observations * std::log(2.0 * std::numbers::pi);
}

double log_normal_cv(double omega2) {
  return 100.0 * std::sqrt(std::expm1(omega2));
}

std::string estimates_csv(const population_model& model, const fit_result& result) {
  const standard_errors& errors = result.errors;
  std::string table = "parameter,estimate,fixed,se,rse,ci95_lower,ci95_upper\n";
  const auto add = [&](const std::string& name, double estimate, bool fixed, int k) {
    table += fmt::format("{},{},{}", field(name), estimate, fixed ? 1 : 0);
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
  for_each_omega(model, [&](int i, int j) {
    add(omega_name(model, i, j), result.omega(i, j), model.omega_mask()(i, j) == 0.0,
        errors.place_of_omega(i, j));
  });
  return table;
}

std::string iterations_csv(const population_model& model, const fit_result& result) {
  std::string table = "iteration,minus2ll,minus2ll_without_constant";
  for (const fixed_effect& t : model.thetas()) table += "," + field(t.name);
  for_each_omega(model, [&](int i, int j) { table += "," + field(omega_name(model, i, j)); });
  table += "\n";
  for (const iteration_record& record : result.iterations) {
    table += fmt::format("{},{},{}", record.iteration, record.minus2ll,
                         without_constant(record.minus2ll, model.data().observations()));
    for (std::size_t k = 0; k < model.thetas().size(); ++k)
      table +=
          fmt::format(",{}", model.thetas()[k].natural(record.theta(static_cast<Eigen::Index>(k))));
    for_each_omega(model, [&](int i, int j) { table += fmt::format(",{}", record.omega(i, j)); });
    table += "\n";
  }
  return table;
}

std::string subjects_csv(const population_model& model, const fit_result& result) {
  const int effects = model.random_effects();
  std::string table = "id,observations,minus2ll_without_constant,ess,largest_weight";
  for (int e = 0; e < effects; ++e) table += "," + field("eta(" + model.effect_name(e) + ")");
  for (int i = 0; i < effects; ++i)
    for (int j = 0; j <= i; ++j)
      table += "," + field(fmt::format("var({},{})", model.effect_name(i), model.effect_name(j)));
  table += "\n";
  if (!result.likelihood.complete) return table;
  for (int i = 0; i < model.subjects(); ++i) {
    const subject_integral& s = result.likelihood.subjects[static_cast<std::size_t>(i)];
    table += fmt::format(
        "{},{},{},{},{}", field(model.data().subjects[static_cast<std::size_t>(i)].id),
        model.observations(i), without_constant(-2.0 * s.log_likelihood, model.observations(i)),
        s.effective_samples, s.largest_weight);
    for (int e = 0; e < effects; ++e) table += fmt::format(",{}", s.mean(e));
    for (int r = 0; r < effects; ++r)
      for (int c = 0; c <= r; ++c) table += fmt::format(",{}", s.covariance(r, c));
    table += "\n";
  }
  return table;
}

}  // namespace varda
