// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/em.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace varda {

namespace {

// Secants that an iteration remembers.
constexpr int acceleration_memory = 5;
// The approach ends when an EM step moves nothing by more than this.
constexpr double approach_tolerance = 0.02;
// It ends after so many iterations too: with few points, the proposals of a sampling scheme that
// wastes them may never come to rest.
constexpr int longest_approach = 15;
// An accelerated step may be this many times as long as the EM step it stands for.
constexpr double longest_leap = 30.0;
// -2 log-likelihood may rise by this much, per subject^1/2 while the points still move and in all
// when they stand still, before an accelerated step is taken back.
constexpr double approach_slack = 0.3;
constexpr double settled_slack = 0.01;
// A proposal at rest is renewed when its effective samples have fallen to this share of what they
// were, and, a few times, when they are less than this share of all.
constexpr double least_effective_share = 0.5;
constexpr double poor_share = 0.1;
constexpr int most_renewals_of_a_poor_one = 4;

// Enough points for the moments of a subject; a power of two, so that every subject's points are a
// net of the Sobol sequence.
int approach_samples(const engine_host& host) {
  const auto enough = static_cast<unsigned>(16 * (host.model().random_effects() + 1));
  return static_cast<int>(std::bit_ceil(enough));
}

// No secant leads from what came before to what follows.
void change_points(em_state& em) {
  em.acceleration.map_changed();
  em.compared = false;
}

}  // namespace

em_method::em_method(engine_host& host)
    : host_(host),
      settings_(host.model().specification().estimation),
      scale_(host.model()),
      maximisation_(host) {}

void em_method::begin(run_state& state) const {
  const bool fresh = settings_.fresh_points;
  em_state& em = state.em;
  em = {};
  em.resampling = resampler(host_.model().subjects(), settings_.resamples, !fresh);
  em.monitor = convergence_monitor(scale_.names(), settings_.tolerance, fresh);
  em.watched = singularity_watch(host_);
  em.acceleration = anderson_acceleration(acceleration_memory);
  em.samples = settings_.samples;
  em.stage = em_stage::first_of_all_points;
  if (!fresh && 2 * approach_samples(host_) <= em.samples) {
    em.samples = approach_samples(host_);
    em.stage = em_stage::approach;
  }
  state.theta = host_.theta();
  state.omega = host_.omega();
  state.ended = settings_.max_iterations < 1;
}

method_conclusion em_method::conclude(const run_state& state) const {
  const em_state& em = state.em;
  method_conclusion result;
  result.singular = em.watched.names();
  result.held_by_bounds = em.last.held_by_bounds;
  const verdict rest = em.monitor.conclusion();
  result.converged = rest.converged && em.last.omega_is_sound && result.singular.empty();
  result.reason = !result.singular.empty() ? em.watched.reason()
                  : em.last.omega_is_sound ? rest.reason
                                           : "omega became singular; " + rest.reason;
  return result;
}

std::string em_method::moving(const run_state& state) const {
  return state.em.monitor.slowest();
}

bool em_method::step(run_state& state) const {
  e_step found;
  const run_state before = state;
  const auto stopped = [&] {
    state = before;
    host_.set_theta(state.theta);
    host_.set_omega(state.omega);
    return false;
  };
  if (!iterate(state, found)) return stopped();
  em_state& em = state.em;
  if (!settings_.run_all) {
    if (!em.watched.names().empty()) {
      state.ended = true;
    } else if (em.monitor.converged()) {
      em.watched.examine_at_rest(host_, found, state.adaptive);
      if (engine_host::stopped()) return stopped();
      state.ended = true;
    }
  }
  state.ended = state.ended || em.iteration >= settings_.max_iterations;
  state.theta = host_.theta();
  state.omega = host_.omega();
  return true;
}

bool em_method::iterate(run_state& state, e_step& found) const {
  em_state& em = state.em;
  const bool fresh = settings_.fresh_points;
  ++em.iteration;
  if (is_assisted(em) && !propose_from_modes(host_, state.adaptive)) return false;
  std::vector<resampled_points> drawn;
  sample_visitor resample;
  if (!maximisation_.is_closed_form()) {
    drawn.resize(static_cast<std::size_t>(host_.model().subjects()));
    resample = [&](int i, weighted_samples& samples) {
      Eigen::VectorXd mu(samples.etas.rows());
      host_.model().means(i, host_.theta().data(), mu.data());
      drawn[static_cast<std::size_t>(i)] = em.resampling.draw(i, mu, samples.etas, samples.weights);
    };
  }
  const point_pass pass{point_pass::purpose::iteration, fresh ? em.iteration : 0};
  integrate_all(host_, state.adaptive, pass, em.samples, found, resample);
  if (!found.complete) return false;
  const double minus2ll = -2.0 * found.log_likelihood;
  if (worse(em, minus2ll)) {
    take_back(state);
  } else {
    em.best = minus2ll;
    em.compared = true;
    follow_subjects(state, found);
    const Eigen::VectorXd before = scale_.values(host_.theta(), host_.omega());
    em.last = maximisation_.update(found, drawn, state.adaptive,
                                   burning_in(em) && settings_.freeze_omega);
    const Eigen::VectorXd after = scale_.values(host_.theta(), host_.omega());
    const bool counts = !burning_in(em) && (fresh || em.stage == em_stage::settled);
    // At the EM step itself: an accelerated one may yet be taken back.
    if (counts && !settings_.run_all) em.watched.examine(host_, found, state.adaptive);
    if (engine_host::stopped()) return false;
    if (em.watched.names().empty()) {
      if (!fresh) accelerate(state, before, after);
      if (counts) em.monitor.add(before, after, minus2ll, em.acceleration.rate());
      judge_stage(em, after - before);
    }
  }
  state.records.push_back({em.iteration, minus2ll, host_.theta(), host_.omega()});
  return true;
}

