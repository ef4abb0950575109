// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "varda/data/csv.h"
#include "varda/html_report/html_report.h"
#include "varda/html_report/model_in_words.h"
#include "varda/simulation/design.h"
#include "varda/simulation/predict.h"
#include "varda/simulation/vpc.h"
#include "varda/support/finding.h"
#include "varda/version.h"

namespace varda {

namespace {

using nlohmann::ordered_json;

// What is drawn needs no more digits than a screen has dots. Null where it is not finite.
ordered_json drawn(double value) {
  if (!std::isfinite(value)) return nullptr;
  return std::strtod(fmt::format("{:.6g}", value).c_str(), nullptr);
}

ordered_json drawn(const std::vector<double>& values) {
  ordered_json list = ordered_json::array();
  for (const double value : values) list.push_back(drawn(value));
  return list;
}

ordered_json exact(std::string_view field) {
  const std::optional<double> value = to_number(field);
  return value && std::isfinite(*value) ? ordered_json(*value) : ordered_json();
}

// A table of the run, as the run wrote it.
csv_table table_of(const stored_fit& fit, const std::string& name) {
  read_result(fit.folder, fit.about, name);
  findings refused;
  return read_csv((std::filesystem::path(fit.folder) / name).string(), refused);
}

// The results of the run but for what no drawing uses and what grows fastest with the subjects.
ordered_json results_of(const stored_fit& fit) {
  ordered_json results =
      ordered_json::parse(read_result(fit.folder, fit.about, fit.about.task + ".json"));
  for (ordered_json& s : results["subjects"]) {
    s.erase("eta_cov");
    s.erase("minus2ll_replicates");
  }
  if (results.contains("standard_errors"))
    for (const char* kind : {"information", "score", "sandwich"})
      results["standard_errors"].erase(std::string("covariance_") + kind);
  return results;
}

ordered_json iterations_of(const stored_fit& fit) {
  const csv_table table = table_of(fit, "iterations.csv");
  ordered_json rows = ordered_json::array();
  for (std::size_t i = 0; i < table.records(); ++i) {
    ordered_json row = ordered_json::array();
    for (const std::string_view field : table.at(i).fields) row.push_back(exact(field));
    rows.push_back(row);
  }
  return {{"names", table.header}, {"rows", rows}};
}

// Time of the last dose at an observation; nothing before the first one.
std::optional<double> last_dose(const subject& who, std::size_t observation) {
  std::optional<double> last;
  for (const event& e : who.timeline) {
    if (e.kind == event_kind::observation && static_cast<std::size_t>(e.index) == observation)
      break;
    if (e.kind == event_kind::dose) last = e.time;
  }
  return last;
}

// By column, in the order of the data; without rows where the run has no predictions.
ordered_json rows_of(const stored_fit& fit, const population_model& model) {
  const csv_table table = table_of(fit, "rows.csv");
  const auto column = [&](const char* name) {
    const auto at = std::find(table.header.begin(), table.header.end(), name);
    return static_cast<std::size_t>(at - table.header.begin());
  };
  ordered_json rows;
  for (const char* name : {"subject", "time", "tad", "dv", "limit", "endpoint", "cens", "pred",
                           "ipred", "iwres", "npde"})
    rows[name] = ordered_json::array();
  if (table.records() == 0) return rows;
  if (static_cast<int>(table.records()) != model.data().observations())
    throw bad_input({.code = "E-RUN-FOLDER",
                     .message = "rows.csv has another number of rows than the data",
                     .remedy = "fit again",
                     .file = fit.folder});
  std::size_t next = 0;
  for (int i = 0; i < model.subjects(); ++i) {
    const subject& who = model.data().subjects[static_cast<std::size_t>(i)];
    for (std::size_t j = 0; j < who.observations.size(); ++j, ++next) {
      const observation& o = who.observations[j];
      const std::vector<std::string_view> fields = table.at(next).fields;
      const std::optional<double> dosed = last_dose(who, j);
      rows["subject"].push_back(i);
      rows["time"].push_back(o.time);
      rows["tad"].push_back(dosed ? ordered_json(o.time - *dosed) : ordered_json());
      rows["dv"].push_back(exact(fields[column("DV")]));
      rows["limit"].push_back(exact(fields[column("LIMIT")]));
      rows["endpoint"].push_back(o.endpoint);
      rows["cens"].push_back(exact(fields[column("CENS")]));
      rows["pred"].push_back(exact(fields[column("PRED")]));
      rows["ipred"].push_back(exact(fields[column("IPRED")]));
      rows["iwres"].push_back(exact(fields[column("IWRES")]));
      rows["npde"].push_back(exact(fields[column("NPDE")]));
    }
  }
  return rows;
}

// Times at which a subject's curve is drawn: its doses and observations, and more between them, the
// most where they are close together, for there something happens.
std::vector<double> curve_times(const subject& who, int wanted) {
  std::vector<double> knots;
  for (const event& e : who.timeline)
    if (e.kind == event_kind::dose || e.kind == event_kind::observation) knots.push_back(e.time);
  std::sort(knots.begin(), knots.end());
  knots.erase(std::unique(knots.begin(), knots.end()), knots.end());
  if (knots.size() < 2) return knots;
  const double span = knots.back() - knots.front();
  const int least = static_cast<int>(knots.size()) * 4 <= wanted ? 4 : 1;
  std::vector<double> times;
  for (std::size_t k = 0; k + 1 < knots.size(); ++k) {
    const double width = knots[k + 1] - knots[k];
    const int pieces = std::max(least, static_cast<int>(std::ceil(width / span * wanted)));
    for (int p = 0; p < pieces; ++p) times.push_back(knots[k] + width * p / pieces);
  }
  times.push_back(knots.back());
  return times;
}

// The data with every subject's curve in place of its observations.
dataset curve_design(const population_model& model) {
  constexpr int most = 100;
  constexpr int least = 20;
  constexpr int in_all = 30000;  // so that many subjects do not make a page that no browser opens
  const int wanted = std::clamp(in_all / std::max(1, model.subjects()), least, most);
  const auto endpoints = static_cast<int>(model.specification().endpoints.size());
  dataset result = model.data();
  for (subject& who : result.subjects) {
    dataset alone = model.data();
    alone.subjects = {who};
    who = on_grid(alone, curve_times(who, wanted), endpoints).subjects.front();
  }
  return result;
}

// By endpoint: times, population and individual predictions, the individual's band.
ordered_json curves_of(const subject& who, const predicted_subject& predicted, int endpoints) {
  ordered_json list = ordered_json::array();
  for (int k = 0; k < endpoints; ++k) {
    ordered_json curve;
    for (const char* name : {"time", "pred", "ipred", "lower", "upper"})
      curve[name] = ordered_json::array();
    for (std::size_t j = 0; j < who.observations.size(); ++j) {
      if (who.observations[j].endpoint != k) continue;
      const auto at = static_cast<Eigen::Index>(j);
      curve["time"].push_back(drawn(who.observations[j].time));
      curve["pred"].push_back(drawn(predicted.population(at)));
      curve["ipred"].push_back(drawn(predicted.individual(at)));
      curve["lower"].push_back(drawn(predicted.lower(at)));
      curve["upper"].push_back(drawn(predicted.upper(at)));
    }
    list.push_back(curve);
  }
  return list;
}

// The levels of a covariate that has texts, as they are written; empty for any other.
std::vector<std::string> levels_of(const dataset& data, std::size_t covariate) {
  std::set<std::string> levels;
  if (!data.is_text_covariate(covariate)) return {};
  for (const subject& who : data.subjects)
    for (const segment& s : who.segments)
      levels.insert(data.covariate_text(s.covariates[covariate]));
  return {levels.begin(), levels.end()};
}

// Axes have numbers: those of the levels, which the covariate's name explains.
std::vector<std::vector<std::string>> levels_of(const dataset& data) {
  std::vector<std::vector<std::string>> all;
  for (std::size_t k = 0; k < data.covariate_names.size(); ++k) all.push_back(levels_of(data, k));
  return all;
}

std::vector<std::string> covariate_labels(const dataset& data) {
  std::vector<std::string> labels = data.covariate_names;
  const auto levels = levels_of(data);
  for (std::size_t k = 0; k < labels.size(); ++k) {
    std::string legend;
    for (std::size_t l = 0; l < levels[k].size(); ++l)
      legend += fmt::format("{}{} = {}", l == 0 ? " (" : ", ", l + 1, levels[k][l]);
    if (!legend.empty()) labels[k] += legend + ")";
  }
  return labels;
}

std::vector<double> drawn_covariates(const dataset& data, const subject& who,
                                     const std::vector<std::vector<std::string>>& levels) {
  std::vector<double> values = who.segments.front().covariates;
  for (std::size_t k = 0; k < values.size(); ++k) {
    if (levels[k].empty()) continue;
    const auto at =
        std::lower_bound(levels[k].begin(), levels[k].end(), data.covariate_text(values[k]));
    values[k] = static_cast<double>(at - levels[k].begin()) + 1.0;
  }
  return values;
}

ordered_json subjects_of(const report_source& from, const report_plan& plan) {
  const population_model& model = from.model;
  constexpr int samples = 500;  // behind a band that is drawn
  const population_model wanted(model.specification(), curve_design(model));
  std::vector<conditional_moments> moments;
  if (static_cast<int>(from.fit.by_subject.size()) == model.subjects())
    for (const stored_subject& s : from.fit.by_subject)
      moments.push_back({s.eta_mean, s.eta_covariance});
  const auto predicted =
      predict(model, wanted, from.at, moments,
              {.samples = samples, .seed = from.fit.about.seed, .threads = plan.threads});
  const auto levels = levels_of(model.data());
  ordered_json list = ordered_json::array();
  for (std::size_t i = 0; i < predicted.size(); ++i) {
    const subject& who = model.data().subjects[i];
    ordered_json doses = ordered_json::array();
    for (const dose& d : who.doses)
      doses.push_back({{"time", d.time},
                       {"amount", d.amount},
                       {"compartment", d.compartment},
                       {"rate", d.rate},
                       {"steady_state", d.steady_state}});
    list.push_back(
        {{"id", who.id},
         {"covariates", drawn_covariates(model.data(), who, levels)},
         {"doses", doses},
         {"curves", curves_of(wanted.data().subjects[i], predicted[i],
                              static_cast<int>(model.specification().endpoints.size()))}});
  }
  return list;
}

ordered_json to_json(const vpc_statistic& s) {
  return {{"observed", drawn(s.observed)},
          {"lower", drawn(s.lower)},
          {"median", drawn(s.median)},
          {"upper", drawn(s.upper)}};
}

ordered_json to_json(const vpc_result& result) {
  ordered_json panels = ordered_json::array();
  for (const vpc_panel& p : result.panels) {
    ordered_json bins = ordered_json::array();
    for (const vpc_bin& b : p.bins) {
      ordered_json percentiles = ordered_json::array();
      for (const vpc_statistic& s : b.percentiles) percentiles.push_back(to_json(s));
      bins.push_back({{"from", drawn(b.from)},
                      {"to", drawn(b.to)},
                      {"centre", drawn(b.centre)},
                      {"observations", b.observations},
                      {"percentiles", percentiles},
                      {"censored", to_json(b.censored)}});
    }
    panels.push_back({{"endpoint", p.endpoint},
                      {"left_out", p.left_out},
                      {"bins", bins},
                      {"times", drawn(p.times)},
                      {"values", drawn(p.values)}});
  }
  return panels;
}

ordered_json events_of(const vpc_result& result) {
  ordered_json list = ordered_json::array();
  for (const event_panel& p : result.events) {
    ordered_json curve = {{"endpoint", p.endpoint}, {"repeated", p.repeated}};
    curve["times"] = drawn(p.times);
    for (const char* name : {"observed", "lower", "median", "upper"})
      curve[name] = ordered_json::array();
    for (const vpc_statistic& s : p.values) {
      curve["observed"].push_back(drawn(s.observed));
      curve["lower"].push_back(drawn(s.lower));
      curve["median"].push_back(drawn(s.median));
      curve["upper"].push_back(drawn(s.upper));
    }
    list.push_back(curve);
  }
  return list;
}

ordered_json vpc_of(const report_source& from, const report_plan& plan) {
  const auto simulated = simulate(
      from.model, {from.at},
      {.replicates = plan.replicates, .seed = from.fit.about.seed, .threads = plan.threads});
  vpc_plan corrected;
  corrected.prediction_corrected = true;
  const vpc_result plain = visual_predictive_check(from.model, from.at, simulated, {});
  return {
      {"replicates", plan.replicates},
      {"plain", to_json(plain)},
      {"events", events_of(plain)},
      {"corrected", to_json(visual_predictive_check(from.model, from.at, simulated, corrected))}};
}

ordered_json data_of(const population_model& model) {
  const dataset& data = model.data();
  ordered_json endpoints = ordered_json::array();
  for (std::size_t k = 0; k < model.specification().endpoints.size(); ++k)
    endpoints.push_back({{"name", model.specification().endpoints[k].name},
                         {"observations", data.observations_of(static_cast<int>(k))},
                         {"censored", data.censored_of(static_cast<int>(k))}});
  return {{"records", data.records}, {"excluded", data.excluded},
          {"doses", data.doses()},   {"occasions", data.occasions()},
          {"endpoints", endpoints},  {"covariates", covariate_labels(data)}};
}

ordered_json model_of(const report_source& from) {
  const model_account account = in_words(from.model);
  return {{"words", account.words},
          {"structure", account.structure},
          {"individuals", account.individuals},
          {"observations", account.observations},
          {"file", read_result(from.fit.folder, from.fit.about, "model-used.toml")}};
}

}  // namespace

std::string report_data(const report_source& from, const report_plan& plan) {
  ordered_json report;
  report["version"] = version;
  report["results"] = results_of(from.fit);
  report["model"] = model_of(from);
  report["data"] = data_of(from.model);
  report["iterations"] = iterations_of(from.fit);
  report["rows"] = rows_of(from.fit, from.model);
  report["subjects"] = subjects_of(from, plan);
  report["vpc"] = vpc_of(from, plan);
  return report.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

}  // namespace varda
