// SPDX-License-Identifier: Apache-2.0
#include "varda/input/model_file_parts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "varda/data/csv.h"
#include "varda/model/structural_model.h"
#include "varda/support/text.h"

namespace varda {

namespace {

double read_deviation(section& from, const std::string& key, bool& fixed) {
  const double value =
      from.fixable_number(key, "start", "a start value of the residual error", fixed);
  if (!(value > 0.0))
    throw from.error("E-MODEL-RANGE", key, fmt::format("{} is not above 0", value),
                     "standard deviations and exponents are positive");
  return value;
}

// The NPDE need a variance, which Student's t has above 2.
double read_degrees_of_freedom(section& from) {
  constexpr double least = 2.0;
  constexpr double most = 1000.0;
  const std::string key = "degrees_of_freedom";
  const double value = from.needed_number(key, "the degrees of freedom of Student's t");
  if (!(value > least && value <= most))
    throw from.error("E-MODEL-RANGE", key, fmt::format("{} is not between 2 and 1000", value),
                     "the variance is finite above 2; beyond 1000 take normal residuals");
  return value;
}

double read_lambda(section& from) {
  constexpr double most = 2.0;
  const double value = from.needed_number("lambda", "the exponent of the Box-Cox transformation");
  if (!(std::fabs(value) <= most))
    throw from.error("E-MODEL-RANGE", "lambda", fmt::format("{} is not between -2 and 2", value),
                     "0 is the logarithm, 1 leaves DV as it is");
  return value;
}

residual_error read_error(section& from) {
  residual_error r;
  r.kind = from.kind_or("error", r.kind);
  const auto read_additive = [&](const std::string& key) {
    r.additive = read_deviation(from, key, r.additive_fixed);
  };
  const auto read_proportional = [&] {
    r.proportional = read_deviation(from, "proportional", r.proportional_fixed);
  };
  switch (r.kind) {
    case error_kind::additive:
      read_additive("additive");
      break;
    case error_kind::proportional:
      read_proportional();
      break;
    case error_kind::combined:
    case error_kind::combined_sd:
      read_additive("additive");
      read_proportional();
      break;
    case error_kind::power:
      read_proportional();
      r.exponent = read_deviation(from, "exponent", r.exponent_fixed);
      break;
    case error_kind::log_normal:
      read_additive("log_normal");
      break;
    case error_kind::box_cox:
      read_additive("additive");
      r.lambda = read_lambda(from);
      break;
  }
  if (from.kind_or("distribution", residual_distribution::normal) ==
      residual_distribution::student_t)
    r.degrees_of_freedom = read_degrees_of_freedom(from);
  return r;
}

// The DVID of an endpoint, and its name, for which the word stands where no DVID is given.
void read_dvid(section& of, const std::string& name, model_specification& file) {
  constexpr int largest_dvid = 1000000;
  std::vector<std::string>& dvids = file.data.endpoints;
  const int next = static_cast<int>(file.endpoints.size()) + 1;
  const std::string dvid =
      of.is_text("dvid") ? of.needed_text("dvid", "the DVID of the endpoint")
                         : fmt::format("{}", of.whole_number_or("dvid", next, 1, largest_dvid));
  if (std::find(dvids.begin(), dvids.end(), dvid) != dvids.end())
    throw of.error("E-MODEL-ENDPOINT", "dvid", fmt::format("DVID {} stands twice", dvid),
                   "give each endpoint a DVID of its own");
  if (is_missing(dvid))
    throw of.error("E-MODEL-ENDPOINT", "dvid", fmt::format("'{}' stands for no DVID", dvid),
                   "write the text that the column has for this endpoint");
  dvids.push_back(dvid);
  file.data.endpoint_names.push_back(of.has("dvid") ? "" : name);
}

// Endpoints by name, each a table with its residual error and its DVID.
void read_by_name(section& from, model_specification& file) {
  for (const std::string& name : from.keys()) {
    section of = from.needed_table(name, "the residual error of an endpoint");
    read_dvid(of, name, file);
    file.endpoints.push_back({name, read_error(of)});
    of.refuse_leftovers();
  }
}

// Formulas by their keys; numbers will do as well.
formula_line read_formula(section& from, const std::string& key, const std::string& what) {
  return {key,
          from.is_number(key) ? fmt::format("{}", *from.number(key)) : from.needed_text(key, what)};
}

void read_levels(section& from, outcome_text& of) {
  const std::vector<std::string> thresholds = from.texts("thresholds");
  for (const std::string& text : thresholds) of.formulas.push_back({"thresholds", text});
  if (thresholds.empty())
    throw from.error("E-MODEL-ENDPOINT", "thresholds", "an ordinal endpoint needs a threshold",
                     "write one for each level but the last: thresholds = [\"b1\", \"b1 + d2\"]");
  for (std::size_t k = 0; k <= thresholds.size(); ++k) of.levels.push_back(static_cast<double>(k));
  if (!from.has("levels")) return;
  of.levels = from.numbers("levels");
  if (of.levels.size() != thresholds.size() + 1)
    throw from.error(
        "E-MODEL-ENDPOINT", "levels",
        fmt::format("{} cannot separate {}", count_of(std::ssize(thresholds), "threshold"),
                    count_of(std::ssize(of.levels), "level")),
        "there is one level more than thresholds");
  for (std::size_t k = 1; k < of.levels.size(); ++k)
    if (!(of.levels[k - 1] < of.levels[k]))
      throw from.error("E-MODEL-ENDPOINT", "levels", "the levels do not ascend",
                       "write them from the lowest to the highest");
}

// Exactly one of two keys.
std::string one_of(section& from, const char* one, const char* other) {
  const bool first = from.has(one);
  if (first == from.has(other))
    throw from.error("E-MODEL-ENDPOINT", first ? other : "",
                     first ? fmt::format("{} and {} stand together", one, other)
                           : fmt::format("neither {} nor {} is given", one, other),
                     "give one of the two");
  return first ? one : other;
}

outcome_text read_outcome(section& from, const std::string& name, endpoint_kind kind) {
  outcome_text of;
  of.kind = kind;
  of.name = name;
  const auto formula = [&](const std::string& key, const char* what) {
    of.formulas.push_back(read_formula(from, key, what));
  };
  switch (kind) {
    case endpoint_kind::poisson:
    case endpoint_kind::negative_binomial:
    case endpoint_kind::zero_inflated_poisson:
    case endpoint_kind::zero_inflated_negative_binomial:
      formula("mean", "the mean of the counts");
      if (kind == endpoint_kind::negative_binomial ||
          kind == endpoint_kind::zero_inflated_negative_binomial)
        formula("dispersion", "the dispersion of the counts");
      if (kind == endpoint_kind::zero_inflated_poisson ||
          kind == endpoint_kind::zero_inflated_negative_binomial)
        formula("zero_inflation", "the probability of a zero more");
      break;
    case endpoint_kind::binary:
      formula(one_of(from, "probability", "linear_predictor"), "the probability of 1");
      if (from.has("linear_predictor")) of.link = from.kind_or("link", of.link);
      break;
    case endpoint_kind::ordinal:
      formula("linear_predictor", "what shifts the levels");
      read_levels(from, of);
      of.link = from.kind_or("link", of.link);
      break;
    case endpoint_kind::event:
      formula(one_of(from, "hazard", "cumulative_hazard"), "the hazard");
      of.repeated = from.flag_or("repeated", false);
      of.follow_up = from.number("follow_up").value_or(of.follow_up);
      break;
    case endpoint_kind::log_likelihood:
      formula("log_likelihood", "the logarithm of the density of DV");
      if (from.has("prediction")) formula("prediction", "what is expected");
      break;
    case endpoint_kind::normal:
      break;
  }
  return of;
}

void read_kinds(section from, model_specification& file, std::map<std::string, section>& places) {
  for (const std::string& name : from.keys()) {
    section of = from.needed_table(name, "an endpoint");
    of.needed_text("kind", "the kind of the endpoint");
    const endpoint_kind kind = of.kind_or("kind", endpoint_kind::normal);
    if (std::any_of(file.endpoints.begin(), file.endpoints.end(),
                    [&](const endpoint& known) { return known.name == name; }))
      throw of.error("E-MODEL-ENDPOINT", "", fmt::format("the endpoint {} stands twice", name),
                     "give each endpoint a name of its own");
    read_dvid(of, name, file);
    endpoint made{name, {}};
    if (kind == endpoint_kind::normal)
      made.residual = read_error(of);
    else
      made.outcome = read_outcome(of, name, kind);
    file.endpoints.push_back(std::move(made));
    of.refuse_leftovers();
    places.emplace("endpoint." + name, of);
  }
}

}  // namespace

void read_endpoints(section& root, model_specification& file,
                    std::map<std::string, section>& places) {
  file.data.endpoints.clear();
  file.data.endpoint_names.clear();
  auto others = root.table("endpoint");
  std::optional<section> residual = root.table("residual");
  if (!residual && !others) root.needed_table("residual", "the residual error");
  if (residual) {
    const std::vector<std::string> keys = residual->keys();
    const bool by_name = !keys.empty() && !residual->has("error") &&
                         std::all_of(keys.begin(), keys.end(), [&](const std::string& key) {
                           return residual->is_table(key) &&
                                  std::find(deviation_keys.begin(), deviation_keys.end(), key) ==
                                      deviation_keys.end();
                         });
    if (by_name) {
      read_by_name(*residual, file);
    } else if (others) {
      throw residual->error("E-MODEL-ENDPOINT", "", "the endpoint has no name, and others have",
                            "write [residual.NAME] beside [endpoint.NAME]");
    } else {
      file.data.endpoints = {"1"};
      file.data.endpoint_names = {""};
      file.endpoints.push_back({"", read_error(*residual)});
      residual->refuse_leftovers();
    }
  }
  if (others) read_kinds(*others, file, places);
  if (std::any_of(file.endpoints.begin(), file.endpoints.end(),
                  [](const endpoint& of) { return !of.is_normal(); }))
    for (const endpoint& of : file.endpoints) file.data.outcomes.push_back(of.outcome);
  file.structure.equations.outcomes = file.data.outcomes;
}

void check_outputs(section& root, const model_specification& file) {
  const int outputs = make_structural_model(file.structure)->outputs();
  const auto normal =
      static_cast<int>(std::count_if(file.endpoints.begin(), file.endpoints.end(),
                                     [](const endpoint& of) { return of.is_normal(); }));
  const bool all_normal = file.data.outcomes.empty();
  const section place = root.table(all_normal ? "residual" : "endpoint").value_or(root);
  if (all_normal ? outputs != 1 && outputs != normal
                 : outputs != normal && !(outputs == 1 && normal > 0))
    throw place.error(
        "E-MODEL-ENDPOINT", "",
        fmt::format("the model has {} and {}", count_of(outputs, "output"),
                    count_of(normal, all_normal ? "endpoint" : "normal endpoint")),
        all_normal ? "write a [residual.NAME] table for every output, in their order"
                   : "write a [residual.NAME] table for every output, and no output for other "
                     "endpoints");
}

}  // namespace varda
