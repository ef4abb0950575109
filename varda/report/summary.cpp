// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cmath>
#include <iterator>

#include "varda/report/reports.h"
#include "varda/version.h"

namespace varda {

namespace {

using sink = std::back_insert_iterator<std::string>;

void write_verdict(sink out, const fit_result& result) {
  const auto passes = result.iterations.size();
  if (result.what == task::evaluate)
    fmt::format_to(out, "{}: {}\n\n", result.converged ? "Evaluated" : "NOT SETTLED",
                   result.reason);
  else
    fmt::format_to(out, "{} after {} iterations\n  {}\n\n",
                   result.converged           ? "Converged"
                   : !result.singular.empty() ? "OMEGA IS SINGULAR"
                                              : "NOT CONVERGED",
                   passes, result.reason);
}

void write_quadrature(sink out, const fit_result& result) {
  const quadrature_estimate& q = result.quadrature;
  if (!q.complete) return;
  const std::string grid =
      q.is_laplace()
          ? "mode and exact curvature of every subject"
          : fmt::format("{} nodes per random effect, {} points a subject", q.nodes, q.points);
  fmt::format_to(out, "  {:<20} {:14.4f}   {}\n",
                 q.is_laplace() ? "Laplace's method" : "by quadrature", q.minus2ll, grid);
  fmt::format_to(out, "  less the sampled one {:14.4f}   {:.1f} Monte-Carlo errors\n",
                 result.objective.difference, result.objective.difference_in_mc_se);
}

void write_likelihood(sink out, const fit_result& result) {
  const likelihood_estimate& l = result.likelihood;
  if (!l.complete) {
    fmt::format_to(out, "-2 log-likelihood            not computed\n\n");
    return;
  }
  fmt::format_to(out, "-2 log-likelihood      {:14.4f}   Monte-Carlo error {:.4f}\n", l.minus2ll,
                 l.mc_se);
  fmt::format_to(out, "  without N log(2 pi)  {:14.4f}   mean of {} scrambles of {} points\n",
                 result.objective.minus2ll, l.replicates.size(), result.likelihood_samples);
  write_quadrature(out, result);
  fmt::format_to(out, "\n");
}

std::string remark(const fit_result& result, const fixed_effect& t, std::size_t k) {
  if (t.fixed) return "fixed";
  for (const int held : result.held_by_bounds)
    if (held == static_cast<int>(k)) return "held by its bound";
  return "";
}

// Width of the columns that standard errors take.
constexpr const char* error_header = "          SE   RSE %         95 % interval";

std::string error_columns(const std::vector<estimate_error>& errors, int k) {
  if (k < 0 || errors.empty()) return "";
  const estimate_error& e = errors[static_cast<std::size_t>(k)];
  return fmt::format("{:>12.4g} {:>7.1f} {:>10.4g} to {:<10.4g}", e.se, e.rse_percent, e.ci_lower,
                     e.ci_upper);
}

void write_row(sink out, const std::string& name, double value, const std::string& errors,
               const std::string& tail) {
  std::string line = fmt::format("  {:<14} {:>12.6g}{:<44}   {}", name, value, errors, tail);
  line.erase(line.find_last_not_of(' ') + 1);
  fmt::format_to(out, "{}\n", line);
}

void write_header(sink out, const char* first, const char* second, const fit_result& result,
                  const char* tail) {
  const bool with_errors = !result.errors.chosen().empty();
  std::string line =
      fmt::format("{:<16} {:>12}{:<44}   {}", first, second, with_errors ? error_header : "", tail);
  line.erase(line.find_last_not_of(' ') + 1);
  fmt::format_to(out, "{}\n", line);
}

void write_theta(sink out, const population_model& model, const fit_result& result, int theta) {
  const auto k = static_cast<std::size_t>(theta);
  const fixed_effect& t = model.thetas()[k];
  write_row(out, t.name, result.natural_theta(theta),
            error_columns(result.errors.chosen(), result.errors.place_of_theta(theta)),
            remark(result, t, k));
}

void write_fixed_effects(sink out, const population_model& model, const fit_result& result) {
  write_header(out, "Parameter", "estimate", result, "");
  for (std::size_t k = 0; k < model.thetas().size(); ++k)
    if (model.thetas()[k].role != theta_role::residual_deviation)
      write_theta(out, model, result, static_cast<int>(k));
}

// What is not known, or has no meaning for a quantity, is a dash.
std::string per_cent(double share) {
  return std::isfinite(share) ? fmt::format("{:.1f}", 100.0 * share) : "-";
}

void write_omega(sink out, const population_model& model, const fit_result& result) {
  fmt::format_to(out, "\n");
  write_header(out, "Random effect", "variance", result, "  CV %   shrinkage %");
  const auto errors = [&](int i, int j) {
    return error_columns(result.errors.chosen(), result.errors.place_of_omega(i, j));
  };
  const auto name_of = [&](const omega_element& e, int eta) {
    return model.parameter_behind(eta) +
           (model.effects()[static_cast<std::size_t>(e.row())].occasion < 0 ? "" : " (occasion)");
  };
  for (const omega_element& e : model.omega_elements()) {
    if (!e.is_variance()) continue;
    const int i = e.row();
    write_row(out, name_of(e, i), result.omega(i, i), errors(i, i),
              fmt::format("{:>6}   {:>11}{}", per_cent(result.effects.cv(i)),
                          per_cent(result.effects.shrinkage(i)), e.fixed ? "   fixed" : ""));
  }
  for (const omega_element& e : model.omega_elements()) {
    if (e.is_variance()) continue;
    const int i = e.row();
    const int j = e.column();
    write_row(out, model.parameter_behind(j) + "," + name_of(e, i), result.omega(i, j),
              errors(i, j), fmt::format("correlation {:.3f}", result.effects.correlations(i, j)));
  }
}

void write_residual(sink out, const population_model& model, const fit_result& result) {
  fmt::format_to(out, "\n");
  write_header(out, "Residual error", "deviation", result, "");
  for (int k = model.first_of_endpoints(); k < static_cast<int>(model.thetas().size()); ++k)
    write_theta(out, model, result, k);
}

const char* source_of(standard_error_kind kind) {
  switch (kind) {
    case standard_error_kind::information:
      return "the observed information";
    case standard_error_kind::score:
      return "the scores";
    case standard_error_kind::sandwich:
      return "the sandwich";
    case standard_error_kind::none:
      return "nothing";
  }
  return "";
}

void write_errors(sink out, const fit_result& result) {
  const standard_errors& errors = result.errors;
  if (errors.names.empty() && errors.reason.empty()) return;
  if (errors.chosen().empty()) {
    fmt::format_to(out, "\nNo standard errors: {}\n", errors.reason);
    return;
  }
  fmt::format_to(out, "\nStandard errors from {}; correlation of the estimates:\n",
                 source_of(errors.shown));
  for (Eigen::Index i = 0; i < errors.correlation.rows(); ++i) {
    fmt::format_to(out, "  {:<14}", errors.names[static_cast<std::size_t>(i)]);
    for (Eigen::Index j = 0; j <= i; ++j)
      fmt::format_to(out, " {:>6.3f}", errors.correlation(i, j));
    fmt::format_to(out, "\n");
  }
  fmt::format_to(out, "  eigenvalues   ");
  for (const double value : errors.eigenvalues) fmt::format_to(out, " {:.3g}", value);
  fmt::format_to(out, ", condition number {:.4g}\n", errors.condition_number);
  if (!errors.unidentified.empty())
    fmt::format_to(out, "  The data do not identify the direction {}\n", errors.unidentified);
  if (!errors.score.known)
    fmt::format_to(out, "  No errors from the scores: {}\n", errors.score.reason);
}

void write_quality(sink out, const population_model& model, const fit_result& result) {
  if (!result.likelihood.complete) return;
  const sampler_health& sampler = result.sampler;
  const auto id = [&](int i) { return model.data().subjects[static_cast<std::size_t>(i)].id; };
  fmt::format_to(out,
                 "\nSampling: of {} points a subject {:.0f} are effective (median), {:.0f} at the "
                 "least (subject {});\nthe largest weight is {:.2f} % of the total (subject {})",
                 result.likelihood_samples, sampler.median_effective, sampler.least_effective,
                 id(sampler.least_effective_subject), 100.0 * sampler.largest_weight,
                 id(sampler.largest_weight_subject));
  if (result.kept_factors > 0)
    fmt::format_to(out, "; {} times a proposal could not follow its subject", result.kept_factors);
  fmt::format_to(out, ".\nCondition number of omega (as a correlation matrix): {:.4g}\n",
                 result.omega_condition);
}

std::string plural(int count, const char* one, const char* several) {
  return fmt::format("{} {}", count, count == 1 ? one : several);
}

void write_times(sink out, const fit_result& result) {
  const timings& t = result.times;
  fmt::format_to(out,
                 "\nTime: start {:.3f} s, iterations {:.3f} s, likelihood {:.3f} s, quadrature "
                 "{:.3f} s, standard errors {:.3f} s, diagnostics {:.3f} s, total {:.3f} s; {}, {}",
                 t.start, t.iterations, t.likelihood, t.quadrature, t.standard_errors,
                 t.diagnostics, t.total, plural(result.processes, "process", "processes"),
                 plural(result.threads, "thread", "threads"));
  if (result.processes > 1) fmt::format_to(out, " each");
  if (!result.why_one_thread.empty()) fmt::format_to(out, ": {}", result.why_one_thread);
  fmt::format_to(out, "\n");
}

}  // namespace

std::string summary(const population_model& model, const fit_result& result) {
  std::string text;
  const sink out(text);
  const dataset& data = model.data();
  fmt::format_to(out, "varda {}  {} of {}\n", version,
                 result.what == task::fit ? "fit" : "evaluation", model.specification().path);
  if (!model.specification().title.empty())
    fmt::format_to(out, "{}\n", model.specification().title);
  fmt::format_to(out, "{} subjects, {} observations, {} doses ({})\n\n", model.subjects(),
                 data.observations(), data.doses(), data.file);
  write_verdict(out, result);
  write_likelihood(out, result);
  write_fixed_effects(out, model, result);
  write_omega(out, model, result);
  write_residual(out, model, result);
  write_errors(out, result);
  write_quality(out, model, result);
  for (const finding& w : result.warnings) fmt::format_to(out, "\n{}\n", to_text(w));
  write_times(out, result);
  return text;
}

}  // namespace varda
