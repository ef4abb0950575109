// SPDX-License-Identifier: Apache-2.0
#include "varda/draft/from_data.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <set>

#include "varda/data/csv.h"
#include "varda/draft/features.h"
#include "varda/host/engine_host.h"
#include "varda/input/model_file.h"
#include "varda/method/newton/startup.h"
#include "varda/model/closed/absorption_twin.h"
#include "varda/model/start_evaluation.h"
#include "varda/model/structural_model.h"
#include "varda/support/text.h"

namespace varda {

namespace {

// Start values that a fit can do something with.
constexpr double least_variance = 0.04;
constexpr double most_variance = 0.4;
constexpr double least_share = 0.03;  // of a proportional deviation
constexpr double most_share = 0.4;

// The columns of a data set and the values that tell endpoints apart.
class data_columns {
 public:
  data_columns(const draft_request& request, const file_access& files)
      : columns_(request.columns), table_(read_csv(request.data, ignored_, files)) {}

  // Position of a role's column, or -1.
  int position_of(const std::string& role) const {
    const auto renamed = columns_.find(role);
    const std::string& name = renamed == columns_.end() ? role : renamed->second;
    for (std::size_t k = 0; k < table_.header.size(); ++k)
      if (equal_ignoring_case(table_.header[k], name)) return static_cast<int>(k);
    return -1;
  }

  // The DVIDs of observations: numbers ascending, then texts in the order of the file.
  std::vector<std::string> dvids() const {
    const int at = position_of("DVID");
    if (at < 0) return {};
    std::set<double> numbers;
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < table_.records(); ++i) {
      const csv_table::record r = table_.at(i);
      if (!is_observation(r)) continue;
      const std::string_view field = r.fields[static_cast<std::size_t>(at)];
      if (is_missing(field)) continue;
      if (const auto value = to_number(field))
        numbers.insert(*value);
      else if (std::find(texts.begin(), texts.end(), field) == texts.end())
        texts.emplace_back(field);
    }
    std::vector<std::string> all;
    for (const double value : numbers) all.push_back(fmt::format("{}", value));
    all.insert(all.end(), texts.begin(), texts.end());
    return all;
  }

  std::vector<std::string> used() const {
    std::vector<std::string> all;
    for (const std::string& role : data_roles())
      if (const int at = position_of(role); at >= 0)
        all.push_back(table_.header[static_cast<std::size_t>(at)]);
    return all;
  }
  std::vector<std::string> unused(const std::vector<std::string>& covariates) const {
    const std::vector<std::string> known = used();
    std::vector<std::string> all;
    for (const std::string& name : table_.header) {
      const auto same = [&](const std::string& other) { return equal_ignoring_case(other, name); };
      if (!name.empty() && std::none_of(known.begin(), known.end(), same) &&
          std::none_of(covariates.begin(), covariates.end(), same))
        all.push_back(name);
    }
    return all;
  }

 private:
  bool is_observation(const csv_table::record& r) const {
    for (const char* role : {"EVID", "MDV"}) {
      const int at = position_of(role);
      if (at < 0) continue;
      const std::string_view field = r.fields[static_cast<std::size_t>(at)];
      if (!is_missing(field) && to_number(field).value_or(0.0) != 0.0) return false;
    }
    const int value = position_of("DV");
    return value >= 0 && !is_missing(r.fields[static_cast<std::size_t>(value)]);
  }

