// SPDX-License-Identifier: Apache-2.0
#include "varda/model/covariate_coefficients.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "varda/data/levels.h"

namespace varda {

namespace {

// More levels than this are a sign of a continuous covariate.
constexpr std::size_t most_levels = 20;

// The levels that occur, without the reference.
std::vector<double> levels_of(const covariate_effect& effect, int covariate, const dataset& data) {
  std::set<double> levels;
  for (const subject& who : data.subjects)
    for (const segment& s : who.segments)
      levels.insert(s.covariates[static_cast<std::size_t>(covariate)]);
  const auto refuse = [&](const std::string& message, const std::string& remedy) {
    return bad_input({.code = "E-DATA-COVARIATE",
                      .message = message,
                      .remedy = remedy,
                      .file = data.file,
                      .column = effect.covariate});
  };
  std::vector<double> sorted(levels.begin(), levels.end());
  std::sort(sorted.begin(), sorted.end(), [&](double a, double b) {
    if (is_text_level(a) && is_text_level(b))
      return data.covariate_text(a) < data.covariate_text(b);
    return a < b;
  });
  if (levels.erase(effect.reference) == 0) {
    std::vector<std::string> texts;
    for (const double level : sorted) texts.push_back(data.covariate_text(level));
    const std::string near = did_you_mean(effect.reference_text, texts);
    throw refuse(fmt::format("no subject has the reference level {} of {}", effect.reference_text,
                             effect.name),
                 near.empty() ? fmt::format("its levels are {}", fmt::join(texts, ", "))
                              : "did you mean " + near + "?");
  }
  if (levels.size() > most_levels)
    throw refuse(
        fmt::format("the categorical effect {} has {} levels", effect.name, levels.size() + 1),
        "use a continuous effect, or group the levels");
  std::erase(sorted, effect.reference);
  return sorted;
}

void check_values(const covariate_coefficient& c, const dataset& data) {
  for (const subject& who : data.subjects)
    for (const segment& s : who.segments) {
      const double value = s.covariates[static_cast<std::size_t>(c.covariate)];
      if (std::isfinite(c.transformed(value))) continue;
      throw bad_input({.code = "E-DATA-COVARIATE",
                       .message = fmt::format("the covariate effect {} cannot be formed from {}",
                                              c.name, value),
                       .remedy = "a power effect needs values above 0",
                       .file = data.file,
                       .row = who.first_row,
                       .column = c.effect.covariate,
                       .subject = who.id});
    }
}

}  // namespace

double covariate_coefficient::transformed(double value) const {
  switch (effect.form) {
    case effect_form::power:
      return std::log(value / effect.center);
    case effect_form::categorical:
      return value == level ? 1.0 : 0.0;
    case effect_form::exponential:
    case effect_form::linear:
      break;
  }
  return value - effect.center;
}

double covariate_coefficient::change(double beta, double x) const {
  return is_factor ? std::log1p(beta * x) : beta * x;
}

std::vector<covariate_coefficient> covariate_coefficients(const model_specification& file,
                                                          const dataset& data) {
  std::vector<covariate_coefficient> all;
  for (std::size_t k = 0; k < file.parameters.size(); ++k) {
    const parameter& p = file.parameters[k];
    for (const covariate_effect& e : p.effects) {
      covariate_coefficient c;
      c.name = e.name;
      c.effect = e;
      c.parameter = static_cast<int>(k);
      c.covariate = static_cast<int>(
          std::find(data.covariate_names.begin(), data.covariate_names.end(), e.covariate) -
          data.covariate_names.begin());
      c.is_factor = e.form == effect_form::linear && acts_on_logarithm(p.law);
      c.in_design = p.law != distribution::none && !c.is_factor &&
                    !data.covariate_varies[static_cast<std::size_t>(c.covariate)];
      check_values(c, data);
      if (e.form != effect_form::categorical) {
        all.push_back(c);
        continue;
      }
      for (const double level : levels_of(e, c.covariate, data)) {
        c.level = level;
        const std::string text = data.covariate_text(level);
        c.name = e.name + "_" + text;
        const auto own = e.level_starts.find(text);
        c.effect.start = own == e.level_starts.end() ? e.start : own->second;
        all.push_back(c);
      }
    }
  }
  return all;
}

}  // namespace varda
