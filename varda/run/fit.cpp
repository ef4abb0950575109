// SPDX-License-Identifier: Apache-2.0
#include "varda/run/fit.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

#include "varda/diagnostics/random_effects.h"
#include "varda/inference/dispersed_start.h"
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

// Randomisations of the report take so many points a subject at first and at most, until the error
// of -2 log-likelihood is as small as this for up to so many subjects, and in proportion to the
// square root of their number beyond.
constexpr int first_report_samples = 512;  // for up to four random effects
constexpr int most_report_samples = 4096;
constexpr double error_goal = 0.1;
constexpr double subjects_of_goal = 200.0;
// The report's points, none of which a fit has used, must not promise more than this.
constexpr double most_gain_at_report = 0.05;
// What is ahead of estimates that lie a standard error from the maximum.
constexpr double most_gain_for_errors = 1.0;

double likelihood_goal(const population_model& model) {
  return error_goal * std::sqrt(std::max(1.0, model.subjects() / subjects_of_goal));
}

// The likelihood from points that nothing was tuned on, as many as its error needs.
newton_report report_likelihood(engine_host& host, const newton_method& method, run_state& state,
                                fit_result& result) {
  const estimation_settings& settings = host.model().specification().estimation;
  const bool automatic = settings.likelihood_samples == 0;
  const int factor = points_factor(host.model().random_effects());
  int samples = automatic ? factor * first_report_samples : settings.likelihood_samples;
  if (automatic && result.what == task::evaluate) samples = std::max(samples, settings.samples);
  const double goal = likelihood_goal(host.model());
  newton_report report = report_at(host, method, state, settings.replicates, samples);
  while (automatic && report.likelihood.complete && report.likelihood.mc_se > goal &&
         2 * samples <= factor * most_report_samples) {
    samples *= 2;
    report = report_at(host, method, state, settings.replicates, samples);
  }
  result.likelihood = report.likelihood;
  result.likelihood_samples = samples;
  result.health = report.health;
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

// Subjects that a figure of their health speaks of.
template <class Test>
std::vector<int> subjects_with(const newton_report& report, Test test) {
  std::vector<int> result;
  for (std::size_t i = 0; i < report.health.size(); ++i)
    if (test(report.health[i])) result.push_back(static_cast<int>(i));
  return result;
}

std::vector<int> sick_subjects(const newton_report& report) {
  return subjects_with(report, [](const subject_health& h) { return h.sick; });
}

// The one that fails most, in words; empty where none fails too often.
std::string too_many_failures(const population_model& model, const newton_report& report) {
  const auto worst = std::max_element(
      report.health.begin(), report.health.end(),
      [](const subject_health& a, const subject_health& b) { return a.failed < b.failed; });
  if (worst == report.health.end() || worst->failed <= most_failures) return "";
  return fmt::format(
      "the model cannot be evaluated at {:.0f} % of the samples that matter of subject {}",
      100.0 * worst->failed,
      model.data().subjects[static_cast<std::size_t>(worst - report.health.begin())].id);
}

void warn_of_failures(const population_model& model, const newton_report& report,
                      fit_result& result) {
  constexpr double mentioned = 0.001;
  const std::vector<int> failing =
      subjects_with(report, [](const subject_health& h) { return h.failed > mentioned; });
  if (failing.empty()) return;
  std::vector<std::string> list;
  for (const int i : failing)
    list.push_back(fmt::format("{} ({:.1f} %)",
                               model.data().subjects[static_cast<std::size_t>(i)].id,
                               100.0 * report.health[static_cast<std::size_t>(i)].failed));
  result.warnings.push_back(
      {.level = severity::warning,
       .code = "W-RUN-FAILED",
       .message = fmt::format("the model cannot be evaluated at samples in the bulk of the "
                              "conditional distribution of {} {}; they count as impossible",
                              list.size() == 1 ? "subject" : "subjects", fmt::join(list, ", ")),
       .remedy = "look for a logarithm, a root or a division that fails there, or for a solver "
                 "that gives up"});
}

void put_first(const std::string& what, fit_result& result) {
  result.reason = result.reason.empty() ? what : what + "; " + result.reason;
}

void refuse(const std::string& why, fit_result& result) {
  result.converged = false;
  put_first(why, result);
}

// No verdict stands on subjects that are badly sampled or cannot be evaluated.
void judge_health(const population_model& model, const newton_report& report, fit_result& result) {
  if (!result.converged) return;
  const std::vector<int> sick = sick_subjects(report);
  const std::string failures = too_many_failures(model, report);
  if (!sick.empty())
    refuse(fmt::format("poorly sampled: {}", fmt::join(ids_of(model, sick), ", ")), result);
  if (!failures.empty()) refuse(failures, result);
}

// Nor on parameters that could be anything.
void judge_identification(const newton_report& report, fit_result& result) {
  result.unidentified = report.unidentified;
  for (const std::string& names : report.unidentified)
    refuse(names.find(',') == std::string::npos
               ? fmt::format("the data say nothing of {}", names)
               : fmt::format("the data do not tell {} apart", names),
           result);
}

// What is ahead of estimates that converged, by points that the fit has not used.
void judge_gain(const newton_report& report, fit_result& result) {
  if (!result.converged) return;
  if (report.gain - report.noise > most_gain_at_report)
    return refuse(
        fmt::format("points that the fit has not used see {:.2g} still ahead in -2 log-likelihood",
                    report.gain - report.noise),
        result);
  put_first(fmt::format("gain ahead {:.2g} +- {:.2g} in -2 log-likelihood on points that the fit "
                        "has not used",
                        report.gain, report.noise),
            result);
}

void take_errors(engine_host& host, const newton_report& report, fit_result& result) {
  const standard_error_kind wanted = host.model().specification().estimation.standard_errors;
  if (wanted == standard_error_kind::none || !result.likelihood.complete) return;
  result.errors.shown = wanted;
  if (!result.singular.empty()) {
    result.errors.reason = "omega is singular";
    return;
  }
  if (report.gain - report.noise > most_gain_for_errors) {
    result.errors.reason = "the estimates are not at a maximum";
    return;
  }
  result.errors = errors_from(host, report.errors);
  result.warnings.insert(result.warnings.end(), result.errors.warnings.begin(),
                         result.errors.warnings.end());
}

// Absorption slower than elimination: the maximum may be one of two that exchange their names.
void warn_of_flip_flop(const population_model& model, fit_result& result) {
  const auto estimate = [&](const char* name) {
    const std::vector<parameter>& list = model.specification().parameters;
    const auto at =
        std::find_if(list.begin(), list.end(), [&](const parameter& p) { return p.name == name; });
    if (at == list.end()) return std::numeric_limits<double>::quiet_NaN();
    const auto k = static_cast<std::size_t>(at - list.begin());
    return model.thetas()[k].natural(result.theta(static_cast<Eigen::Index>(k)));
  };
  const auto first = [](double one, double other) { return std::isfinite(one) ? one : other; };
  const double volume = first(estimate("V"), estimate("V1"));
  const double elimination = first(estimate("CL") / volume, estimate("k"));
  const double absorption = estimate("ka");
  // False as well where the model has no such parameters.
  if (!(absorption < elimination)) return;
  result.warnings.push_back(
      {.level = severity::warning,
       .code = "W-RUN-FLIP-FLOP",
       .message = fmt::format("ka, {:.3g}, is below the elimination rate, {:.3g}: absorption is "
                              "slower than elimination",
                              absorption, elimination),
       .remedy = "if that is not what you expect, start from a larger ka, or set "
                 "estimation.starts to 10 and compare the maxima"});
}

// An evaluation is sound where every subject is well sampled and the likelihood known well enough.
void judge_evaluation(const population_model& model, const newton_report& report,
                      fit_result& result) {
  const std::vector<std::string> sick = ids_of(model, sick_subjects(report));
  const std::string failures = too_many_failures(model, report);
  const double goal = likelihood_goal(model);
  result.converged = result.likelihood.complete && sick.empty() && failures.empty() &&
                     result.likelihood.mc_se <= goal;
  if (!result.likelihood.complete)
    result.reason =
        engine_host::stopped() ? stop_reason : "the likelihood of a subject is not finite";
  else if (!sick.empty())
    result.reason = fmt::format("poorly sampled: {}", fmt::join(sick, ", "));
  else if (!failures.empty())
    result.reason = failures;
  else if (result.likelihood.mc_se > goal)
    result.reason =
        fmt::format("the Monte Carlo error of -2 log-likelihood, {:.2g}, is above {:.2g}",
                    result.likelihood.mc_se, goal);
  else
    result.reason =
        fmt::format("every subject is well sampled; Monte Carlo error {:.2g}, goal {:.2g}",
                    result.likelihood.mc_se, goal);
}

// The likelihood from fresh points, and the verdict by what they say.
newton_report conclude(engine_host& host, const newton_method& method, run_state& state,
                       fit_result& result) {
  take_estimates(host, result);
  newton_report report = report_likelihood(host, method, state, result);
  warn_of_failures(host.model(), report, result);
  if (!result.likelihood.complete) {
    refuse("the likelihood of a subject is not finite at the estimates", result);
    if (engine_host::stopped()) result.reason = stop_reason;
    return report;
  }
  judge_gain(report, result);
  judge_health(host.model(), report, result);
  judge_identification(report, result);
  return report;
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
  result.kept_factors = state.adaptive.kept_factors();

  // The points of the iterations have been fitted; the verdict is that of points of its own.
  const newton_method judge(host);
  run_state fresh;
  judge.begin(fresh);
  if (!judge.settle(fresh)) {
    take_estimates(host, result);
    return note_stop(result);
  }
  const newton_report report = conclude(host, judge, fresh, result);
  result.times.likelihood = watch.lap();
  if (engine_host::stopped()) return note_stop(result);
  integrate_besides(host, progress, result);
  warn_of_flip_flop(host.model(), result);
  watch.lap();
  take_errors(host, report, result);
  result.times.standard_errors = watch.lap();
}

// A fit from one set of start values, up to its verdict.
struct newton_attempt {
  fit_result result;
  newton_report report;
  bool stopped = false;
};

newton_attempt attempt_from(engine_host& host, const newton_method& method, int number,
                            const progress_listener& progress) {
  const estimation_settings& settings = host.model().specification().estimation;
  newton_attempt tried;
  fit_result& result = tried.result;
  result.what = task::fit;
  stopwatch watch;
  run_state state;
  const start_values start = dispersed_start(host.model(), number);
  host.set_theta(start.theta);
  bool going = host.set_omega(start.omega);
  going = going && (settings.map_np <= 0 || start_by_map_np(host));
  method.begin(state);
  if (going && !state.ended) going = method.step(state);
  result.times.start = watch.lap();
  going = going && take_steps(method, settings.max_iterations, progress, state);
  result.times.iterations = watch.lap();
  take_conclusion(method, state, going, result);
  tried.report = conclude(host, method, state, result);
  result.times.likelihood = watch.lap();
  tried.stopped = engine_host::stopped();
  return tried;
}

start_record record_of(int number, const fit_result& result) {
  constexpr double not_known = std::numeric_limits<double>::quiet_NaN();
  const bool known = result.likelihood.complete;
  return {.number = number,
          .converged = result.converged,
          .singular = result.singular,
          .reason = result.reason,
          .minus2ll = known ? result.likelihood.minus2ll : not_known,
          .mc_se = known ? result.likelihood.mc_se : not_known,
          .theta = result.theta,
          .omega = result.omega};
}

// Whether a fit is to be kept rather than another: the lower -2 log-likelihood, and where the two
// do not differ the one that has converged.
bool is_better(const fit_result& one, const fit_result& other) {
  constexpr double same = 0.05;
  if (!one.likelihood.complete || !other.likelihood.complete) return one.likelihood.complete;
  const double lower = other.likelihood.minus2ll - one.likelihood.minus2ll;
  if (std::fabs(lower) <= same && one.converged != other.converged) return one.converged;
  return lower > 0.0;
}

void add_times(const timings& of, timings& to) {
  to.start += of.start;
  to.iterations += of.iterations;
  to.likelihood += of.likelihood;
}

void fit_by_newton(engine_host& host, const progress_listener& progress, fit_result& result) {
  const estimation_settings& settings = host.model().specification().estimation;
  const newton_method method(host);
  newton_attempt best;
  std::vector<start_record> starts;
  timings spent;
  std::size_t kept = 0;
  for (int number = 0; number < settings.starts; ++number) {
    newton_attempt tried = attempt_from(host, method, number, progress);
    add_times(tried.result.times, spent);
    starts.push_back(record_of(number, tried.result));
    const bool stopped = tried.stopped;
    if (number == 0 || is_better(tried.result, best.result)) {
      best = std::move(tried);
      kept = starts.size() - 1;
    }
    if (stopped) break;
  }
  result = std::move(best.result);
  result.times = spent;
  if (settings.starts > 1) {
    starts[kept].kept = true;
    result.starts = std::move(starts);
    host.set_theta(result.theta);
    host.set_omega(result.omega);
  }
  if (engine_host::stopped()) return note_stop(result);
  integrate_besides(host, progress, result);
  warn_of_flip_flop(host.model(), result);
  stopwatch watch;
  take_errors(host, best.report, result);
  result.times.standard_errors = watch.lap();
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
    warn_of_failures(host.model(), report, result);
    integrate_besides(host, progress, result);
  }
  finish(host, progress, result);
  return result;
}

}  // namespace varda