  findings ignored_;  // the data set's reader will say them again
  const std::map<std::string, std::string>& columns_;
  csv_table table_;
};

void match_endpoints(const data_columns& columns, const std::string& file, drafted_model& draft) {
  const std::vector<std::string> dvids = columns.dvids();
  const std::size_t wanted = draft.endpoints.size();
  const std::size_t found = std::max<std::size_t>(dvids.size(), 1);
  if (found != wanted) {
    std::vector<std::string> names;
    for (const described_name& o : draft.structure.observed) names.push_back(o.name);
    throw bad_input(
        {.code = "E-NEW-ENDPOINTS",
         .message =
             fmt::format("the data have {} (DVID{}), and the structure {}: {}",
                         count_of(static_cast<int>(found), "endpoint"),
                         dvids.empty() ? "" : fmt::format(" {}", fmt::join(dvids, ", ")),
                         count_of(static_cast<int>(wanted), "output"), fmt::join(names, ", ")),
         .remedy = found < wanted ? "name those that were measured: --outputs NAME,NAME"
                                  : "take a structure with so many outputs, or leave records out",
         .file = file});
  }
  if (!dvids.empty())
    for (std::size_t k = 0; k < wanted; ++k) draft.endpoints[k].dvid = dvids[k];
}

// A formula of features.
double value_of(const std::string& formula, const std::map<std::string, double>& features) {
  equation_text text;
  text.parameters = feature_names();
  text.outputs = {{"guess", formula}};
  const auto model = make_structural_model({.name = formula_structure, .equations = text});
  std::vector<double> p;
  for (const std::string& name : model->parameter_names()) p.push_back(features.at(name));
  subject who;
  who.segments.resize(1);
  append(who, observation{});
  double value = 0.0;
  const auto scratch = model->make_workspace();
  model->predict(who, {p.data(), p.size(), 1, 1, 1}, {&value, 1, 1}, *scratch);
  return value;
}

int endpoint_called(const drafted_model& draft, bool concentration) {
  for (std::size_t k = 0; k < draft.endpoints.size(); ++k) {
    const std::string& name = draft.endpoints[k].output;
    const bool is_response = name != "concentration" && name != "target" && name != "metabolite";
    if (concentration ? name == "concentration" : is_response) return static_cast<int>(k);
  }
  return -1;
}

// Start values of what the data show; the structure's own where they do not.
void guess(const dataset& data, drafted_model& draft) {
  const auto& parameters = draft.structure.parameters;
  const bool absorbed = std::any_of(
      parameters.begin(), parameters.end(),
      [](const ready_parameter& p) { return p.name == "ka" || p.name == "D" || p.name == "td"; });
  const std::map<std::string, double> features =
      features_of(data, endpoint_called(draft, true), endpoint_called(draft, false), absorbed);
  for (const ready_parameter& p : parameters) {
    const double value = value_of(p.guess, features);
    const bool sensible = std::isfinite(value) && (p.law == distribution::normal || value > 0.0);
    draft.start[p.name] = sensible ? value : p.start;
  }
}

// A model file that is not on the disk yet.
class drafted_file {
 public:
  drafted_file(const draft_request& request, const file_access& files)
      : path_(request.output.empty() ? "model.toml" : request.output), files_(files) {}

  model_specification read(const std::string& text) const {
    findings ignored;
    return read_model_file(path_, ignored, {}, access(text));
  }
  population_model model(const std::string& text, findings& warnings) const {
    model_specification file = read_model_file(path_, warnings, {}, access(text));
    dataset data = read_dataset(file.data, warnings, files_);
    return {std::move(file), std::move(data)};
  }
  const std::string& path() const { return path_; }

 private:
  file_access access(const std::string& text) const {
    return [this, text](const std::string& path) -> std::optional<std::string> {
      if (path == path_) return text;
      return files_(path);
    };
  }

