// SPDX-License-Identifier: Apache-2.0
#include "varda/html_report/model_in_words.h"

#include <fmt/format.h>

#include <algorithm>

#include "varda/model/words.h"
#include "varda/support/text.h"

namespace varda {

namespace {

using lines = std::vector<std::string>;

// "x - 70", or x alone.
std::string centred(const covariate_effect& e) {
  if (e.center == 0.0) return e.covariate;
  return fmt::format("({} {} {})", e.covariate, e.center < 0.0 ? "+" : "−",
                     e.center < 0.0 ? -e.center : e.center);
}

// A factor of the parameter, or a summand of phi.
std::string term(const covariate_effect& e, bool factor) {
  switch (e.form) {
    case effect_form::power:
      return fmt::format(" × ({} / {})^{}", e.covariate, e.center, e.name);
    case effect_form::exponential:
      return fmt::format(" × exp({} × {})", e.name, centred(e));
    case effect_form::linear:
      return factor ? fmt::format(" × (1 + {} × {})", e.name, centred(e))
                    : fmt::format(" + {} × {}", e.name, centred(e));
    case effect_form::categorical:
      return factor ? fmt::format(" × exp({}[{}])", e.name, e.covariate)
                    : fmt::format(" + {}[{}]", e.name, e.covariate);
  }
  return "";
}

bool has_effect(const population_model& model, std::size_t parameter, bool per_occasion) {
  return std::any_of(model.effects().begin(), model.effects().end(), [&](const random_effect& e) {
    return static_cast<std::size_t>(e.parameter) == parameter && (e.occasion >= 0) == per_occasion;
  });
}

std::string individual_line(const population_model& model, std::size_t k) {
  const parameter& p = model.specification().parameters[k];
  std::string effects;
  for (const covariate_effect& e : p.effects) effects += term(e, acts_on_logarithm(p.law));
  std::string random;
  if (has_effect(model, k, false)) random = fmt::format("η({})", p.name);
  if (has_effect(model, k, true))
    random += fmt::format("{}η({}, occasion)", random.empty() ? "" : " + ", p.name);
  const std::string added = random.empty() ? "" : " + " + random;
  switch (p.law) {
    case distribution::log_normal:
    case distribution::none:
      return fmt::format("{0}ᵢ = {0}{1}{2}", p.name, effects,
                         random.empty() ? "" : " × exp(" + random + ")");
    case distribution::normal:
      return fmt::format("{0}ᵢ = {0}{1}{2}", p.name, effects, added);
    case distribution::logit_normal:
      return fmt::format("logit({0}ᵢ) = logit({0}){1}{2},  logit on ({3}, {4})", p.name, effects,
                         added, p.range_lower, p.range_upper);
  }
  return "";
}

// The rate constants of one to three compartments, as the model's parameters give them.
struct rate_names {
  std::string volume, elimination;
  std::vector<std::pair<std::string, std::string>> exchange;  // to and from a peripheral one
};

rate_names rates_of(int compartments, parametrisation by) {
  if (by == parametrisation::rate_constant) {
    rate_names names{"V", "k", {}};
    for (int j = 2; j <= compartments; ++j)
      names.exchange.emplace_back(fmt::format("k1{}", j), fmt::format("k{}1", j));
    return names;
  }
  const std::string volume = compartments == 1 ? "V" : "V1";
  rate_names names{volume, fmt::format("(CL / {})", volume), {}};
  for (int j = 2; j <= compartments; ++j) {
    const std::string flow = compartments == 2 ? "Q" : fmt::format("Q{}", j);
    names.exchange.emplace_back(fmt::format("({} / V1)", flow), fmt::format("({} / V{})", flow, j));
  }
  return names;
}

// In the model file, and not in the library.
bool is_written_out(const structure_choice& choice) {
  return choice.name == formula_structure || choice.name == equation_structure;
}

lines compartment_lines(const structure_choice& choice) {
  const int compartments = choice.name.rfind("one", 0) == 0   ? 1
                           : choice.name.rfind("two", 0) == 0 ? 2
                                                              : 3;
  const rate_names names = rates_of(compartments, choice.by);
  const bool oral = choice.name.find(" oral") != std::string::npos;
  lines result;
  const bool zero_order = choice.name.find(" zero-order") != std::string::npos;
  if (oral) result.emplace_back("dA₀/dt = −ka × A₀,  doses into A₀");
  static const char* const amount[] = {"A₁", "A₂", "A₃"};
  std::string central = oral ? "ka × A₀ − " : "−";
  central += names.elimination + " × A₁";
  for (std::size_t j = 0; j < names.exchange.size(); ++j)
    central += fmt::format(" − {} × A₁ + {} × {}", names.exchange[j].first,
                           names.exchange[j].second, amount[j + 1]);
  result.push_back("dA₁/dt = " + central +
                   (oral         ? ""
                    : zero_order ? ",  doses into A₁ at a constant rate"
                                 : ",  doses into A₁"));
  for (std::size_t j = 0; j < names.exchange.size(); ++j)
    result.push_back(fmt::format("d{0}/dt = {1} × A₁ − {2} × {0}", amount[j + 1],
                                 names.exchange[j].first, names.exchange[j].second));
  result.push_back("f = A₁ / " + names.volume);
  return result;
}

void add(lines& to, const std::vector<formula_line>& section, const char* form) {
  for (const formula_line& l : section)
    to.push_back(fmt::format(fmt::runtime(form), l.name, l.text));
}

lines structure_lines(const structure_choice& choice) {
  if (!is_written_out(choice)) return compartment_lines(choice);
  const equation_text& e = choice.equations;
  lines result;
  add(result, e.definitions, "{} = {}");
  add(result, e.derivatives, "d{}/dt = {}");
  add(result, e.initial, "{}(0) = {}");
  add(result, e.lag, "lag of doses into {}: {}");
  add(result, e.bioavailability, "share of doses into {} that arrives: {}");
  add(result, e.rate, "rate of doses into {}: {}");
  add(result, e.duration, "duration of doses into {}: {}");
  add(result, e.outputs, "{} = {}");
  return result;
}

// The law and its formulas.
std::string outcome_line(const outcome_text& what, const std::string& y) {
  std::string line = fmt::format("{} ~ {}", y, name_of(what.kind));
  for (const formula_line& formula : what.formulas)
    line += fmt::format("{} {} = {}", &formula == what.formulas.data() ? ":" : ",", formula.name,
                        formula.text);
  return line;
}

std::string error_line(const residual_error& error, const std::string& y) {
  switch (error.kind) {
    case error_kind::additive:
      return y + " = f + additive × ε";
    case error_kind::proportional:
      return y + " = f + proportional × f × ε";
    case error_kind::combined:
      return y + " = f + √(additive² + proportional² × f²) × ε";
    case error_kind::combined_sd:
      return y + " = f + (additive + proportional × |f|) × ε";
    case error_kind::power:
      return y + " = f + proportional × |f|^exponent × ε";
    case error_kind::log_normal:
      return "log " + y + " = log f + log_normal × ε";
    case error_kind::box_cox:
      return fmt::format(
          "h({}) = h(f) + additive × ε, {}", y,
          error.lambda == 0.0 ? "h = log" : fmt::format("h(x) = (x^{0} − 1) / {0}", error.lambda));
  }
  return "";
}

// The names of an endpoint's deviations are those of theta, which say the endpoint where there are
// several.
std::string observation_line(const endpoint& what) {
  const std::string y = what.name.empty() ? "y" : "y(" + what.name + ")";
  if (!what.is_normal()) return outcome_line(what.outcome, y);
  const std::string line = error_line(what.residual, y);
  const double nu = what.residual.degrees_of_freedom;
  return nu > 0.0 ? fmt::format("{}, ε ~ t({})", line, nu) : line;
}

}  // namespace

model_account in_words(const population_model& model) {
  const model_specification& file = model.specification();
  model_account result;
  const structure_choice& choice = file.structure;
  std::string structure = "Structural model: " + choice.name;
  if (!is_written_out(choice))
    structure += fmt::format(", given by {}", choice.by == parametrisation::clearance
                                                  ? "clearances and volumes"
                                                  : "rate constants and a volume");
  if (choice.lag_time) structure += ", with a lag time";
  if (choice.bioavailability) structure += ", with a bioavailability";
  result.words.push_back(structure + ".");
  result.words.push_back(fmt::format("{}, {} for each subject.",
                                     count_of(std::ssize(file.parameters), "parameter"),
                                     count_of(model.subject_effects(), "random effect")));
  for (const omega_block& block : file.omega)
    if (block.names.size() > 1)
      result.words.push_back(
          fmt::format("The random effects of {} are correlated.", fmt::join(block.names, ", ")));
  if (!file.occasion_omega.empty())
    result.words.emplace_back("Some parameters have a random effect for each occasion.");
  for (const endpoint& what : file.endpoints)
    result.words.push_back(
        !what.is_normal()
            ? fmt::format("Endpoint {}: {}.", what.name, name_of(what.outcome.kind))
            : fmt::format("Residual error{}: {}{}.", what.name.empty() ? "" : " of " + what.name,
                          name_of(what.residual.kind),
                          what.residual.degrees_of_freedom > 0.0
                              ? fmt::format(", Student's t with {} degrees of freedom",
                                            what.residual.degrees_of_freedom)
                              : ""));
  result.structure = structure_lines(choice);
  for (std::size_t k = 0; k < file.parameters.size(); ++k)
    result.individuals.push_back(individual_line(model, k));
  for (const endpoint& what : file.endpoints) result.observations.push_back(observation_line(what));
  return result;
}

}  // namespace varda