bool em_method::is_assisted(const em_state& em) const {
  return em.stage != em_stage::settled && settings_.map_assist > 0 &&
         em.iteration % settings_.map_assist == 0;
}

// Lets the proposals follow the subjects; in the settled part those alone whose posterior has moved
// away from them, or that were poor from the beginning.
void em_method::follow_subjects(run_state& state, const e_step& found) const {
  em_state& em = state.em;
  em.following.resize(found.subjects.size());
  bool moved = false;
  for (std::size_t i = 0; i < found.subjects.size(); ++i) {
    const int subject = static_cast<int>(i);
    if (host_.model().observations(subject) == 0) continue;
    const subject_integral& s = found.subjects[i];
    if (em.stage == em_stage::settled && !settings_.fresh_points) {
      em_state::rest& proposal = em.following[i];
      if (proposal.effective == 0.0) proposal.effective = s.effective_samples;
      const bool poor = s.effective_samples < poor_share * em.samples &&
                        proposal.renewals < most_renewals_of_a_poor_one;
      if (!poor && s.effective_samples >= least_effective_share * proposal.effective) continue;
      ++proposal.renewals;
      proposal.effective = 0.0;
    }
    state.adaptive.follow(subject, s.mean, s.covariance, s.effective_samples);
    moved = true;
  }
  if (moved) change_points(em);
}

// Whether an accelerated step has lowered the likelihood.
bool em_method::worse(const em_state& em, double minus2ll) const {
  if (!em.accelerated || !em.compared) return false;
  const double slack = em.stage == em_stage::settled
                           ? settled_slack
                           : approach_slack * std::sqrt(host_.model().subjects());
  return !(minus2ll <= em.best + slack);
}

void em_method::take_back(run_state& state) const {
  move_to(state.em.safe, state.adaptive);
  state.em.acceleration.restart();
  state.em.accelerated = false;
}

void em_method::accelerate(run_state& state, const Eigen::VectorXd& before,
                           const Eigen::VectorXd& after) const {
  em_state& em = state.em;
  em.safe = after;
  em.accelerated = false;
  if (!before.allFinite() || !after.allFinite()) return em.acceleration.restart();
  const Eigen::VectorXd next = em.acceleration.advance(before, after);
  const double leap = (next - before).norm();
  if (!next.allFinite() || leap > longest_leap * (after - before).norm()) return;
  em.accelerated = move_to(next, state.adaptive);
}

// Moves the parameters in the host; the individual parameters at which the proposals stand stay.
// False, and nothing changed, when omega would not be positive definite.
bool em_method::move_to(const Eigen::VectorXd& values, proposals& adaptive) const {
  const population_model& model = host_.model();
  const Eigen::VectorXd before = host_.theta();
  Eigen::VectorXd theta = before;
  Eigen::MatrixXd omega = host_.omega();
  scale_.put(values, theta, omega);
  if (!host_.set_omega(omega)) return false;
  host_.set_theta(theta);
  Eigen::VectorXd from(model.random_effects());
  Eigen::VectorXd to(model.random_effects());
  for (int i = 0; i < model.subjects(); ++i) {
    model.means(i, before.data(), from.data());
    model.means(i, theta.data(), to.data());
    adaptive.shift(i, from - to);
  }
  return true;
}

void em_method::judge_stage(em_state& em, const Eigen::VectorXd& step) const {
  if (settings_.fresh_points || burning_in(em) || em.stage == em_stage::settled) return;
  if (em.stage == em_stage::first_of_all_points) {
    em.stage = em_stage::settled;
    return;
  }
  const bool arrived = step.cwiseAbs().maxCoeff() < approach_tolerance;
  if (!arrived && em.iteration < std::max(settings_.burn_in, 0) + longest_approach) return;
  em.stage = em_stage::first_of_all_points;
  em.samples = settings_.samples;
  em.resampling = resampler(host_.model().subjects(), settings_.resamples, true);
  change_points(em);
}

}  // namespace varda