  std::string path_;
  const file_access& files_;
};

// The data set as the model file has to name it.
std::string data_as_seen_from(const std::string& model, const std::string& data) {
  namespace fs = std::filesystem;
  const fs::path folder = fs::absolute(model).parent_path();
  const fs::path seen =
      fs::absolute(data).lexically_normal().lexically_proximate(folder.lexically_normal());
  return seen.empty() ? data : seen.generic_string();
}

Eigen::VectorXd predictions(const population_model& model, int subject,
                            const Eigen::VectorXd& theta) {
  Eigen::VectorXd mu(model.random_effects());
  model.means(subject, theta.data(), mu.data());
  const density joint(model);
  density_workspace scratch(model);
  Eigen::MatrixXd f;
  joint.predict(subject, theta.data(), mu, f, scratch);
  return f.row(0);
}

// How observations scatter about predictions of which each subject may have a multiple of its own:
// the variance of the logarithm of that multiple, and what is left as a standard deviation and as a
// share of the prediction.
struct scatter {
  double between = 0.0;
  double absolute = 0.0;
  double share = 0.0;
  bool has_zero = false;  // a prediction that no proportional error can take
};

scatter scatter_of(const population_model& model, const std::vector<Eigen::VectorXd>& predicted,
                   int endpoint) {
  scatter s;
  double rest = 0.0, squares = 0.0, logs = 0.0;
  int count = 0, subjects = 0, free_pairs = 0;
  std::vector<double> levels;
  for (int i = 0; i < model.subjects(); ++i) {
    const subject& who = model.data().subjects[static_cast<std::size_t>(i)];
    const Eigen::VectorXd& f = predicted[static_cast<std::size_t>(i)];
    std::vector<std::pair<double, double>> own;
    for (std::size_t k = 0; k < who.observations.size(); ++k) {
      const observation& o = who.observations[k];
      if (o.endpoint != endpoint || o.censored != censoring::none) continue;
      own.emplace_back(o.value, f(static_cast<Eigen::Index>(k)));
      s.has_zero = s.has_zero || !(own.back().second > 0.0) || !(o.value > 0.0);
    }
    double fy = 0.0, ff = 0.0, mean = 0.0;
    int n = 0;
    for (const auto& [y, p] : own) {
      fy += p * y;
      ff += p * p;
      if (y <= 0.0 || p <= 0.0) continue;
      mean += std::log(y / p);
      ++n;
    }
    const double multiple = ff > 0.0 && fy > 0.0 ? fy / ff : 1.0;
    for (const auto& [y, p] : own) squares += std::pow(y - multiple * p, 2);
    count += static_cast<int>(own.size());
    ++subjects;
    if (n == 0) continue;
    mean /= n;
    levels.push_back(mean);
    for (const auto& [y, p] : own)
      if (y > 0.0 && p > 0.0) logs += std::pow(std::log(y / p) - mean, 2);
    free_pairs += n - 1;
    rest += 1.0 / n;
  }
  s.absolute = std::sqrt(squares / std::max(count - subjects, 1));
  const double variance = logs / std::max(free_pairs, 1);
  s.share = std::sqrt(variance);
  if (levels.size() < 2) return s;
  double mean = 0.0;
  for (const double x : levels) mean += x / static_cast<double>(levels.size());
  for (const double x : levels)
    s.between += std::pow(x - mean, 2) / static_cast<double>(levels.size() - 1);
  s.between -= variance * rest / static_cast<double>(levels.size());
  return s;
}

// The deviations of an error kind. What varies in a subject beyond a multiple of its own is partly
// the random effects' doing as well, so that these are upper ends.
std::vector<drafted_deviation> deviations_of(error_kind kind, const scatter& s) {
  const double share = std::clamp(s.share, least_share, most_share);
  const double absolute = s.absolute > 0.0 ? s.absolute : 1.0;
  switch (kind) {
    case error_kind::additive:
      return {{"additive", absolute}};
    case error_kind::proportional:
      return {{"proportional", share}};
    case error_kind::combined:
    case error_kind::combined_sd:
      return {{"additive", 0.5 * absolute}, {"proportional", 0.5 * share}};
    case error_kind::power:
      return {{"proportional", share}, {"exponent", 1.0}};
    case error_kind::log_normal:
      return {{"log_normal", share}};
    case error_kind::box_cox:
      // 2 sqrt(y) scatters by share sqrt(y) where y scatters by share y.
      return {{"additive", std::sqrt(share * absolute)}, {"lambda", 0.5}};
  }
  return {};
}

// Before anything is known of the residuals: an additive error takes any prediction, and its
// deviation is fitted with the typical values.
void draft_plain_errors(const dataset& data, drafted_model& draft) {
  for (std::size_t k = 0; k < draft.endpoints.size(); ++k) {
    std::vector<double> values;
    for (const subject& who : data.subjects)
      for (const observation& o : who.observations)
        if (o.endpoint == static_cast<int>(k)) values.push_back(std::fabs(o.value));
    double mean = 0.0;
    for (const double v : values) mean += v / static_cast<double>(values.size());
    draft.endpoints[k].error = error_kind::additive;
    draft.endpoints[k].deviations = {{"additive", mean > 0.0 ? 0.5 * mean : 1.0}};
  }
}

// Of two sets with the same curves the one with the faster absorption, where the structure has no
// parameters but these.
void prefer_fast_absorption(drafted_model& draft) {
  const std::vector<ready_parameter>& list = draft.structure.parameters;
  const auto has = [&](const std::string& name) {
    return std::any_of(list.begin(), list.end(),
                       [&](const ready_parameter& p) { return p.name == name; });
  };
  const auto own = oral_compartments_from([&](const std::string& name) {
    return has(name) ? draft.start.at(name) : std::numeric_limits<double>::quiet_NaN();
  });
  if (!own || list.size() != 3 + 2 * own->exchange.size() || !has("CL")) return;
  const oral_compartments twin = absorption_twin(*own);
  if (!(twin.absorption > own->absorption)) return;
  draft.start["ka"] = twin.absorption;
  draft.start[has("V") ? "V" : "V1"] = twin.volume;
  for (std::size_t j = 0; j < twin.exchange.size(); ++j) {
    const std::string exchange = has("Q") ? "Q" : fmt::format("Q{}", j + 2);
    draft.start[exchange] = twin.exchange[j];
    draft.start[fmt::format("V{}", j + 2)] = twin.peripheral[j];
  }
}

std::vector<std::string> what_was_read(const draft_request& request, const data_columns& columns,
                                       const population_model& model, const drafted_model& draft) {
  const dataset& data = model.data();
  std::vector<std::string> said;
  std::string observed;
  for (std::size_t k = 0; draft.endpoints.size() > 1 && k < draft.endpoints.size(); ++k)
    observed += fmt::format("{}{} {}", k == 0 ? ": " : ", ",
                            data.observations_of(static_cast<int>(k)), draft.endpoints[k].output);
  said.push_back(fmt::format("{}: {}, {} ({}), {}{}.",
                             std::filesystem::path(request.data).filename().string(),
                             count_of(static_cast<int>(data.subjects.size()), "subject"),
                             count_of(data.doses(), "dose"), count_of(data.dose_records, "record"),
                             count_of(data.observations(), "observation"), observed));
  said.push_back(fmt::format("Columns used: {}.", fmt::join(columns.used(), ", ")));
  const std::vector<std::string> unused = columns.unused(data.covariate_names);
  if (!data.covariate_names.empty())
    said.push_back(
        fmt::format("Columns that the model takes: {}.", fmt::join(data.covariate_names, ", ")));
  if (!unused.empty())
    said.push_back(
        fmt::format("Columns not used, possibly covariates: {}.", fmt::join(unused, ", ")));
  return said;
}

}  // namespace

