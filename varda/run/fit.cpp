// SPDX-License-Identifier: Apache-2.0
#include "varda/run/fit.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "varda/diagnostics/random_effects.h"
#include "varda/inference/dispersed_start.h"
#include "varda/inference/e_step.h"
#include "varda/method/em/em.h"
#include "varda/method/em/map_np_steps.h"
#include "varda/method/newton/report.h"
#include "varda/model/closed/absorption_twin.h"
#include "varda/run/diagnose.h"
#include "varda/run/memory_needs.h"

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

void take_estimates(const engine_host& host, fit_result& result) {
  result.theta = host.theta();
  result.omega = host.omega();
  result.omega_condition = condition_of_correlations(result.omega);
  result.processes = host.peers().size();
}

// A stop in the middle of something; what was known before is still true.
void note_stop(const std::string& before_what, fit_result& result) {
  const bool knew = !before_what.empty() && result.likelihood.complete;
  std::string reason = stop_reason;
  if (!before_what.empty()) reason += " before " + before_what;
  if (knew)
    reason +=
        fmt::format("; until then: {}{}", result.converged ? "" : "not converged, ", result.reason);
  result.converged = false;
  result.reason = reason;
}

// False when a stop was asked for, now or before.
bool finish(const engine_host& host, const progress_listener& progress, fit_result& result) {
  stopwatch watch;
  const bool stopped_before = engine_host::stopped();
  const bool whole = diagnose(host.model(), host.peers(), progress, result);
  if (!whole && !stopped_before) note_stop("the diagnostics were complete", result);
  result.processes = host.peers().size();
  result.evaluations = host.evaluations();
  result.times.diagnostics += watch.lap();
  return whole;
}

}  // namespace

void check_fit(const population_model& model) {
  check_grid(model);
}

