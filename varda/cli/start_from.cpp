// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/start_from.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>

namespace varda {

namespace {

class estimates {
 public:
  explicit estimates(const stored_fit& fit) : fit_(fit) {}

  std::optional<double> of(const std::string& name) const {
    for (const stored_quantity& q : fit_.quantities)
      if (q.name == name) return q.estimate;
    return std::nullopt;
  }
  void take(const std::string& name, double lower, double upper, double& start) {
    const std::optional<double> value = of(name);
    if (!value || !(*value > lower && *value < upper)) return;
    start = *value;
    if (std::find(taken.begin(), taken.end(), name) == taken.end()) taken.push_back(name);
  }
  // A residual deviation, by its own name or that of its endpoint and its own.
  void take_deviation(const std::string& endpoint, const std::string& kind, bool fixed,
                      double& start) {
    if (!fixed && start > 0.0)
      take(endpoint.empty() ? kind : endpoint + "." + kind, 0.0, INFINITY, start);
  }
  // The coefficients of an effect; which levels the data have is not known here.
  void take_effect(covariate_effect& e) {
    if (e.fixed) return;
    if (e.form != effect_form::categorical) return take(e.name, e.lower, e.upper, e.start);
    const std::string begin = e.name + "_";
    for (const stored_quantity& q : fit_.quantities) {
      if (!q.name.starts_with(begin)) continue;
      double start = e.start;
      take(q.name, e.lower, e.upper, start);
      e.level_starts[q.name.substr(begin.size())] = start;
    }
  }
  void take_block(omega_block& block, const std::string& kind) {
    if (block.fixed) return;
    const std::size_t n = block.names.size();
    const std::vector<double> before = block.matrix;
    const auto element = [&](std::size_t i, std::size_t j) {
      return fmt::format("{}({},{})", kind, block.names[i], block.names[j]);
    };
    std::vector<double> variances;
    for (std::size_t i = 0; i < n; ++i) {
      const std::optional<double> value = of(element(i, i));
      if (!value || !(*value > 0.0)) return;
      variances.push_back(*value);
    }
    bool all = true;
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t j = 0; j < i; ++j) all = all && (of(element(i, j)) || of(element(j, i)));
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t j = 0; j < n; ++j) {
        const double scale =
            std::sqrt(variances[i] * variances[j] / (before[i * n + i] * before[j * n + j]));
        double& to = block.matrix[j * n + i];
        if (i == j)
          to = variances[i];
        else if (all)
          to = of(element(i, j)) ? *of(element(i, j)) : *of(element(j, i));
        else
          to = before[j * n + i] * scale;
        if (j <= i && (i == j || all)) taken.push_back(element(i, j));
      }
  }

  std::vector<std::string> taken;

 private:
  const stored_fit& fit_;
};

}  // namespace

std::vector<std::string> start_from(const stored_fit& fit, model_specification& file) {
  estimates known(fit);
  for (parameter& p : file.parameters) {
    const bool logit = p.law == distribution::logit_normal;
    if (!p.fixed)
      known.take(p.name, logit ? p.range_lower : p.lower, logit ? p.range_upper : p.upper, p.start);
  }
  for (parameter& p : file.parameters)
    for (covariate_effect& e : p.effects) known.take_effect(e);
  for (omega_block& block : file.omega) known.take_block(block, "omega");
  for (omega_block& block : file.occasion_omega) known.take_block(block, "omega_occasion");
  for (endpoint& of : file.endpoints) {
    residual_error& r = of.residual;
    known.take_deviation(of.name, "proportional", r.proportional_fixed, r.proportional);
    known.take_deviation(of.name, r.kind == error_kind::log_normal ? "log_normal" : "additive",
                         r.additive_fixed, r.additive);
    known.take_deviation(of.name, "exponent", r.exponent_fixed, r.exponent);
  }
  return known.taken;
}

}  // namespace varda
