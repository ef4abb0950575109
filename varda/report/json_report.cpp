// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>

#include "varda/data/csv.h"
#include "varda/diagnostics/natural_scale.h"
#include "varda/model/settings_table.h"
#include "varda/model/words.h"
#include "varda/report/check_report.h"
#include "varda/report/reports.h"
#include "varda/support/commit.h"
#include "varda/support/machine.h"
#include "varda/version.h"

namespace varda {

namespace {

using nlohmann::ordered_json;

ordered_json to_json(const Eigen::MatrixXd& matrix) {
  ordered_json rows = ordered_json::array();
  for (Eigen::Index i = 0; i < matrix.rows(); ++i) {
    ordered_json row = ordered_json::array();
    for (Eigen::Index j = 0; j < matrix.cols(); ++j) row.push_back(matrix(i, j));
    rows.push_back(row);
  }
  return rows;
}

ordered_json to_json(const Eigen::VectorXd& vector) {
  return std::vector<double>(vector.data(), vector.data() + vector.size());
}

bool held(const fit_result& result, std::size_t theta) {
  for (const int position : result.held_by_bounds)
    if (position == static_cast<int>(theta)) return true;
  return false;
}

// One figure of one quantity; null where it is not known.
template <class Figure>
ordered_json figure(const std::vector<estimate_error>& errors, int k, Figure of) {
  if (k < 0 || errors.empty()) return nullptr;
  return of(errors[static_cast<std::size_t>(k)]);
}

ordered_json se_of(const estimate_error& e) {
  return e.se;
}
ordered_json rse_of(const estimate_error& e) {
  return e.rse_percent;
}
ordered_json interval_of(const estimate_error& e) {
  return {e.ci_lower, e.ci_upper};
}

// Adds the keys about errors, each made by `entry` from a list of errors and a figure of them.
template <class Entry>
void add_errors(ordered_json& to, const standard_errors& errors, Entry entry) {
  to["se"] = entry(errors.chosen(), se_of);
  to["rse"] = entry(errors.chosen(), rse_of);
  to["ci95"] = entry(errors.chosen(), interval_of);
  to["se_information"] = entry(errors.by_information, se_of);
  to["se_score"] = entry(errors.by_score, se_of);
  to["se_sandwich"] = entry(errors.by_sandwich, se_of);
}

void add_errors_of_theta(ordered_json& to, const fit_result& result, int theta) {
  const int k = result.errors.place_of_theta(theta);
  add_errors(to, result.errors, [k](const auto& errors, auto of) { return figure(errors, k, of); });
}

void add_errors_of_omega(ordered_json& to, const fit_result& result) {
  const int n = static_cast<int>(result.omega.rows());
  add_errors(to, result.errors, [&](const auto& errors, auto of) {
    ordered_json rows = ordered_json::array();
    for (int i = 0; i < n; ++i) {
      ordered_json row = ordered_json::array();
      for (int j = 0; j < n; ++j)
        row.push_back(figure(errors, result.errors.place_of_omega(i, j), of));
      rows.push_back(row);
    }
    return rows;
  });
}

// The covariances are on the estimation scale, in the order of `names`.
ordered_json standard_errors_report(const fit_result& result) {
  const standard_errors& errors = result.errors;
  const auto matrix = [](const covariance_estimate& from) {
    return from.known ? to_json(from.covariance) : ordered_json();
  };
  ordered_json entry;
  entry["kind"] = name_of(errors.shown);
  entry["reason"] = errors.reason;
  entry["names"] = errors.names;
  entry["covariance_information"] = matrix(errors.information);
  entry["covariance_score"] = matrix(errors.score);
  entry["covariance_sandwich"] = matrix(errors.sandwich);
  entry["score_reason"] = errors.score.reason;
  entry["correlation"] = to_json(errors.correlation);
  entry["eigenvalues"] = to_json(errors.eigenvalues);
  entry["condition_number"] = errors.condition_number;
  entry["unidentified"] = errors.unidentified;
  entry["from_scores"] = errors.from_scores;
  return entry;
}

ordered_json parameters(const population_model& model, const fit_result& result) {
  ordered_json list = ordered_json::array();
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    if (t.role == theta_role::residual_deviation) continue;
    ordered_json entry;
    entry["name"] = t.name;
    entry["estimate"] = result.natural_theta(static_cast<Eigen::Index>(k));
    entry["distribution"] =
        k < model.specification().parameters.size() ? name_of(t.law) : "covariate effect";
    entry["fixed"] = t.fixed;
    entry["at_bound"] = held(result, k);
    if (result.what == task::fit) add_errors_of_theta(entry, result, static_cast<int>(k));
    list.push_back(entry);
  }
  return list;
}

// As the engine holds it: the logarithm's argument of log-normal parameters, the logit of
// logit-normal ones.
ordered_json theta(const population_model& model, const fit_result& result) {
  ordered_json names = ordered_json::array();
  for (const fixed_effect& t : model.thetas()) names.push_back(t.name);
  return {{"names", names}, {"values", to_json(result.theta)}};
}

ordered_json omega(const population_model& model, const fit_result& result) {
  ordered_json entry;
  ordered_json names = ordered_json::array();
  for (const random_effect& e : model.effects()) names.push_back(e.name);
  entry["names"] = names;
  entry["matrix"] = to_json(result.omega);
  entry["estimated"] = to_json(model.omega_mask());
  entry["shrinkage"] = to_json(result.effects.shrinkage);
  entry["condition_number"] = result.omega_condition;
  if (result.what == task::fit) add_errors_of_omega(entry, result);
  entry["elements"] = ordered_json::array();
  for (const omega_element& e : model.omega_elements()) {
    const int k = result.errors.place_of_omega(e.row(), e.column());
    entry["elements"].push_back({{"name", e.name},
                                 {"estimate", result.omega(e.row(), e.column())},
                                 {"fixed", e.fixed},
                                 {"rse", figure(result.errors.chosen(), k, rse_of)}});
  }
  return entry;
}

ordered_json residual(const population_model& model, const fit_result& result) {
  ordered_json list = ordered_json::array();
  for (auto k = static_cast<std::size_t>(model.first_of_endpoints()); k < model.thetas().size();
       ++k) {
    ordered_json entry;
    entry["name"] = model.thetas()[k].name;
    entry["estimate"] = result.natural_theta(static_cast<Eigen::Index>(k));
    entry["fixed"] = model.thetas()[k].fixed;
    entry["at_bound"] = held(result, k);
    if (result.what == task::fit) add_errors_of_theta(entry, result, static_cast<int>(k));
    list.push_back(entry);
  }
  return list;
}

std::string text_of(const ordered_json& value) {
  return value.dump(2, ' ', false, ordered_json::error_handler_t::replace);
}

// The text of a report of which the value of `key`, an array with an entry for each of `count`
// subjects, is put in one by one: as values they take several times the memory of their text.
template <class Entry>
text_pieces text_with_list(ordered_json& report, const char* key, std::size_t count, Entry entry) {
  report[key] = ordered_json::array();
  std::string frame = text_of(report) + "\n";
  // Keys of the report itself, and no others, stand behind two blanks.
  const std::string before = fmt::format("\n  \"{}\": [", key);
  const std::size_t place = frame.find(before + "]") + before.size();
  return [frame = std::move(frame), place, count, entry](const text_sink& to) {
    if (count == 0) return to(frame);
    to(std::string_view(frame).substr(0, place));
    for (std::size_t i = 0; i < count; ++i) {
      std::string text = i == 0 ? "\n    " : ",\n    ";
      // A line break is one of the layout: those of a text are escaped.
      for (const char c : text_of(entry(i))) {
        text += c;
        if (c == '\n') text += "    ";
      }
      to(text);
    }
    to("\n  ");
    to(std::string_view(frame).substr(place));
  };
}

ordered_json subject_report(const population_model& model, const fit_result& result, int i) {
  const auto at = static_cast<std::size_t>(i);
  const subject_integral& s = result.likelihood.subjects[at];
  ordered_json entry;
  entry["id"] = model.data().subjects[at].id;
  entry["observations"] = model.observations(i);
  entry["minus2ll_without_constant"] = result.objective.subjects[at];
  if (result.likelihood.by_subject.size() > 0)
    entry["minus2ll_replicates"] =
        to_json(Eigen::VectorXd(-2.0 * result.likelihood.by_subject.col(i)));
  entry["eta_mean"] = to_json(s.mean);
  entry["eta_cov"] = to_json(s.covariance);
  entry["ess"] = s.effective_samples;
  entry["largest_weight"] = s.largest_weight;
  if (!result.health.empty()) {
    const subject_health& h = result.health[at];
    entry["points"] = h.points;
    entry["pareto_k"] = h.shape;  // null where it is not finite
    entry["failed"] = h.failed;
    entry["badly_sampled"] = h.sick;
  }
  if (result.quadrature.complete)
    entry["agq_minus2ll_without_constant"] = result.objective.subjects_by_quadrature[at];
  return entry;
}

ordered_json starts(const population_model& model, const fit_result& result) {
  ordered_json list = ordered_json::array();
  for (const start_record& s : result.starts) {
    const Eigen::VectorXd natural = natural_theta(model, s.theta);
    ordered_json estimates;
    for (std::size_t k = 0; k < model.thetas().size(); ++k)
      estimates[model.thetas()[k].name] = natural(static_cast<Eigen::Index>(k));
    list.push_back({{"start", s.number},
                    {"minus2ll", s.minus2ll},
                    {"minus2ll_mc_se", s.mc_se},
                    {"converged", s.converged},
                    {"singular", s.singular},
                    {"reason", s.reason},
                    {"estimates", estimates},
                    {"omega", to_json(s.omega)},
                    {"kept", s.kept}});
  }
  return list;
}

ordered_json quadrature(const fit_result& result) {
  const quadrature_estimate& q = result.quadrature;
  if (!q.complete) return nullptr;
  ordered_json entry;
  entry["method"] = q.is_laplace() ? "laplace" : "adaptive gauss-hermite";
  entry["nodes"] = q.nodes;
  entry["points"] = q.points;
  entry["minus2ll"] = q.minus2ll;
  entry["minus2ll_without_constant"] = result.objective.by_quadrature;
  entry["difference_in_mc_se"] = result.objective.difference_in_mc_se;
  return entry;
}

ordered_json settings(const population_model& model) {
  ordered_json entry;
  for (const setting& row : every_setting())
    if (row.decides_results)
      entry[row.name] = std::visit([](const auto& value) { return ordered_json(value); },
                                   value_of(row, model.specification().estimation));
  return entry;
}

ordered_json to_json(const finding& f) {
  ordered_json entry;
  entry["code"] = f.code;
  entry["message"] = f.message;
  entry["remedy"] = f.remedy;
  entry["file"] = f.file;
  entry["row"] = f.row;
  entry["column"] = f.column;
  entry["subject"] = f.subject;
  return entry;
}

ordered_json to_json(const findings& list) {
  ordered_json entries = ordered_json::array();
  for (const finding& f : list) entries.push_back(to_json(f));
  return entries;
}

// A number where it is one.
ordered_json dvid_of(const std::string& label) {
  const std::optional<double> number = to_number(label);
  if (number && *number == std::floor(*number)) return static_cast<long>(*number);
  return label;
}

ordered_json data_summary(const model_specification& model, const dataset& data) {
  ordered_json endpoints = ordered_json::array();
  for (std::size_t k = 0; k < model.data.endpoints.size(); ++k)
    endpoints.push_back({{"name", model.endpoints[k].name},
                         {"dvid", dvid_of(model.data.endpoints[k])},
                         {"observations", data.observations_of(static_cast<int>(k))},
                         {"censored", data.censored_of(static_cast<int>(k))}});
  ordered_json covariates = ordered_json::array();
  for (std::size_t k = 0; k < data.covariate_names.size(); ++k)
    covariates.push_back({{"name", data.covariate_names[k]},
                          {"varies", static_cast<bool>(data.covariate_varies[k])},
                          {"text", data.is_text_covariate(k)}});
  return {{"file", data.file},
          {"records", data.records},
          {"left_out", data.left_out},
          {"subjects", data.subjects.size()},
          {"endpoints", endpoints},
          {"excluded", data.excluded},
          {"dose_records", data.dose_records},
          {"doses", data.doses()},
          {"occasions", data.occasions()},
          {"covariates", covariates}};
}

ordered_json start_report(const check_result& result, std::size_t i) {
  const std::optional<double>& found = result.start_minus2_log_density[i];
  const subject& who = result.data->subjects[i];
  return {{"id", who.id},
          {"observations", who.observations.size()},
          {"minus2_log_density", found ? ordered_json(*found) : ordered_json()}};
}

}  // namespace