namespace {

void take_conclusion(const estimation_method& method, const run_state& state, fit_result& result) {
  const method_conclusion end = method.conclude(state);
  result.iterations = state.records;
  result.kept_factors = state.adaptive.kept_factors();
  result.converged = end.converged;
  result.reason = end.reason;
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
constexpr int many_subjects = 1000;  // half as many will do: sums over subjects are better known
constexpr double error_goal = 0.1;
constexpr double subjects_of_goal = 200.0;
// The report's points, none of which a fit has used, must not promise more than this.
constexpr double most_gain_at_report = 0.05;
// What is ahead of estimates that lie a standard error from the maximum.
constexpr double most_gain_for_errors = 1.0;

double likelihood_goal(const population_model& model) {
  return error_goal * std::sqrt(std::max(1.0, model.subjects() / subjects_of_goal));
}

// Points a subject in each randomisation for the likelihood, after a draw with `samples` of them or
// at first (0). 0 where that draw is good enough. Errors fall with the number of points at least.
int report_points_after(int samples, const likelihood_estimate& found,
                        const population_model& model, task what) {
  const estimation_settings& settings = model.specification().estimation;
  const int factor = points_factor(model.random_effects());
  if (samples == 0) {
    if (settings.likelihood_samples > 0) return settings.likelihood_samples;
    const int first = factor * (model.subjects() < many_subjects ? first_report_samples
                                                                 : first_report_samples / 2);
    return what == task::evaluate ? std::max(first, settings.samples) : first;
  }
  const int most = factor * most_report_samples;
  const double excess = found.mc_se / likelihood_goal(model);
  if (settings.likelihood_samples > 0 || !found.complete || !(excess > 1.0) || 2 * samples > most)
    return 0;
  const int wanted = static_cast<int>(std::ceil(std::min(excess, 8.0)));
  return std::min(samples * static_cast<int>(std::bit_ceil(static_cast<unsigned>(wanted))), most);
}

// The likelihood from points that nothing was tuned on.
void take_likelihood(const population_model& model, const newton_report& report, int samples,
                     fit_result& result) {
  result.likelihood = report.likelihood;
  result.likelihood_samples = samples;
  result.health = report.health;
  const double goal = likelihood_goal(model);
  if (report.likelihood.complete && report.likelihood.mc_se > goal)
    result.warnings.push_back(
        {.level = severity::warning,
         .code = "W-RUN-LIKELIHOOD",
         .message =
             fmt::format("the Monte Carlo error of -2 log-likelihood, {:.2g}, is above {:.2g}",
                         report.likelihood.mc_se, goal),
         .remedy = fmt::format("set estimation.likelihood_samples to about {:.0f}",
                               samples * std::ceil(std::pow(report.likelihood.mc_se / goal, 2)))});
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
       .message =
           fmt::format("the model cannot be evaluated at some samples in the bulk of the "
                       "conditional distribution of {} {}; these samples count as impossible",
                       list.size() == 1 ? "subject" : "subjects", fmt::join(list, ", ")),
       .remedy = "look for a logarithm, square root or division that fails there, or a solver "
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
    refuse(fmt::format("poorly sampled subjects: {}", fmt::join(ids_of(model, sick), ", ")),
           result);
  if (!failures.empty()) refuse(failures, result);
}

// Nor on parameters that could be anything.
void judge_identification(const newton_report& report, fit_result& result) {
  result.unidentified = report.unidentified;
  for (const std::string& names : report.unidentified)
    refuse(names.find(',') == std::string::npos
               ? fmt::format("the data do not identify {}", names)
               : fmt::format("the data cannot distinguish {}", names),
           result);
}

// What is ahead of the estimates, by points that the fit has not used. An omega that is singular
// far from any maximum is no finding of the data's.
void judge_gain(const newton_report& report, fit_result& result) {
  if (!result.converged && result.singular.empty()) return;
  const double sure = report.gain - report.noise;
  if (sure > (result.converged ? most_gain_at_report : most_gain_for_errors)) {
    result.singular.clear();
    return refuse(fmt::format("remaining gain in -2 log-likelihood at least {:.2g}, on points that "
                              "the fit has not used",
                              sure),
                  result);
  }
  if (!result.converged) return;
  put_first(
      fmt::format("remaining gain in -2 log-likelihood {:.2g} +- {:.2g}, on points that the fit "
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

// Absorption slower than elimination, or than the phase of distribution that can take its place:
// the maximum may be one of two that exchange their names.
void warn_of_flip_flop(const population_model& model, fit_result& result) {
  const auto estimate = [&](const std::string& name) {
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
  const bool slow = absorption < elimination;
  double twin = 0.0;
  const std::string& structure = model.specification().structure.name;
  if (structure == "two-compartment oral" || structure == "three-compartment oral")
    if (const auto own = oral_compartments_from(estimate)) twin = absorption_twin(*own).absorption;
  if (!slow && !(absorption < twin)) return;
  result.warnings.push_back(
      {.level = severity::warning,
       .code = "W-RUN-FLIP-FLOP",
       .message = slow ? fmt::format("ka, {:.3g}, is below the elimination rate, {:.3g}: "
                                     "absorption is slower than elimination",
                                     absorption, elimination)
                       : fmt::format("ka, {:.3g}, is below the rate constant of a phase of the "
                                     "disposition, {:.3g}, with which it can be exchanged: "
                                     "absorption is slower than distribution",
                                     absorption, twin),
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
    result.reason = "the likelihood of a subject is not finite";
  else if (!sick.empty())
    result.reason = fmt::format("poorly sampled subjects: {}", fmt::join(sick, ", "));
  else if (!failures.empty())
    result.reason = failures;
  else if (result.likelihood.mc_se > goal)
    result.reason =
        fmt::format("the Monte Carlo error of -2 log-likelihood, {:.2g}, is above {:.2g}",
                    result.likelihood.mc_se, goal);
  else
    result.reason =
        fmt::format("all subjects are well sampled; Monte Carlo error {:.2g}, goal {:.2g}",
                    result.likelihood.mc_se, goal);
}

// The verdict by what fresh points say.
void judge(const population_model& model, const newton_report& report, fit_result& result) {
  warn_of_failures(model, report, result);
  if (!result.likelihood.complete) {
    refuse("the likelihood of a subject is not finite at the estimates", result);
    return;
  }
  judge_gain(report, result);
  judge_health(model, report, result);
  judge_identification(report, result);
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

// False when a stop was asked for. Collective.
bool integrate_besides(engine_host& host, const progress_listener& progress, fit_result& result) {
  const estimation_settings& settings = host.model().specification().estimation;
  if (settings.likelihood != likelihood_kind::agq || !result.likelihood.complete)
    return !engine_host::agree_on_stop();
  quadrature_estimate found;
  const bool integrated = within_memory(
      host.peers(), "the quadrature is", bytes_of_quadrature(host.model()), result.warnings,
      [&] { found = integrate_by_quadrature(host, settings.agq_nodes, progress); });
  if (engine_host::agree_on_stop()) return false;
  if (!integrated) return true;
  result.quadrature = std::move(found);
  if (!result.quadrature.placed_by_omega.empty())
    result.warnings.push_back(odd_curvatures(host.model(), result.quadrature.placed_by_omega));
  return true;
}

constexpr const char* likelihood_left_out = "the likelihood was left out for want of memory";

// Another draw for the likelihood, after one with `before` points a subject or none. Collective.
bool draw_within_memory(const engine_host& host, int samples, int before, findings& warnings,
                        const std::function<void()>& draw) {
  const job& peers = host.peers();
  const char* const what = before == 0 ? "the likelihood and what follows from it are"
                                       : "more points for the likelihood are";
  return within_memory(
      peers, what, bytes_of_likelihood(host.model(), peers.size(), peers.threads().size(), samples),
      warnings, draw);
}

std::unique_ptr<estimation_method> method_of(engine_host& host) {
  switch (host.model().specification().estimation.method) {
    case method_kind::newton:
      return std::make_unique<newton_method>(host);
    case method_kind::em:
      return std::make_unique<em_method>(host);
  }
  return nullptr;
}

// A fit as a walk through its states. A step works on a copy of the state, which it takes over when
// the processes have agreed that no stop was asked for: whatever a stop has left unfinished is
// never seen.
class fit_run {
 public:
  fit_run(engine_host& host, const progress_listener& progress, fit_listener& listener,
          fit_state& state)
      : host_(host),
        model_(host.model()),
        settings_(model_.specification().estimation),
        by_newton_(settings_.method == method_kind::newton),
        progress_(progress),
        listener_(listener),
        method_(method_of(host)),
        judge_(host),
        s_(state) {}

  fit_result go() {
    put_in_force();
    host_.count_evaluations(s_.evaluations);
    watch_.lap();
    bool going = true;
    while (going && s_.next != fit_stage::diagnostics) going = advance();
    put_in_force();
    newton_report report = s_.best_report;
    fit_result result = going ? s_.best : result_at_stop(report);
    result.times = s_.spent;
    if (result.likelihood.complete) {
      warn_of_flip_flop(model_, result);
      announce(run_stage::standard_errors, "");
      take_errors(host_, report, result);
    }
    result.times.standard_errors = watch_.lap();
    if (!finish(host_, progress_, result)) keep(true);
    return result;
  }

 private:
  // False when a stop was asked for, and nothing has changed.
  bool advance() {
    switch (s_.next) {
      case fit_stage::start:
        return start();
      case fit_stage::iterations:
        return iterate();
      case fit_stage::judging:
        return settle();
      case fit_stage::likelihood:
        return draw_likelihood();
      case fit_stage::quadrature:
        return integrate();
      case fit_stage::diagnostics:
        break;
    }
    return true;
  }

  void announce(run_stage what, const std::string& note) {
    progress_({.stage = what, .note = note});
  }

  void reached(double timings::*by) {
    s_.spent.*by += watch_.lap();
    s_.evaluations = host_.evaluations();
    if (listener_.reached()) keep(false);
  }

  void keep(bool stopped) {
    s_.method.em.resampling.share(host_.peers());
    listener_.keep(s_, stopped);
  }

  // The parameters of the state, in the host.
  void put_in_force() {
    const auto put = [this](const Eigen::VectorXd& theta, const Eigen::MatrixXd& omega) {
      host_.set_theta(theta);
      return host_.set_omega(omega);
    };
    if (s_.next == fit_stage::start) {
      const start_values start = dispersed_start(model_, s_.number);
      put(start.theta, start.omega);
    } else if (s_.next < fit_stage::quadrature) {
      put(s_.method.theta, s_.method.omega);
    } else {
      put(s_.best.theta, s_.best.omega);
    }
  }

  bool start() {
    put_in_force();
    announce(run_stage::start, by_newton_ && settings_.starts > 1
                                   ? fmt::format("{} of {}", s_.number + 1, settings_.starts)
                                   : "");
    if (settings_.map_np > 0) start_by_map_np(host_);
    run_state fresh;
    if (!by_newton_) {
      fresh.adaptive = proposals(model_, host_.omega());
      propose(host_, fresh.adaptive);
    }
    method_->begin(fresh);
    if (engine_host::agree_on_stop()) return false;
    s_.method = std::move(fresh);
    take_next(fit_stage::iterations);
    reached(&timings::start);
    return true;
  }

  bool iterate() {
    const bool starts_up = by_newton_ && !s_.method.newton.started;
    run_state next = s_.method;
    method_->step(next);
    if (engine_host::agree_on_stop()) return false;
    const bool told = next.records.size() > s_.method.records.size();
    s_.method = std::move(next);
    if (told)
      progress_({.stage = run_stage::iterations,
                 .step = s_.method.records.back().iteration,
                 .of = settings_.max_iterations,
                 .minus2ll = s_.method.records.back().minus2ll,
                 .note = method_->moving(s_.method)});
    take_next(fit_stage::iterations);
    reached(starts_up ? &timings::start : &timings::iterations);
    return true;
  }

  // From the iterations onwards, as soon as they have ended.
  void take_next(fit_stage otherwise) {
    s_.next = otherwise;
    if (!s_.method.ended) return;
    s_.next = by_newton_ ? fit_stage::likelihood : fit_stage::judging;
    if (!by_newton_) return;
    s_.verdict = s_.method;
    s_.verdict.records.clear();
  }

  // The points of an EM algorithm's iterations have been fitted; the verdict is that of others.
  bool settle() {
    announce(run_stage::judging, "");
    run_state fresh;
    judge_.begin(fresh);
    judge_.settle(fresh);
    if (engine_host::agree_on_stop()) return false;
    s_.verdict = std::move(fresh);
    s_.next = fit_stage::likelihood;
    reached(&timings::likelihood);
    return true;
  }

  bool draw_likelihood() {
    const int samples =
        report_points_after(s_.report_samples, s_.report.likelihood, model_, task::fit);
    announce(run_stage::likelihood,
             fmt::format("{} x {} points per subject", settings_.replicates, samples));
    run_state next;
    newton_report found;
    const bool drawn = draw_within_memory(host_, samples, s_.report_samples, left_out_, [&] {
      next = s_.verdict;
      found = report_at(host_, judge_, next, settings_.replicates, samples);
    });
    if (engine_host::agree_on_stop()) return false;
    if (!drawn) {
      conclude();
      reached(&timings::likelihood);
      return true;
    }
    s_.verdict = std::move(next);
    s_.report = std::move(found);
    s_.report_samples = samples;
    if (s_.report.likelihood.complete)
      progress_({.stage = run_stage::likelihood,
                 .minus2ll = s_.report.likelihood.minus2ll,
                 .note = fmt::format("+- {:.2g}", s_.report.likelihood.mc_se)});
    if (report_points_after(samples, s_.report.likelihood, model_, task::fit) == 0 && !go_on())
      conclude();
    reached(&timings::likelihood);
    return true;
  }

  // Back to the iterations, where the report's points see more ahead than a fit may leave.
  bool go_on() {
    if (!by_newton_ || !s_.report.likelihood.complete) return false;
    run_state again = s_.method;
    again.newton = s_.verdict.newton;
    if (!judge_.go_on(again, s_.report.gain - s_.report.noise, s_.report.step)) return false;
    s_.method = std::move(again);
    s_.verdict = {};
    s_.report = {};
    s_.report_samples = 0;
    take_next(fit_stage::iterations);
    return true;
  }

  // What the iterations of the fit in work have led to, and its likelihood where it is known.
  fit_result result_so_far() const {
    fit_result result;
    result.what = task::fit;
    take_conclusion(*method_, s_.method, result);
    take_estimates(host_, result);
    if (s_.report_samples > 0) take_likelihood(model_, s_.report, s_.report_samples, result);
    return result;
  }

  // The verdict on the fit in work, and what comes after it.
  void conclude() {
    fit_result tried = result_so_far();
    tried.warnings.insert(tried.warnings.end(), left_out_.begin(), left_out_.end());
    left_out_.clear();
    if (s_.report_samples > 0)
      judge(model_, s_.report, tried);
    else
      refuse(likelihood_left_out, tried);
    take_place(std::move(tried));
    ++s_.number;
    s_.method = {};
    s_.verdict = {};
    s_.report = {};
    s_.report_samples = 0;
    s_.next = by_newton_ && s_.number < settings_.starts ? fit_stage::start : fit_stage::quadrature;
    put_in_force();
    if (s_.next == fit_stage::quadrature) list_starts();
  }

  void take_place(fit_result tried) {
    s_.starts.push_back(record_of(s_.number, tried));
    if (s_.number > 0 && !is_better(tried, s_.best)) return;
    s_.best = std::move(tried);
    s_.best_report = s_.report;
    // These stand in the result.
    s_.best_report.likelihood = {};
    s_.best_report.health.clear();
    s_.kept = s_.starts.size() - 1;
  }

  void list_starts() {
    if (!by_newton_ || settings_.starts == 1) return;
    s_.best.starts = s_.starts;
    s_.best.starts[s_.kept].kept = true;
  }

  bool integrate() {
    fit_result next = s_.best;
    if (!integrate_besides(host_, progress_, next)) return false;
    s_.best = std::move(next);
    s_.next = fit_stage::diagnostics;
    reached(&timings::quadrature);
    return true;
  }

  // `report`: what the likelihood of the result is from.
  fit_result result_at_stop(newton_report& report) {
    if (s_.next == fit_stage::quadrature) {
      fit_result result = s_.best;
      note_stop("the quadrature was complete", result);
      return result;
    }
    const fit_state reached = s_;
    fit_result tried = result_so_far();
    note_stop(s_.next >= fit_stage::judging ? "the likelihood was known" : "", tried);
    take_place(std::move(tried));
    list_starts();
    fit_result result = s_.best;
    report = s_.best_report;
    if (s_.kept + 1 < s_.starts.size()) note_stop("every start was tried", result);
    s_ = reached;
    return result;
  }

  engine_host& host_;
  const population_model& model_;
  const estimation_settings& settings_;
  bool by_newton_;
  const progress_listener& progress_;
  fit_listener& listener_;
  std::unique_ptr<estimation_method> method_;
  newton_method judge_;
  fit_state& s_;
  stopwatch watch_;
  findings left_out_;  // of the fit in work, for want of memory
};

// Of a fit that nobody will take up.
class nobody final : public fit_listener {
 public:
  bool reached() override { return false; }
  void keep(fit_state& /*state*/, bool /*stopped*/) override {}
};

}  // namespace

fit_result fit(engine_host& host, const progress_listener& progress, fit_listener& listener,
               fit_state state) {
  return fit_run(host, progress, listener, state).go();
}

fit_result fit(engine_host& host, const progress_listener& progress) {
  nobody listener;
  return fit(host, progress, listener, {});
}

fit_result evaluate(engine_host& host, const progress_listener& progress) {
  fit_result result;
  result.what = task::evaluate;
  const population_model& model = host.model();
  const int replicates = model.specification().estimation.replicates;
  stopwatch watch;
  const newton_method method(host);
  run_state state;
  method.begin(state);
  progress({.stage = run_stage::judging});
  method.settle(state);
  const bool settled = !engine_host::agree_on_stop();
  result.times.start = watch.lap();
  if (settled) result.iterations = state.records;
  take_estimates(host, result);
  bool going = settled;
  newton_report report;
  int samples = 0;
  while (going) {
    const int next = report_points_after(samples, report.likelihood, model, task::evaluate);
    if (next == 0) break;
    progress({.stage = run_stage::likelihood,
              .note = fmt::format("{} x {} points per subject", replicates, next)});
    newton_report found;
    const bool drawn = draw_within_memory(host, next, samples, result.warnings, [&] {
      found = report_at(host, method, state, replicates, next);
    });
    going = !engine_host::agree_on_stop();
    if (!going || !drawn) break;
    report = std::move(found);
    samples = next;
  }
  result.times.likelihood = watch.lap();
  if (going && samples == 0) result.reason = likelihood_left_out;
  if (samples > 0) {
    take_likelihood(model, report, samples, result);
    judge_evaluation(model, report, result);
    warn_of_failures(model, report, result);
  }
  if (!going) note_stop(samples > 0 ? "the likelihood was known well enough" : "", result);
  if (going && !integrate_besides(host, progress, result))
    note_stop("the quadrature was complete", result);
  result.times.quadrature = watch.lap();
  finish(host, progress, result);
  return result;
}

}  // namespace varda
