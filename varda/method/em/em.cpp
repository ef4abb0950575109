// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/em.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "statsubs/state/global_variables.h"

namespace varda {

namespace gv = statsubs::global_variables;

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

}  // namespace

em_iterations::em_iterations(engine_host& host, point_source& points, proposals& adaptive,
                             const progress_listener& progress)
    : host_(host),
      settings_(host.model().specification().estimation),
      points_(points),
      adaptive_(adaptive),
      progress_(progress),
      scale_(host.model()),
      maximisation_(host),
      resampling_(host.model().subjects(), gv::nchain, !settings_.fresh_points),
      monitor_(scale_, settings_.tolerance, settings_.fresh_points),
      watched_(host),
      acceleration_(acceleration_memory),
      fresh_(settings_.fresh_points),
      burn_in_(gv::nqrburn),
      samples_(gv::nsampset) {
  if (!fresh_ && 2 * approach_samples(host) <= samples_)
    samples_ = approach_samples(host);
  else
    stage_ = stage::first_of_all_points;
}

bool em_iterations::converged() const {
  return monitor_.conclusion().converged && !stopped_ && maximisation_.omega_is_sound() &&
         singular().empty();
}

std::string em_iterations::reason() const {
  if (stopped_) return stop_reason;
  if (!singular().empty()) return watched_.reason();
  const std::string reason = monitor_.conclusion().reason;
  return maximisation_.omega_is_sound() ? reason : "omega became singular; " + reason;
}

void em_iterations::run() {
  while (iteration_ < settings_.max_iterations && !stopped_) {
    iterate();
    if (gv::irunall != 0) continue;
    if (!singular().empty()) break;
    if (!monitor_.converged()) continue;
    watched_.examine_at_rest(host_, found_, adaptive_, points_);
    break;
  }
}

void em_iterations::iterate() {
  ++iteration_;
  if (is_assisted() && !adaptive_.from_modes()) {
    stopped_ = true;
    return;
  }
  points_.begin_iteration(iteration_, samples_);
  integrate(host_, adaptive_, samples_, found_,
            maximisation_.is_closed_form() ? nullptr : &resampling_);
  stopped_ = !found_.complete;
  if (stopped_) return;
  const double minus2ll = -2.0 * found_.log_likelihood;
  if (worse(minus2ll)) {
    take_back();
  } else {
    best_ = minus2ll;
    compared_ = true;
    follow_subjects();
    const Eigen::VectorXd before = scale_.values(host_.theta(), host_.omega());
    maximisation_.update(found_, adaptive_, burning_in() && gv::ifreezeomegaburn != 0);
    const Eigen::VectorXd after = scale_.values(host_.theta(), host_.omega());
    const bool counts = !burning_in() && (fresh_ || stage_ == stage::settled);
    // At the EM step itself: an accelerated one may yet be taken back.
    if (counts && gv::irunall == 0) watched_.examine(host_, found_, adaptive_, points_);
    if (singular().empty()) {
      if (!fresh_) accelerate(before, after);
      if (counts) monitor_.add(before, after, minus2ll, acceleration_.rate());
      judge_stage(after - before);
    }
  }
  records_.push_back({iteration_, minus2ll, host_.theta(), host_.omega()});
  progress_({.stage = run_stage::iterations,
             .step = iteration_,
             .of = settings_.max_iterations,
             .minus2ll = minus2ll});
}

bool em_iterations::is_assisted() const {
  return stage_ != stage::settled && gv::impmapflag > 0 && iteration_ % gv::impmapflag == 0;
}

// Lets the proposals follow the subjects; in the settled part those alone whose posterior has moved
// away from them, or that were poor from the beginning.
void em_iterations::follow_subjects() {
  following_.resize(found_.subjects.size());
  bool moved = false;
  for (std::size_t i = 0; i < found_.subjects.size(); ++i) {
    const int subject = static_cast<int>(i);
    if (host_.model().observations(subject) == 0) continue;
    const subject_integral& s = found_.subjects[i];
    if (stage_ == stage::settled && !fresh_) {
      rest& proposal = following_[i];
      if (proposal.effective == 0.0) proposal.effective = s.effective_samples;
      const bool poor = s.effective_samples < poor_share * samples_ &&
                        proposal.renewals < most_renewals_of_a_poor_one;
      if (!poor && s.effective_samples >= least_effective_share * proposal.effective) continue;
      ++proposal.renewals;
      proposal.effective = 0.0;
    }
    adaptive_.follow(subject, s.mean, s.covariance, s.effective_samples);
    moved = true;
  }
  if (moved) change_points();
}

// Whether an accelerated step has lowered the likelihood.
bool em_iterations::worse(double minus2ll) const {
  if (!accelerated_ || !compared_) return false;
  const double slack = stage_ == stage::settled
                           ? settled_slack
                           : approach_slack * std::sqrt(host_.model().subjects());
  return !(minus2ll <= best_ + slack);
}

void em_iterations::take_back() {
  move_to(safe_);
  acceleration_.restart();
  accelerated_ = false;
}

void em_iterations::accelerate(const Eigen::VectorXd& before, const Eigen::VectorXd& after) {
  safe_ = after;
  accelerated_ = false;
  if (!before.allFinite() || !after.allFinite()) return acceleration_.restart();
  const Eigen::VectorXd next = acceleration_.advance(before, after);
  const double leap = (next - before).norm();
  if (!next.allFinite() || leap > longest_leap * (after - before).norm()) return;
  accelerated_ = move_to(next);
}

// Moves the parameters in the host; the individual parameters at which the proposals stand stay.
// False, and nothing changed, when omega would not be positive definite.
bool em_iterations::move_to(const Eigen::VectorXd& values) {
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
    adaptive_.shift(i, from - to);
  }
  return true;
}

void em_iterations::judge_stage(const Eigen::VectorXd& step) {
  if (fresh_ || burning_in() || stage_ == stage::settled) return;
  if (stage_ == stage::first_of_all_points) {
    stage_ = stage::settled;
    return;
  }
  const bool arrived = step.cwiseAbs().maxCoeff() < approach_tolerance;
  if (!arrived && iteration_ < std::max(burn_in_, 0) + longest_approach) return;
  stage_ = stage::first_of_all_points;
  samples_ = gv::nsampset;
  resampling_ = resampler(host_.model().subjects(), gv::nchain, true);
  change_points();
}

void em_iterations::change_points() {
  acceleration_.map_changed();
  compared_ = false;
}

}  // namespace varda