text_pieces json_report(const population_model& model, const fit_result& result) {
  ordered_json report;
  report["schema_version"] = json_schema_version;
  report["task"] = result.what == task::fit ? "fit" : "evaluate";
  report["title"] = model.specification().title;
  report["model"] = model.specification().path;
  report["model_sha256"] = result.source.model_sha256;
  report["data"] = {{"file", model.data().file},
                    {"sha256", result.source.data_sha256},
                    {"observations_sha256", result.source.observations_sha256},
                    {"doses_sha256", result.source.doses_sha256},
                    {"subjects", model.subjects()},
                    {"observations", model.data().observations()},
                    {"doses", model.data().doses()},
                    {"excluded", model.data().excluded},
                    {"left_out", model.data().left_out}};
  report["converged"] = result.converged;
  report["reason"] = result.reason;
  report["singular"] = result.singular;
  report["unidentified"] = result.unidentified;
  report["iterations"] = result.iterations.size();
  // A run that was stopped before its likelihood was known says null.
  const bool known = result.likelihood.complete;
  const auto number = [known](double value) {
    return known ? ordered_json(value) : ordered_json();
  };
  report["minus2ll"] = number(result.likelihood.minus2ll);
  report["minus2ll_without_constant"] = number(result.objective.minus2ll);
  report["minus2ll_mc_se"] = number(result.likelihood.mc_se);
  report["minus2ll_replicates"] = result.likelihood.replicates;
  report["likelihood_samples"] = result.likelihood_samples;
  report["criteria"] = {{"estimated", result.objective.estimated},
                        {"aic", number(result.objective.aic)},
                        {"bic_observations", number(result.objective.bic_observations)},
                        {"bic_subjects", number(result.objective.bic_subjects)}};
  report["quadrature"] = quadrature(result);
  report["theta"] = theta(model, result);
  report["parameters"] = parameters(model, result);
  report["omega"] = omega(model, result);
  report["residual"] = residual(model, result);
  if (result.what == task::fit) report["standard_errors"] = standard_errors_report(result);
  report["kept_proposals"] = result.kept_factors;
  report["subjects"] = nullptr;  // holds its place
  if (!result.starts.empty()) report["starts"] = starts(model, result);
  report["warnings"] = to_json(result.warnings);
  report["settings"] = settings(model);
  report["versions"] = {{"varda", version}, {"commit", commit()}};
  return text_with_list(report, "subjects", known ? static_cast<std::size_t>(model.subjects()) : 0,
                        [&model, &result](std::size_t i) {
                          return subject_report(model, result, static_cast<int>(i));
                        });
}

