// SPDX-License-Identifier: Apache-2.0
#include "varda/input/model_file_parts.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "varda/data/levels.h"
#include "varda/model/structural_model.h"
#include "varda/support/text.h"

namespace varda {

namespace {

constexpr double infinite = std::numeric_limits<double>::infinity();

void read_bounds(section& from, double& lower, double& upper) {
  lower = from.bound_or("lower", -infinite);
  upper = from.bound_or("upper", infinite);
  if (lower >= upper)
    throw from.error("E-MODEL-RANGE", "lower", "the lower bound is not below the upper one",
                     "exchange the two, or use fixed = true for a given value");
}

void check_start(const section& from, double start, double lower, double upper) {
  if (start < lower || start > upper)
    throw from.error("E-MODEL-RANGE", "start",
                     fmt::format("the start value {} lies outside its bounds", start),
                     "move it between the bounds");
}

// Whether the form has a meaning for parameters that no effect multiplies.
bool can_be_added(effect_form form) {
  switch (form) {
    case effect_form::power:
    case effect_form::exponential:
      return false;
    case effect_form::linear:
    case effect_form::categorical:
      return true;
  }
  return false;
}

// A level is a number or a text.
void read_reference(section& from, covariate_effect& effect) {
  const char* what = "the level that has no coefficient";
  effect.reference_text = from.is_text("reference")
                              ? from.needed_text("reference", what)
                              : fmt::format("{}", from.needed_number("reference", what));
  effect.reference = level_number(effect.reference_text);
}

covariate_effect read_effect(section from, const parameter& of) {
  covariate_effect effect;
  effect.covariate = from.needed_text("column", "the column of the covariate");
  const bool factor = acts_on_logarithm(of.law);
  effect.form = from.kind_or("effect", factor ? effect_form::power : effect_form::linear);
  if (!factor && !can_be_added(effect.form))
    throw from.error("E-MODEL-EFFECT", "effect",
                     "this form does not suit the parameter's distribution",
                     "use linear or categorical for normal and logit-normal parameters");
  if (effect.form == effect_form::categorical)
    read_reference(from, effect);
  else
    effect.center = from.number_or("center", effect.form == effect_form::power ? 1.0 : 0.0);
  if (effect.form == effect_form::power && !(effect.center > 0.0))
    throw from.error("E-MODEL-RANGE", "center", "the center of a power effect must be above 0",
                     "use a typical value of the covariate");
  effect.start = from.number_or("start", 0.0);
  effect.fixed = from.flag_or("fixed", false);
  effect.name = from.text("name").value_or(of.name + "_" + effect.covariate);
  read_bounds(from, effect.lower, effect.upper);
  check_start(from, effect.start, effect.lower, effect.upper);
  from.refuse_leftovers();
  return effect;
}

void read_range(section& from, parameter& p) {
  if (!from.has("range")) return;
  const auto ends = from.numbers("range");
  if (ends.size() != 2 || !(ends[0] < ends[1]))
    throw from.error("E-MODEL-TYPE", "range", "two increasing numbers are expected",
                     "write range = [0, 1]");
  p.range_lower = ends[0];
  p.range_upper = ends[1];
}

parameter read_parameter(const std::string& name, section from) {
  parameter p;
  p.name = name;
  p.law = from.kind_or("distribution", p.law);
  p.start = from.needed_number("start", "the start value");
  p.fixed = from.flag_or("fixed", false);
  if (p.law == distribution::logit_normal) {
    read_range(from, p);
    if (p.start <= p.range_lower || p.start >= p.range_upper)
      throw from.error(
          "E-MODEL-RANGE", "start",
          fmt::format("the start value {} lies outside the range of the logit", p.start),
          "move it inside the range, or widen the range");
  } else {
    read_bounds(from, p.lower, p.upper);
    check_start(from, p.start, p.lower, p.upper);
  }
  if (p.law == distribution::log_normal && !(p.start > 0.0))
    throw from.error("E-MODEL-RANGE", "start", "a log-normal parameter must start above 0",
                     "change the start value or the distribution");
  for (const section& effect : from.tables("covariates"))
    p.effects.push_back(read_effect(effect, p));
  from.refuse_leftovers();
  return p;
}

}  // namespace

void read_parameters(section from, model_specification& file) {
  const auto structure = make_structural_model(file.structure);
  const std::vector<std::string>& names = structure->parameter_names();
  file.data.compartments = structure->dose_compartments();
  for (int c = 1; c <= file.data.compartments; ++c) {
    if (structure->models_rate(c)) file.data.modelled_rate.push_back(c);
    if (structure->models_duration(c)) file.data.modelled_duration.push_back(c);
  }
  // First, so that a misspelt name is not reported as a missing one.
  for (const std::string& name : names) from.accept(name);
  from.refuse_leftovers();
  for (const std::string& name : names) {
    const std::string what = fmt::format("a parameter of the model \"{}\"", file.structure.name);
    file.parameters.push_back(read_parameter(name, from.needed_table(name, what)));
  }
  if (std::all_of(file.parameters.begin(), file.parameters.end(),
                  [](const parameter& p) { return p.law == distribution::none; }))
    throw from.error("E-MODEL-NO-RANDOM-EFFECT", "", "the model has no random effect",
                     "give at least one parameter a distribution and a variance");

  std::set<std::string> seen(names.begin(), names.end());
  seen.insert(deviation_keys.begin(), deviation_keys.end());
  for (const parameter& p : file.parameters) {
    std::set<std::pair<std::string, effect_form>> effects;
    for (const covariate_effect& e : p.effects) {
      if (!seen.insert(e.name).second)
        throw from.error("E-MODEL-NAME", p.name, fmt::format("the name {} is used twice", e.name),
                         "give the covariate effect a name of its own");
      // Two such coefficients could only be told apart by their sum.
      if (!effects.insert({lower_case(e.covariate), e.form}).second)
        throw from.error("E-MODEL-EFFECT", p.name,
                         fmt::format("the effect of {} stands twice", e.covariate),
                         "leave one of the two");
      if (std::find(file.data.covariates.begin(), file.data.covariates.end(), e.covariate) ==
          file.data.covariates.end())
        file.data.covariates.push_back(e.covariate);
      covariate_use& use = file.data.uses[e.covariate];
      (e.form == effect_form::categorical ? use.compared : use.computed) = true;
    }
  }
}

}  // namespace varda
