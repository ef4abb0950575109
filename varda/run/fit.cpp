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

// Pilot passes of an evaluation: the moments have settled when the objective has.
constexpr int most_pilot_passes = 10;
constexpr double pilot_tolerance = 0.01;

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
}

bool wants_errors(const fit_result& result, const estimation_settings& settings) {
  return settings.standard_errors != standard_error_kind::none && result.likelihood.complete;
}

void keep_errors(standard_errors&& errors, fit_result& result) {
  result.errors = std::move(errors);
  result.warnings.insert(result.warnings.end(), result.errors.warnings.begin(),
                         result.errors.warnings.end());
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
  if (!result.singular.empty()) {
    result.errors.shown = settings.standard_errors;
    result.errors.reason = "omega is becoming singular";
  } else if (wants_errors(result, settings)) {
    watch.lap();
    keep_errors(estimate_standard_errors(host, state.adaptive, progress), result);
    result.times.standard_errors = watch.lap();
  }
}

// Randomisations of the report take so many points a subject at first and at most, until the error
// of -2 log-likelihood is as small as this for up to so many subjects, and in proportion to the
// square root of their number beyond.
constexpr int first_report_samples = 512;
constexpr int most_report_samples = 4096;
constexpr double error_goal = 0.1;
constexpr double subjects_of_goal = 200.0;
// The report's points, none of which the fit has used, must not promise more than this.
constexpr double most_gain_at_report = 0.05;

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

  int samples =
      settings.likelihood_samples > 0 ? settings.likelihood_samples : first_report_samples;
  const double goal =
      error_goal * std::sqrt(std::max(1.0, host.model().subjects() / subjects_of_goal));
  newton_report report = report_at(host, method, state, settings.replicates, samples);
  while (report.likelihood.complete && settings.likelihood_samples == 0 &&
         report.likelihood.mc_se > goal && 2 * samples <= most_report_samples) {
    samples *= 2;
    report = report_at(host, method, state, settings.replicates, samples);
  }
  result.likelihood = report.likelihood;
  result.likelihood_samples = samples;
  result.times.likelihood = watch.lap();
  if (!result.likelihood.complete) {
    if (engine_host::stopped()) return note_stop(result);
    result.converged = false;
    result.reason += "; the likelihood of a subject is not finite at the estimates";
  } else if (result.converged && report.gain - report.noise > most_gain_at_report) {
    result.converged = false;
    result.reason = fmt::format(
        "the points of the reported likelihood see {:.2g} still ahead in -2 log-likelihood; {}",
        report.gain - report.noise, result.reason);
  }
  if (result.likelihood.complete && result.likelihood.mc_se > goal)
    result.warnings.push_back(
        {.level = severity::warning,
         .code = "W-RUN-LIKELIHOOD",
         .message =
             fmt::format("the Monte Carlo error of -2 log-likelihood, {:.2g}, is above {:.2g}",
                         result.likelihood.mc_se, goal),
         .remedy = fmt::format("set estimation.likelihood_samples to about {:.0f}",
                               samples * std::ceil(std::pow(result.likelihood.mc_se / goal, 2)))});
  integrate_besides(host, progress, result);
  if (!result.singular.empty()) {
    result.errors.shown = settings.standard_errors;
    result.errors.reason = "omega is singular, or cannot be told from a singular one";
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

  const int samples = likelihood_samples(host.model().specification().estimation, task::evaluate);
  proposals adaptive(host.model(), host.omega());
  bool complete = propose(host, adaptive);
  double last = 0.0;
  bool settled = false;
  e_step found;
  for (int pass = 1; pass <= most_pilot_passes && complete && !settled; ++pass) {
    integrate_all(host, adaptive, {point_pass::purpose::iteration, 0}, samples, found);
    complete = found.complete;
    if (!complete) break;
    for (int i = 0; i < host.model().subjects(); ++i) {
      const subject_integral& s = found.subjects[static_cast<std::size_t>(i)];
      if (host.model().observations(i) > 0)
        adaptive.follow(i, s.mean, s.covariance, s.effective_samples);
    }
    const double minus2ll = -2.0 * found.log_likelihood;
    settled = pass > 1 && std::fabs(minus2ll - last) < pilot_tolerance;
    last = minus2ll;
    result.iterations.push_back({pass, minus2ll, host.theta(), host.omega()});
    progress({.stage = run_stage::pilot_passes,
              .step = pass,
              .of = most_pilot_passes,
              .minus2ll = minus2ll});
  }
  result.times.start = watch.lap();
  result.converged = settled;
  result.reason =
      settled ? fmt::format("the proposals settled in {} pilot passes", result.iterations.size())
              : fmt::format("the proposals did not settle in {} pilot passes", most_pilot_passes);
  if (!complete) result.reason = stop_reason;
  conclude(host, adaptive, progress, result);
  finish(host, progress, result);
  return result;
}

}  // namespace varda
