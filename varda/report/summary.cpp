// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "varda/report/reports.h"
#include "varda/support/commit.h"
#include "varda/support/text.h"
#include "varda/version.h"

namespace varda {

namespace {

using sink = std::back_insert_iterator<std::string>;

void write_verdict(sink out, const fit_result& result) {
  if (result.what == task::evaluate)
    fmt::format_to(out, "{}\n\n",
                   wrapped(fmt::format("{}: {}", result.converged ? "Evaluated" : "NOT RELIABLE",
                                       result.reason),
                           2));
  else
    fmt::format_to(out, "{} after {}\n{}\n\n",
                   result.converged           ? "Converged"
                   : !result.singular.empty() ? "OMEGA IS SINGULAR"
                                              : "NOT CONVERGED",
                   count_of(std::ssize(result.iterations), "iteration"),
                   wrapped("  " + result.reason, 2));
}

void write_quadrature(sink out, const fit_result& result) {
  const quadrature_estimate& q = result.quadrature;
  if (!q.complete) return;
  const std::string grid = q.is_laplace()
                               ? "mode and curvature of every subject"
                               : fmt::format("{} per random effect, {}", count_of(q.nodes, "node"),
                                             count_of(q.points, "point"));
  fmt::format_to(out, "  {:<20} {:14.4f}   {}\n",
                 q.is_laplace() ? "Laplace's method" : "by quadrature", q.minus2ll, grid);
  fmt::format_to(out, "  minus sampled value  {:14.4f}   {:.1f} Monte Carlo errors\n",
                 result.objective.difference, result.objective.difference_in_mc_se);
}

void write_likelihood(sink out, const fit_result& result) {
  const likelihood_estimate& l = result.likelihood;
  if (!l.complete) {
    fmt::format_to(out, "-2 log-likelihood            not computed\n\n");
    return;
  }
  fmt::format_to(out, "-2 log-likelihood      {:14.4f}   Monte Carlo error {:.4f}\n", l.minus2ll,
                 l.mc_se);
  fmt::format_to(out, "  without N log(2 pi)  {:14.4f}   {} randomisations x {} points\n",
                 result.objective.minus2ll, l.replicates.size(), result.likelihood_samples);
  write_quadrature(out, result);
  const objective_figures& o = result.objective;
  fmt::format_to(out, "  AIC                  {:14.4f}   {} estimated parameters\n", o.aic,
                 o.estimated);
  fmt::format_to(out, "  BIC (observations)   {:14.4f}\n", o.bic_observations);
  fmt::format_to(out, "  BIC (subjects)       {:14.4f}\n", o.bic_subjects);
  fmt::format_to(out, "\n");
}

std::string remark(const fit_result& result, const fixed_effect& t, std::size_t k) {
  if (t.fixed) return "fixed";
  for (const int held : result.held_by_bounds)
    if (held == static_cast<int>(k)) return "at bound";
  return "";
}

// A name and its estimate leave these columns to the standard errors, and those the last of 80 to
// remarks.
constexpr std::size_t name_width = 13;
constexpr std::size_t errors_width = 41;
constexpr const char* error_header = "        SE  RSE %        95 % interval";

std::string error_columns(const std::vector<estimate_error>& errors, int k, bool without) {
  if (without && !errors.empty()) return "         -   not identified by the data";
  if (k < 0 || errors.empty()) return "";
  const estimate_error& e = errors[static_cast<std::size_t>(k)];
  return fmt::format("{:>10.4g} {:>6.1f}  {:>9.4g} to {:<9.4g}", e.se, e.rse_percent, e.ci_lower,
                     e.ci_upper);
}

void write_line(sink out, std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  fmt::format_to(out, "{}\n", line);
}

// A long name has a line of its own.
std::string name_column(const std::string& name) {
  if (name.size() <= name_width) return fmt::format("  {:<{}}", name, name_width);
  return fmt::format("  {}\n{:<{}}", name, "", name_width + 2);
}

void write_row(sink out, const std::string& name, double value, const std::string& errors,
               const std::string& tail) {
  const std::string figures = name_column(name) + fmt::format(" {:>10.6g}", value);
  if (errors.empty() && (tail == "fixed" || tail == "at bound"))
    return write_line(out, fmt::format("{} {:>9}", figures, tail));
  write_line(out, fmt::format("{}{:<{}} {}", figures, errors, errors_width, tail));
}

void write_header(sink out, const char* first, const char* second, const fit_result& result,
                  const char* tail) {
  const bool with_errors = !result.errors.chosen().empty();
  write_line(out, fmt::format("{:<{}} {:>10}{:<{}} {}", first, name_width + 2, second,
                              with_errors ? error_header : "", errors_width, tail));
}

void write_theta(sink out, const population_model& model, const fit_result& result, int theta) {
  const auto k = static_cast<std::size_t>(theta);
  const fixed_effect& t = model.thetas()[k];
  write_row(out, t.name, result.natural_theta(theta),
            error_columns(result.errors.chosen(), result.errors.place_of_theta(theta),
                          result.errors.without_error_theta(theta)),
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
  write_header(out, "Random effect", "variance", result, " CV %  shr %");
  const auto errors = [&](int i, int j) {
    return error_columns(result.errors.chosen(), result.errors.place_of_omega(i, j),
                         result.errors.without_error_omega(i, j));
  };
  const auto name_of = [&](const omega_element& e, int eta) {
    return model.parameter_behind(eta) +
           (model.effects()[static_cast<std::size_t>(e.row())].occasion < 0 ? "" : " (occasion)");
  };
  for (const omega_element& e : model.omega_elements()) {
    if (!e.is_variance()) continue;
    const int i = e.row();
    write_row(out, name_of(e, i), result.omega(i, i), errors(i, i),
              e.fixed ? "fixed"
                      : fmt::format("{:>5}  {:>5}", per_cent(result.effects.cv(i)),
                                    per_cent(result.effects.shrinkage(i))));
  }
  for (const omega_element& e : model.omega_elements()) {
    if (e.is_variance()) continue;
    const int i = e.row();
    const int j = e.column();
    write_row(out, model.parameter_behind(j) + "," + name_of(e, i), result.omega(i, j),
              errors(i, j), fmt::format("corr {:.3f}", result.effects.correlations(i, j)));
  }
}

// What the parameters of the residual errors are: deviations, and with Student's t scales. The
// exponent of a power error is neither.
const char* residual_heading(const population_model& model) {
  int scales = 0;
  int normal = 0;
  for (const endpoint& of : model.specification().endpoints) {
    if (!of.is_normal()) continue;
    if (of.residual.kind == error_kind::power) return "estimate";
    ++normal;
    if (of.residual.degrees_of_freedom > 0.0) ++scales;
  }
  return scales == 0 ? "SD" : scales == normal ? "scale" : "SD / scale";
}

void write_residual(sink out, const population_model& model, const fit_result& result) {
  if (model.observed().parameters().empty()) return;
  fmt::format_to(out, "\n");
  write_header(out, "Residual error", residual_heading(model), result, "");
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
      return "the sandwich estimator";
    case standard_error_kind::none:
      return "nothing";
  }
  return "";
}

// The lower triangle, its columns in blocks that fit on a page.
void write_correlations(sink out, const standard_errors& errors) {
  constexpr std::size_t block = 9;
  // Those that have errors.
  std::vector<Eigen::Index> own;
  for (Eigen::Index k = 0; k < errors.correlation.rows(); ++k)
    if (std::isfinite(errors.correlation(k, k))) own.push_back(k);
  const auto name = [&](std::size_t k) -> const std::string& {
    return errors.names[static_cast<std::size_t>(own[k])];
  };
  for (std::size_t first = 0; first < own.size(); first += block) {
    if (own.size() > block)
      fmt::format_to(out, "  with {} to {}\n", name(first),
                     name(std::min(first + block, own.size()) - 1));
    for (std::size_t i = first; i < own.size(); ++i) {
      std::string line = name_column(name(i)) + " ";
      for (std::size_t j = first; j <= std::min(i, first + block - 1); ++j)
        line += fmt::format(" {:>6.3f}", errors.correlation(own[i], own[j]));
      fmt::format_to(out, "{}\n", line);
    }
  }
}

void write_errors(sink out, const fit_result& result) {
  const standard_errors& errors = result.errors;
  if (errors.names.empty() && errors.reason.empty()) return;
  if (errors.chosen().empty()) {
    fmt::format_to(out, "\n{}\n", wrapped("No standard errors: " + errors.reason, 2));
    return;
  }
  if (errors.eigenvalues.size() == 0) {
    fmt::format_to(out, "\nNo standard errors: the data identify none of the parameters.\n");
    return;
  }
  fmt::format_to(out, "\nStandard errors from {}. Correlation of the estimates:\n",
                 source_of(errors.shown));
  write_correlations(out, errors);
  std::string spectrum = "  eigenvalues   ";
  for (const double value : errors.eigenvalues) spectrum += fmt::format(" {:.3g}", value);
  fmt::format_to(
      out, "{}\n",
      wrapped(fmt::format("{}, condition number {:.4g}", spectrum, errors.condition_number), 17));
  if (!errors.unidentified.empty())
    fmt::format_to(out, "{}\n",
                   wrapped("  The data do not identify the direction " + errors.unidentified, 4));
  if (errors.shown != standard_error_kind::score)
    for (const std::string& names : errors.from_scores)
      fmt::format_to(out, "{}\n",
                     wrapped(fmt::format("  Along {} the subjects' scores replace the information, "
                                         "whose sampling error is too large there",
                                         names),
                             4));
  if (!errors.score.known)
    fmt::format_to(out, "{}\n",
                   wrapped("  No standard errors from the scores: " + errors.score.reason, 4));
}

void write_quality(sink out, const population_model& model, const fit_result& result) {
  if (!result.likelihood.complete) return;
  const sampler_health& sampler = result.sampler;
  const auto id = [&](int i) { return model.data().subjects[static_cast<std::size_t>(i)].id; };
  std::string text = fmt::format(
      "Sampling: effective sample size of {}{}: median {:.0f}, minimum {:.0f} (subject {}); "
      "largest weight {:.2f} % of the total (subject {})",
      result.likelihood_samples,
      sampler.subjects_with_more > 0 ? fmt::format(" (up to {} in {})", sampler.most_points,
                                                   count_of(sampler.subjects_with_more, "subject"))
                                     : "",
      sampler.median_effective, sampler.least_effective, id(sampler.least_effective_subject),
      100.0 * sampler.largest_weight, id(sampler.largest_weight_subject));
  if (sampler.shaped)
    text += fmt::format("; largest Pareto k {:.2f} (subject {})", sampler.largest_shape,
                        id(sampler.largest_shape_subject));
  if (result.kept_factors > 0)
    text += fmt::format("; proposal kept {} (too few effective samples)",
                        count_of(result.kept_factors, "time"));
  fmt::format_to(out, "\n{}.\n", wrapped(text, 2));
  if (!result.health.empty()) {
    std::vector<std::string> sick;
    for (const int i : sampler.sick) sick.push_back(id(i));
    fmt::format_to(
        out, "{}\n",
        wrapped(fmt::format("Poorly sampled subjects: {}.",
                            sick.empty() ? "none" : fmt::format("{}", fmt::join(sick, ", "))),
                2));
  }
  fmt::format_to(out, "Condition number of omega, scaled to a correlation matrix: {:.4g}\n",
                 result.omega_condition);
}

// The first digits tell files apart; fit.json has all of them.
void write_source(sink out, const population_model& model, const fit_result& result) {
  constexpr int shown = 12;
  fmt::format_to(out, "\nSeed {}; SHA-256 of the model file {:.{}}, of the data {:.{}}\n",
                 model.specification().estimation.seed, result.source.model_sha256, shown,
                 result.source.data_sha256, shown);
  if (*commit() != '\0') fmt::format_to(out, "varda {}, commit {}\n", version, commit());
}

// The maxima that the fits from several start values found, each with the fits that ended there.
void write_starts(sink out, const fit_result& result) {
  if (result.starts.empty()) return;
  constexpr double same = 0.1;  // in -2 log-likelihood
  std::vector<const start_record*> ordered;
  for (const start_record& s : result.starts) ordered.push_back(&s);
  std::stable_sort(ordered.begin(), ordered.end(), [](const auto* a, const auto* b) {
    return a->minus2ll < b->minus2ll || (std::isfinite(a->minus2ll) && !std::isfinite(b->minus2ll));
  });
  const auto verdict = [](const start_record& s) {
    return s.converged ? "converged" : !s.singular.empty() ? "singular" : "not converged";
  };
  fmt::format_to(out, "\nMaxima from {} sets of start values\n  {:>17}  {:<14} {:>6}   start\n",
                 result.starts.size(), "-2 log-likelihood", "verdict", "fits");
  for (std::size_t k = 0; k < ordered.size();) {
    const start_record& first = *ordered[k];
    std::vector<int> numbers;
    bool kept = false;
    std::size_t next = k;
    for (; next < ordered.size(); ++next) {
      const start_record& s = *ordered[next];
      const bool alike = std::isfinite(first.minus2ll) ? s.minus2ll - first.minus2ll <= same
                                                       : !std::isfinite(s.minus2ll);
      if (!alike || std::string(verdict(s)) != verdict(first)) break;
      numbers.push_back(s.number);
      kept = kept || s.kept;
    }
    std::sort(numbers.begin(), numbers.end());
    const std::string value =
        std::isfinite(first.minus2ll) ? fmt::format("{:.4f}", first.minus2ll) : "not computed";
    fmt::format_to(out, "  {:>17}  {:<14} {:>6}   {}{}\n", value, verdict(first), numbers.size(),
                   fmt::join(numbers, ", "), kept ? " (kept)" : "");
    k = next;
  }
  fmt::format_to(out, "  Start 0 is the model file's.\n");
}

std::string left_out(const dataset& data) {
  if (data.left_out == 0) return "";
  return fmt::format("; {} of {} rows excluded (keep, drop)", data.left_out,
                     data.left_out + data.records);
}

void write_times(sink out, const fit_result& result) {
  const timings& t = result.times;
  std::string text = fmt::format(
      "Time: start {:.3f} s, iterations {:.3f} s, likelihood {:.3f} s, quadrature {:.3f} s, "
      "standard errors {:.3f} s, diagnostics {:.3f} s, total {:.3f} s; {}, {}",
      t.start, t.iterations, t.likelihood, t.quadrature, t.standard_errors, t.diagnostics, t.total,
      count_of(result.processes, "process", "processes"), count_of(result.threads, "thread"));
  if (result.processes > 1) text += " each";
  if (result.sessions > 1) text += fmt::format("; in {} sessions", result.sessions);
  if (!result.why_one_thread.empty()) text += ": " + result.why_one_thread;
  fmt::format_to(out, "\n{}\n", wrapped(text, 2));
}

}  // namespace

std::string summary(const population_model& model, const fit_result& result) {
  std::string text;
  const sink out(text);
  const dataset& data = model.data();
  fmt::format_to(out, "varda {}  {} of {}\n", version,
                 result.what == task::fit ? "fit" : "evaluation", model.specification().path);
  if (!model.specification().title.empty())
    fmt::format_to(out, "{}\n", wrapped(model.specification().title, 2));
  fmt::format_to(out, "{}\n\n",
                 wrapped(fmt::format("{}, {}, {} ({}){}", count_of(model.subjects(), "subject"),
                                     count_of(data.observations(), "observation"),
                                     count_of(data.doses(), "dose"), data.file, left_out(data)),
                         2));
  write_verdict(out, result);
  write_likelihood(out, result);
  write_fixed_effects(out, model, result);
  write_omega(out, model, result);
  write_residual(out, model, result);
  write_errors(out, result);
  write_quality(out, model, result);
  write_starts(out, result);
  for (const finding& w : result.warnings) fmt::format_to(out, "\n{}\n", to_lines(w));
  write_source(out, model, result);
  write_times(out, result);
  return text;
}

}  // namespace varda