draft_result draft_from_data(const draft_request& request, const file_access& files,
                             const job& peers) {
  draft_result result;
  drafted_model draft = draft_of(request.structure, request.outputs);
  draft.as_equations = request.as_equations;
  draft.columns = request.columns;
  const data_columns columns(request, files);
  match_endpoints(columns, request.data, draft);
  const drafted_file file(request, files);
  draft.data_file = data_as_seen_from(file.path(), request.data);

  dataset data;
  {
    findings ignored;
    data = read_dataset(file.read(model_text(draft)).data, ignored, files);
  }
  guess(data, draft);
  draft_plain_errors(data, draft);

  // The pooled fit, with the errors that the data seem to have in its second round. There a
  // proportional error gives way to that of the logarithm: where subjects differ widely, it is best
  // off with predictions that vanish.
  for (const bool again : {false, true}) {
    findings warnings;
    const population_model model = file.model(model_text(draft), warnings);
    if (!again) result.warnings = warnings;
    if (!again) result.recognised = what_was_read(request, columns, model, draft);
    Eigen::VectorXd theta;
    {
      engine_host host(model, peers);
      theta = pooled_start(host);
    }
    std::vector<Eigen::VectorXd> predicted;
    for (int i = 0; i < model.subjects(); ++i) predicted.push_back(predictions(model, i, theta));
    for (std::size_t k = 0; k < model.thetas().size(); ++k) {
      const fixed_effect& t = model.thetas()[k];
      if (t.role == theta_role::residual_deviation) continue;
      draft.start[t.name] = t.natural(theta(static_cast<Eigen::Index>(k)));
    }
    prefer_fast_absorption(draft);
    double between = 0.0;
    for (std::size_t k = 0; k < draft.endpoints.size(); ++k) {
      const scatter s = scatter_of(model, predicted, static_cast<int>(k));
      between = std::max(between, s.between);
      drafted_endpoint& e = draft.endpoints[k];
      e.error =
          request.error.value_or(s.has_zero ? error_kind::combined : error_kind::proportional);
      e.deviations = deviations_of(e.error, s);
      if (again || e.error != error_kind::proportional || s.has_zero) continue;
      e.error = error_kind::log_normal;
      e.deviations = deviations_of(e.error, s);
    }
    between = std::clamp(between, least_variance, most_variance);
    for (const ready_parameter& p : draft.structure.parameters) {
      const double typical = draft.start.at(p.name);
      if (p.law == distribution::normal)
        draft.variance[p.name] = between * std::max(typical * typical, 1e-12);
      else if (p.law != distribution::none)
        draft.variance[p.name] = between;
    }
  }
  draft.remarks = {
      "Start values: a naive pooled fit of the data; variances and residual "
      "deviations from its residuals."};
  draft.remarks.insert(draft.remarks.end(), result.recognised.begin(), result.recognised.end());
  result.text = model_text(draft);
  findings ignored;
  check_start(file.model(result.text, ignored));
  return result;
}

}  // namespace varda
