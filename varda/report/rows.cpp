// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cmath>

#include "varda/diagnostics/npde.h"
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

// Individual parameters (parameters x sets) and predictions at phi.
struct prediction {
  prediction(const population_model& model, int subject, const Eigen::VectorXd& theta,
             const Eigen::VectorXd& phi) {
    density_workspace scratch(model);
    model.individual_parameters(subject, theta.data(), phi, parameters);
    parameters.resize(model.structural_parameters(), model.parameter_sets(subject));
    density(model).predict(subject, theta.data(), phi, values, scratch);
  }
  Eigen::MatrixXd parameters;
  Eigen::MatrixXd values;
};

std::string rows_of(const population_model& model, const fit_result& result, int subject) {
  const varda::subject& who = model.data().subjects[static_cast<std::size_t>(subject)];
  const estimation_settings& settings = model.specification().estimation;
  Eigen::VectorXd mu(model.random_effects());
  model.means(subject, result.theta.data(), mu.data());
  const prediction typical(model, subject, result.theta, mu);
  const prediction individual(
      model, subject, result.theta,
      mu + result.likelihood.subjects[static_cast<std::size_t>(subject)].mean);
  const Eigen::VectorXd errors =
      npde(model, subject, result.theta, result.omega, settings.npde_samples, settings.seed);

  std::string rows;
  for (std::size_t k = 0; k < who.observations.size(); ++k) {
    const observation& at = who.observations[k];
    const auto j = static_cast<Eigen::Index>(k);
    const double f = individual.values(j);
    const bool seen = at.censored == censoring::none;
    rows += fmt::format("{},{},{},{},{}", csv_field(who.id), at.time, at.value,
                        model.specification().data.endpoints[static_cast<std::size_t>(at.endpoint)],
                        censoring_flag(at.censored));
    rows += at.censored == censoring::interval ? cell(at.limit) : ",";
    rows += cell(typical.values(j)) + cell(f);
    rows += seen ? cell(at.value - typical.values(j)) : ",";
    rows += seen ? cell(model.observed().scaled_residual(at, f, result.theta.data())) : ",";
    rows += cell(errors(j));
    const Eigen::Index set = individual.parameters.cols() == 1 ? 0 : at.segment;
    for (const double p : individual.parameters.col(set)) rows += cell(p);
    rows += "\n";
  }
  return rows;
}

}  // namespace

std::string rows_csv(const population_model& model, const fit_result& result) {
  std::string table = "ID,TIME,DV,DVID,CENS,LIMIT,PRED,IPRED,RES,IWRES,NPDE";
  for (const parameter& p : model.specification().parameters) table += "," + csv_field(p.name);
  table += "\n";
  if (!result.likelihood.complete) return table;
  for (int i = 0; i < model.subjects(); ++i)
    if (model.observations(i) > 0) table += rows_of(model, result, i);
  return table;
}

}  // namespace varda
