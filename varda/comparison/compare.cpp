// SPDX-License-Identifier: Apache-2.0
#include "varda/comparison/compare.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "statsubs/distributions/gratio.h"

namespace varda {

namespace {

// The subjects that have observations, in the order of the data.
std::vector<const stored_subject*> observed(const stored_fit& run) {
  std::vector<const stored_subject*> result;
  for (const stored_subject& s : run.by_subject)
    if (s.observations > 0) result.push_back(&s);
  return result;
}

// What each replicate's likelihood of a subject is more than their mean, as a share of it.
std::vector<double> excesses(const std::vector<double>& minus2ll) {
  const double least = *std::min_element(minus2ll.begin(), minus2ll.end());
  std::vector<double> result;
  double mean = 0.0;
  for (const double value : minus2ll) {
    result.push_back(std::exp(-0.5 * (value - least)));
    mean += result.back() / static_cast<double>(minus2ll.size());
  }
  for (double& value : result) value = value / mean - 1.0;
  return result;
}

// By the delta method: the variance of the difference of two logarithms of means is that of the
// mean difference of the excesses.
std::optional<double> paired_error(const stored_fit& run, const stored_fit& first) {
  const auto a = observed(run);
  const auto b = observed(first);
  if (a.size() != b.size()) return std::nullopt;
  double variance = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const std::size_t n = a[i]->minus2ll_replicates.size();
    if (n < 2 || b[i]->minus2ll_replicates.size() != n) return std::nullopt;
    const std::vector<double> of_a = excesses(a[i]->minus2ll_replicates);
    const std::vector<double> of_b = excesses(b[i]->minus2ll_replicates);
    double squares = 0.0;
    for (std::size_t r = 0; r < n; ++r) squares += std::pow(of_a[r] - of_b[r], 2);
    variance += squares / static_cast<double>(n * (n - 1));
  }
  return 2.0 * std::sqrt(variance);
}

run_difference difference(const stored_fit& run, const stored_fit& first) {
  run_difference d;
  d.minus2ll = *run.minus2ll - *first.minus2ll;
  const std::optional<double> paired = paired_error(run, first);
  d.paired = paired.has_value();
  d.mc_se = paired.value_or(std::hypot(run.mc_se, first.mc_se));
  d.estimated = run.estimated - first.estimated;
  d.aic = run.aic - first.aic;
  d.bic_observations = run.bic_observations - first.bic_observations;
  d.bic_subjects = run.bic_subjects - first.bic_subjects;
  return d;
}

double upper_tail(double x, int degrees_of_freedom) {
  if (degrees_of_freedom == 0) return x > 0.0 ? 0.0 : 1.0;
  double below = 0.0;
  double above = 1.0;
  statsubs::cumchi(std::max(x, 0.0), degrees_of_freedom, below, above);
  return above;
}

// A quantity that cannot be below 0 and is estimated.
bool has_boundary(const stored_fit& run, const stored_quantity& q) {
  if (q.fixed) return false;
  const auto element = std::find(run.omega_names.begin(), run.omega_names.end(), q.name);
  if (element == run.omega_names.end()) {
    // Residual deviations: "additive", or "concentration.additive" of a named endpoint.
    const std::string kind = q.name.substr(q.name.find_last_of('.') + 1);
    return kind == "additive" || kind == "proportional" || kind == "log_normal";
  }
  const std::size_t open = q.name.find('(');
  const std::size_t comma = q.name.find(',');
  return open != std::string::npos &&
         (comma == std::string::npos || q.name.substr(open + 1, comma - open - 1) ==
                                            q.name.substr(comma + 1, q.name.size() - comma - 2));
}

bool estimates(const stored_fit& run, const std::string& name) {
  return std::any_of(run.quantities.begin(), run.quantities.end(),
                     [&](const stored_quantity& q) { return q.name == name && !q.fixed; });
}

ratio_test test_of(const std::vector<stored_fit>& runs, int first, int other,
                   const run_difference& d) {
  ratio_test t;
  t.smaller = d.estimated >= 0 ? first : other;
  t.larger = d.estimated >= 0 ? other : first;
  t.degrees_of_freedom = std::abs(d.estimated);
  t.statistic = d.estimated >= 0 ? -d.minus2ll : d.minus2ll;
  t.mc_se = d.mc_se;
  if (t.degrees_of_freedom == 0) return t;
  constexpr double reach = 1.96;
  t.p = upper_tail(t.statistic, t.degrees_of_freedom);
  t.p_least = upper_tail(t.statistic + reach * t.mc_se, t.degrees_of_freedom);
  t.p_most = upper_tail(t.statistic - reach * t.mc_se, t.degrees_of_freedom);
  const stored_fit& small = runs[static_cast<std::size_t>(t.smaller)];
  const stored_fit& large = runs[static_cast<std::size_t>(t.larger)];
  for (const stored_quantity& q : large.quantities)
    if (has_boundary(large, q) && !estimates(small, q.name)) t.on_boundary.push_back(q.name);
  if (t.on_boundary.size() == 1)
    t.p_mixture = 0.5 * upper_tail(t.statistic, t.degrees_of_freedom) +
                  0.5 * upper_tail(t.statistic, t.degrees_of_freedom - 1);
  return t;
}

std::string reason_apart(const stored_fit& run, const stored_fit& first) {
  if (run.observations != first.observations)
    return fmt::format("different observations: {} instead of {}", run.observations,
                       first.observations);
  if (run.about.observations_sha256 != first.about.observations_sha256)
    return "different observations, the same number of them";
  return "the same observations after different doses";
}

bool together(const stored_fit& a, const stored_fit& b) {
  return a.about.observations_sha256 == b.about.observations_sha256 &&
         a.about.doses_sha256 == b.about.doses_sha256;
}

}  // namespace

comparison compare(std::vector<stored_fit> runs, bool nested) {
  comparison result;
  result.runs = std::move(runs);
  for (int k = 0; k < static_cast<int>(result.runs.size()); ++k) {
    const stored_fit& run = result.runs[static_cast<std::size_t>(k)];
    const auto first_of = [&](const comparison_group& g) -> const stored_fit& {
      return result.runs[static_cast<std::size_t>(g.runs.front())];
    };
    auto at = std::find_if(result.groups.begin(), result.groups.end(),
                           [&](const comparison_group& g) { return together(run, first_of(g)); });
    if (at == result.groups.end()) {
      at = result.groups.insert(result.groups.end(), comparison_group());
      if (k > 0) at->apart = reason_apart(run, result.runs.front());
      at->runs.push_back(k);
      at->differences.emplace_back();
      continue;
    }
    const stored_fit& first = first_of(*at);
    at->runs.push_back(k);
    at->differences.emplace_back();
    if (!run.minus2ll || !first.minus2ll) continue;
    at->differences.back() = difference(run, first);
    if (nested)
      at->tests.push_back(test_of(result.runs, at->runs.front(), k, *at->differences.back()));
  }
  return result;
}

}  // namespace varda