std::string run_json(const fit_result& result, const std::vector<std::string>& command) {
  ordered_json report;
  report["schema_version"] = json_schema_version;
  report["command"] = command;
  report["versions"] = {{"varda", version}, {"compiler", compiler}};
  report["blas"] = blas_library();
  report["host"] = host_name();
  report["processes"] = result.processes;
  report["threads"] = result.threads;
  report["sessions"] = result.sessions;
  report["evaluations"] = result.evaluations;
  report["seconds"] = {{"start", result.times.start},
                       {"iterations", result.times.iterations},
                       {"likelihood", result.times.likelihood},
                       {"quadrature", result.times.quadrature},
                       {"standard_errors", result.times.standard_errors},
                       {"diagnostics", result.times.diagnostics},
                       {"total", result.times.total}};
  return text_of(report) + "\n";
}

std::string check_json(const check_result& result) {
  ordered_json report;
  report["schema_version"] = json_schema_version;
  report["task"] = "check";
  report["title"] = result.model ? result.model->title : "";
  report["model"] = result.model_path;
  report["sound"] = result.errors.empty();
  report["errors"] = to_json(result.errors);
  report["warnings"] = to_json(result.warnings);
  report["data"] = result.data ? data_summary(*result.model, *result.data) : ordered_json();
  report["start"] = nullptr;  // holds its place
  report["memory"] = result.memory ? ordered_json({{"fit", result.memory->fit},
                                                   {"fit_at_most", result.memory->fit_at_most},
                                                   {"diagnostics", result.memory->diagnostics}})
                                   : ordered_json();
  report["versions"] = {{"varda", version}, {"compiler", compiler}};
  return whole(text_with_list(report, "start", result.start_minus2_log_density.size(),
                              [&](std::size_t i) { return start_report(result, i); }));
}

}  // namespace varda
