// SPDX-License-Identifier: Apache-2.0
#include "varda/run/fit.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>

#include "varda/diagnostics/random_effects.h"
#include "varda/inference/e_step.h"
#include "varda/method/em/em.h"
#include "varda/method/em/map_np_steps.h"
#include "varda/method/newton/report.h"
#include "varda/run/diagnose.h"

namespace varda {

namespace {

class stopwatch {
 public:
  // Seconds since the last lap or the start.
  double lap() {
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - last_).count();
    last_ = now;
    return seconds;
  }

 private:
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

// Points a subject for the reported likelihood. A power of two of Sobol points integrates about as
// well as half as many again.
int likelihood_samples(const estimation_settings& settings, task what) {
  if (settings.likelihood_samples > 0) return settings.likelihood_samples;
  if (what == task::evaluate) return settings.samples;
  return std::max(static_cast<int>(std::bit_floor(static_cast<unsigned>(settings.samples))),
                  least_samples);
}

// First proposals at the parameters in force. False when a stop was asked for.
bool propose(engine_host& host, proposals& to) {
  switch (host.model().specification().estimation.start) {
    case start_kind::map:
      return propose_from_modes(host, to);
    case start_kind::presample:
      break;
  }
  return propose_from_presamples(host, to);
}

finding odd_curvatures(const population_model& model, const std::vector<int>& subjects) {
  std::vector<std::string> ids;
  for (const int i : subjects) ids.push_back(model.data().subjects[static_cast<std::size_t>(i)].id);
  return {.level = severity::warning,
          .code = "W-RUN-CURVATURE",
          .message = fmt::format("the curvature at the mode is not positive definite, or all but "
                                 "flat, in {} {}; omega places the grid there",
                                 ids.size() == 1 ? "subject" : "subjects", fmt::join(ids, ", ")),
          .remedy = "raise estimation.agq_nodes until the value settles"};
}

// The quadrature beside the sampled likelihood. Nothing when it is not wanted or a stop came first.
void integrate_besides(engine_host& host, const progress_listener& progress, fit_result& result) {
  const estimation_settings& settings = host.model().specification().estimation;
  if (settings.likelihood != likelihood_kind::agq || !result.likelihood.complete) return;
  stopwatch watch;
  result.quadrature = integrate_by_quadrature(host, settings.agq_nodes, progress);
  result.times.quadrature = watch.lap();
  if (!result.quadrature.placed_by_omega.empty())
    result.warnings.push_back(odd_curvatures(host.model(), result.quadrature.placed_by_omega));
  if (result.quadrature.complete) return;
  result.converged = false;
  result.reason = stop_reason;
}

void take_estimates(const engine_host& host, fit_result& result) {
  result.theta = host.theta();
  result.omega = host.omega();
  result.omega_condition = condition_of_correlations(result.omega);
  result.processes = host.peers().size();
}

void note_stop(fit_result& result) {
  result.converged = false;
  result.reason = stop_reason;
}

// The likelihood at the parameters in force from proposals that rest, and the quadrature beside it.
void conclude(engine_host& host, const proposals& frozen, const progress_listener& progress,
              fit_result& result) {
  stopwatch watch;
  take_estimates(host, result);
  result.kept_factors = frozen.kept_factors();
  result.likelihood_samples =
      likelihood_samples(host.model().specification().estimation, result.what);
  result.likelihood = estimate_likelihood(host, frozen, result.likelihood_samples,
                                          host.model().specification().estimation.replicates);
  if (!result.likelihood.complete) note_stop(result);
  result.times.likelihood = watch.lap();
  integrate_besides(host, progress, result);
}

void finish(const engine_host& host, const progress_listener& progress, fit_result& result) {
  stopwatch watch;
  result.evaluations = host.evaluations();
  diagnose(host.model(), host.peers(), progress, result);
  result.times.diagnostics = watch.lap();
}

}  // namespace

void check_fit(const population_model& model) {
  check_grid(model);
}

namespace {

// Steps until the method has ended. False when a stop was asked for.
bool take_steps(const estimation_method& method, int most, const progress_listener& progress,
                run_state& state) {
  while (!state.ended) {
    if (!method.step(state)) return false;
    const iteration_record& last = state.records.back();
    progress({.stage = run_stage::iterations,
              .step = last.iteration,
              .of = most,
              .minus2ll = last.minus2ll});
  }
  return true;
}

void take_conclusion(const estimation_method& method, const run_state& state, bool went_through,
                     fit_result& result) {
  const method_conclusion end = method.conclude(state);
  result.iterations = state.records;
  result.converged = went_through && end.converged;
  result.reason = went_through ? end.reason : stop_reason;
  result.singular = end.singular;
  result.held_by_bounds = end.held_by_bounds;
  if (!end.indistinct.empty())
    result.warnings.push_back(
        {.level = severity::warning,
         .code = "W-RUN-INDISTINCT",
         .message = fmt::format("the data do not tell {} from 0", fmt::join(end.indistinct, ", ")),
         .remedy = "read its estimate and standard error with care, or leave the random effect "
                   "out"});
}

bool wants_errors(const fit_result& result, const estimation_settings& settings) {
  return settings.standard_errors != standard_error_kind::none && result.likelihood.complete;
}

void keep_errors(standard_errors&& errors, fit_result& result) {
  result.errors = std::move(errors);
  result.warnings.insert(result.warnings.end(), result.errors.warnings.begin(),
                         result.errors.warnings.end());
}

// Randomisations of the report take so many points a subject at first and at most, until the error
// of -2 log-likelihood is as small as this for up to so many subjects, and in proportion to the
// square root of their number beyond.
constexpr int first_report_samples = 512;
constexpr int most_report_samples = 4096;
constexpr double error_goal = 0.1;
constexpr double subjects_of_goal = 200.0;
// The report's points, none of which a fit has used, must not promise more than this.
constexpr double most_gain_at_report = 0.05;

double likelihood_goal(const population_model& model) {
  return error_goal * std::sqrt(std::max(1.0, model.subjects() / subjects_of_goal));
}

// The likelihood from points that nothing was tuned on, as many as its error needs.
newton_report report_likelihood(engine_host& host, const newton_method& method, run_state& state,
                                fit_result& result) {
  const estimation_settings& settings = host.model().specification().estimation;
  const bool automatic = settings.likelihood_samples == 0;
  int samples = automatic ? first_report_samples : settings.likelihood_samples;
  if (automatic && result.what == task::evaluate) samples = std::max(samples, settings.samples);
  const double goal = likelihood_goal(host.model());
  newton_report report = report_at(host, method, state, settings.replicates, samples);
  while (automatic && report.likelihood.complete && report.likelihood.mc_se > goal &&
         2 * samples <= most_report_samples) {
    samples *= 2;
    report = report_at(host, method, state, settings.replicates, samples);
  }
  result.likelihood = report.likelihood;
  result.likelihood_samples = samples;
  if (report.likelihood.complete && report.likelihood.mc_se > goal)
    result.warnings.push_back(
        {.level = severity::warning,
         .code = "W-RUN-LIKELIHOOD",
         .message =
             fmt::format("the Monte Carlo error of -2 log-likelihood, {:.2g}, is above {:.2g}",
                         report.likelihood.mc_se, goal),
         .remedy = fmt::format("set estimation.likelihood_samples to about {:.0f}",
                               samples * std::ceil(std::pow(report.likelihood.mc_se / goal, 2)))});
  return report;
}

std::vector<std::string> ids_of(const population_model& model, const std::vector<int>& subjects) {
  std::vector<std::string> ids;
  for (const int i : subjects) ids.push_back(model.data().subjects[static_cast<std::size_t>(i)].id);
  return ids;
}

// No verdict stands on subjects that are badly sampled.
void judge_health(const population_model& model, const newton_report& report, fit_result& result) {
  if (!result.converged || report.sick.empty()) return;
  result.converged = false;
  result.reason = fmt::format("poorly sampled: {}; {}", fmt::join(ids_of(model, report.sick), ", "),
                              result.reason);
}

void judge_gain(const newton_report& report, fit_result& result) {
  if (!result.converged || report.gain - report.noise <= most_gain_at_report) return;
  result.converged = false;
  result.reason = fmt::format(
      "points that the fit has not used see {:.2g} still ahead in -2 log-likelihood; {}",
      report.gain - report.noise, result.reason);
}

// The verdict of another method is held to the same test.
void judge_by_fresh_points(engine_host& host, fit_result& result) {
  const newton_method method(host);
  run_state state;
  method.begin(state);
  if (!method.settle(state)) return note_stop(result);
  const newton_report report =
      report_at(host, method, state, host.model().specification().estimation.replicates,
                first_report_samples);
  if (!report.likelihood.complete) return;
  judge_health(host.model(), report, result);
  judge_gain(report, result);
}

// An evaluation is sound where every subject is well sampled and the likelihood known well enough.
void judge_evaluation(const population_model& model, const newton_report& report,
                      fit_result& result) {
  const std::vector<std::string> sick = ids_of(model, report.sick);
  const double goal = likelihood_goal(model);
  result.converged = result.likelihood.complete && sick.empty() && result.likelihood.mc_se <= goal;
  if (!result.likelihood.complete)
    result.reason =
        engine_host::stopped() ? stop_reason : "the likelihood of a subject is not finite";
  else if (!sick.empty())
    result.reason = fmt::format("poorly sampled: {}", fmt::join(sick, ", "));
  else
    result.reason =
        fmt::format("every subject is well sampled; Monte Carlo error {:.2g}, goal {:.2g}",
                    result.likelihood.mc_se, goal);
}

void fit_by_em(engine_host& host, const progress_listener& progress, fit_result& result) {
  const estimation_settings& settings = host.model().specification().estimation;
  stopwatch watch;
  const em_method method(host);
  run_state state;
  bool going = settings.map_np <= 0 || start_by_map_np(host);
  state.adaptive = proposals(host.model(), host.omega());
  going = going && propose(host, state.adaptive);
  method.begin(state);
  result.times.start = watch.lap();
  going = going && take_steps(method, settings.max_iterations, progress, state);
  result.times.iterations = watch.lap();
  take_conclusion(method, state, going, result);
  conclude(host, state.adaptive, progress, result);
  if (result.converged) judge_by_fresh_points(host, result);
  if (!result.singular.empty()) {
    result.errors.shown = settings.standard_errors;
    result.errors.reason = "omega is becoming singular";
  } else if (wants_errors(result, settings)) {
    watch.lap();
    keep_errors(estimate_standard_errors(host, state.adaptive, progress), result);
    result.times.standard_errors = watch.lap();
  }
}

void fit_by_newton(engine_host& host, const progress_listener& progress, fit_result& result) {
  const estimation_settings& settings = host.model().specification().estimation;
  stopwatch watch;
  const newton_method method(host);
  run_state state;
  bool going = settings.map_np <= 0 || start_by_map_np(host);
  method.begin(state);
  if (going && !state.ended) going = method.step(state);
  result.times.start = watch.lap();
  going = going && take_steps(method, settings.max_iterations, progress, state);
  result.times.iterations = watch.lap();
  take_conclusion(method, state, going, result);
  take_estimates(host, result);

  const newton_report report = report_likelihood(host, method, state, result);
  result.times.likelihood = watch.lap();
  if (!result.likelihood.complete) {
    if (engine_host::stopped()) return note_stop(result);
    result.converged = false;
    result.reason += "; the likelihood of a subject is not finite at the estimates";
  }
  judge_health(host.model(), report, result);
  judge_gain(report, result);
  integrate_besides(host, progress, result);
  if (!result.singular.empty()) {
    result.errors.shown = settings.standard_errors;
    result.errors.reason = "omega is singular";
  } else if (wants_errors(result, settings)) {
    watch.lap();
    keep_errors(errors_from(host, report.information, report.scores), result);
    result.times.standard_errors = watch.lap();
  }
}

}  // namespace

fit_result fit(engine_host& host, const progress_listener& progress) {
  fit_result result;
  result.what = task::fit;
  switch (host.model().specification().estimation.method) {
    case method_kind::newton:
      fit_by_newton(host, progress, result);
      break;
    case method_kind::em:
      fit_by_em(host, progress, result);
      break;
  }
  finish(host, progress, result);
  return result;
}

fit_result evaluate(engine_host& host, const progress_listener& progress) {
  fit_result result;
  result.what = task::evaluate;
  stopwatch watch;
  const newton_method method(host);
  run_state state;
  method.begin(state);
  const bool going = method.settle(state);
  result.times.start = watch.lap();
  result.iterations = state.records;
  take_estimates(host, result);
  result.reason = stop_reason;
  if (going) {
    const newton_report report = report_likelihood(host, method, state, result);
    result.times.likelihood = watch.lap();
    judge_evaluation(host.model(), report, result);
    integrate_besides(host, progress, result);
  }
  finish(host, progress, result);
  return result;
}

}  // namespace varda
