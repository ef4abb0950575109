// SPDX-License-Identifier: Apache-2.0
#include "varda/method/newton/newton.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "varda/host/subjects.h"

namespace varda {

namespace {

// Points a subject: of the first draw, the least for a verdict, the most.
constexpr int first_samples = 64;
constexpr int verdict_samples = 256;
constexpr int most_samples_of_a_draw = 4096;
constexpr int groups_of_a_draw = 4;
constexpr int most_draws = 40;
constexpr int most_draws_in_vain = 4;

// In -2 log-likelihood: converged when the gain ahead less its noise, and the noise, are below.
constexpr double gain_limit = 0.01;
constexpr double noise_limit = 0.005;
// A last step is taken where its gain does not exceed what it promised.
constexpr double last_step_ratio = 1.5;
constexpr double last_step_slack = 0.001;

constexpr int most_newton_steps = 15;
constexpr int steps_without_definiteness = 2;
constexpr double least_eigenvalue = 1e-3;  // of the information with unit diagonal
constexpr double longest_log_step = 1.0;
constexpr double longest_row_share = 0.7;
// No subject's effective samples may fall below this share of what they were at the draw.
constexpr double least_effective_share = 0.25;

// A proposal's volume to that of the conditional covariance, as in the settings' acceptance ratio.
constexpr double target_ratio = 0.5;

// A subject's samples are sick: few effective, or a heavy tail with not many.
constexpr double sick_share = 0.10;
constexpr double sick_shape = 0.7;
constexpr double sick_share_with_shape = 0.40;

// A look for modes without points: population samples, and the share of a likelihood outside its
// proposal that calls for a mixture.
constexpr int population_points = 128;
constexpr double most_outside = 0.02;
constexpr double defensive_share = 0.25;

// Share of a weight-bearing draw that may fail.
constexpr double most_failures = 0.2;

// Near a singular omega.
constexpr double undetermined_error = 1.5;  // of log L_aa
constexpr double small_share_of_row = 0.1;
constexpr double small_deviation = 0.02;  // of a random effect without correlations
constexpr double removal = 2.0;           // log L_aa less
constexpr double decisive = 0.02;         // in -2 log-likelihood
constexpr double inflation_gain = 0.01;
constexpr double least_inflated_deviation = 0.1;
constexpr int trial_samples = 1024;
constexpr int trial_end_samples = 4096;  // where the ends of a trial are compared
constexpr double trial_errors = 3.0;     // that a difference has to exceed
constexpr int most_removals = 2;

}  // namespace

bool is_sick(const subject_measure& m) {
  return m.effective_share < sick_share ||
         (m.shape > sick_shape && m.effective_share < sick_share_with_shape);
}

namespace {

std::vector<draw_component> single(const Eigen::VectorXd& centre, const Eigen::MatrixXd& covariance,
                                   double ratio) {
  const double widening = std::pow(ratio, -1.0 / static_cast<double>(centre.size()));
  return {{1.0, centre, widening * Eigen::MatrixXd(covariance.llt().matrixL())}};
}

}  // namespace

newton_method::newton_method(engine_host& host)
    : host_(host), settings_(host.model().specification().estimation), scale_(host.model()) {}

Eigen::VectorXd newton_method::psi_in_force() const {
  return scale_.of(host_.theta(), host_.omega());
}

void newton_method::begin(run_state& state) const {
  state.newton = {};
  state.newton.samples = first_samples;
  state.theta = host_.theta();
  state.omega = host_.omega();
  state.ended = false;
}

// Puts psi in force, in the host and in the state. False where omega would not be usable.
bool newton_method::take_force(run_state& state, const Eigen::VectorXd& psi) const {
  Eigen::VectorXd theta = state.theta;
  Eigen::MatrixXd omega = state.omega;
  scale_.put(psi, theta, omega);
  if (!theta.allFinite() || !omega.allFinite() || !host_.set_omega(omega)) return false;
  host_.set_theta(theta);
  state.theta = theta;
  state.omega = omega;
  return true;
}

// The same for an omega that is far away: the proposals follow it, each subject's likelihood taken
// for normal, with the precision of the conditional distribution less that of the population.
bool newton_method::leap_to(run_state& state, const Eigen::VectorXd& psi) const {
  const Eigen::MatrixXd before = state.omega;
  if (!take_force(state, psi)) return false;
  const Eigen::MatrixXd identity = Eigen::MatrixXd::Identity(before.rows(), before.cols());
  const Eigen::MatrixXd old_precision = before.llt().solve(identity);
  const Eigen::MatrixXd precision = state.omega.llt().solve(identity);
  const double widening = std::pow(target_ratio, -1.0 / static_cast<double>(before.rows()));
  Eigen::VectorXd mu(before.rows());
  for (std::size_t i = 0; i < state.newton.proposals.size(); ++i) {
    draw_component& main = state.newton.proposals[i].front();
    const Eigen::MatrixXd covariance =
        main.factor * main.factor.transpose() / (widening * widening);
    const Eigen::MatrixXd own = covariance.llt().solve(identity);
    const Eigen::LLT<Eigen::MatrixXd> moved(own + precision - old_precision);
    if (moved.info() != Eigen::Success) {
      main.factor = widening * Eigen::MatrixXd(state.omega.llt().matrixL());
      continue;
    }
    host_.model().means(static_cast<int>(i), state.theta.data(), mu.data());
    const Eigen::MatrixXd next = moved.solve(identity);
    const Eigen::LLT<Eigen::MatrixXd> factor(0.5 * (next + next.transpose()));
    if (factor.info() != Eigen::Success) continue;
    main.centre = mu + moved.solve(own * (main.centre - mu));
    main.factor = widening * Eigen::MatrixXd(factor.matrixL());
  }
  return true;
}

bool newton_method::start(run_state& state) const {
  start_result found;
  if (!start_up(host_, found)) return false;
  if (!host_.set_omega(found.omega)) {
    state.ended = true;
    state.newton.trouble = "the start-up left the positive definite matrices";
    return true;
  }
  host_.set_theta(found.theta);
  state.theta = found.theta;
  state.omega = found.omega;
  propose_from(found.modes, state);
  state.newton.started = true;
  return true;
}

// Where there is no mode to be had the population serves.
void newton_method::propose_from(const std::vector<normal_posterior>& modes,
                                 run_state& state) const {
  Eigen::VectorXd mu(host_.model().random_effects());
  state.newton.proposals.resize(modes.size());
  for (std::size_t i = 0; i < modes.size(); ++i) {
    host_.model().means(static_cast<int>(i), state.theta.data(), mu.data());
    state.newton.proposals[i] = modes[i].usable
                                    ? single(modes[i].phi, modes[i].covariance, target_ratio)
                                    : single(mu, state.omega, target_ratio);
  }
}

bool newton_method::draw(const run_state& state, const point_pass& pass, int samples, int groups,
                         whole_draw& drawn) const {
  const population_model& model = host_.model();
  drawn.subjects.assign(static_cast<std::size_t>(model.subjects()), {});
  drawn.theta = host_.theta();
  for (const int i : own_subjects(host_)) {
    const auto at = static_cast<std::size_t>(i);
    if (!draw_subject(host_, i, state.newton.proposals[at], pass, samples, groups,
                      drawn.subjects[at]))
      break;
  }
  return !host_.agree_on_stop();
}

draw_measure newton_method::measure(const whole_draw& drawn, const Eigen::VectorXd& psi,
                                    detail wanted) const {
  const population_model& model = host_.model();
  const Eigen::Index p = scale_.size();
  const measure_point at(scale_, psi, host_.theta(), host_.omega());
  draw_measure result;
  result.gradient = Eigen::VectorXd::Zero(p);
  result.information = Eigen::MatrixXd::Zero(p, p);
  result.scatter = Eigen::MatrixXd::Zero(p, p);
  result.subjects.resize(static_cast<std::size_t>(model.subjects()));
  if (!at.theta.allFinite() || !at.prior.is_definite()) return result;

  // A column of figures for each subject, summed over the processes: each column stands on one.
  const Eigen::Index figures = wanted == detail::value ? 2 : 9 + p + 2 * p * p;
  Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(figures, model.subjects());
  struct worker_of_measure {
    subject_sampler sampler;
    std::int64_t evaluations;
  };
  std::vector<worker_of_measure> workers;
  for (int w = 0; w < host_.peers().threads().size(); ++w)
    workers.push_back({subject_sampler(host_.joint(), scale_), 0});
  for_each_own_subject(host_, verdict_samples, [&](int i, int w) {
    const auto own = static_cast<std::size_t>(i);
    worker_of_measure& worker = workers[static_cast<std::size_t>(w)];
    subject_measure& m = result.subjects[own];
    m = worker.sampler.measure(i, drawn.subjects[own], drawn.theta, at, wanted, worker.evaluations);
    const bool finite = std::isfinite(m.log_likelihood);
    packed(0, i) = finite ? m.log_likelihood : -1e10;
    packed(1, i) = m.effective_share;
    if (wanted == detail::value || !finite) return;
    const Eigen::Index groups = m.group_log_likelihood.size();
    const auto r = static_cast<double>(groups);
    double variance = 0.0;
    Eigen::MatrixXd scatter = Eigen::MatrixXd::Zero(p, p);
    for (Eigen::Index g = 0; g < groups; ++g) {
      variance += std::pow(std::exp(m.group_log_likelihood(g) - m.log_likelihood) - 1.0, 2);
      const Eigen::VectorXd off = m.group_gradient.col(g) - m.gradient;
      scatter += off * off.transpose();
    }
    variance /= r * (r - 1.0);
    scatter /= r * (r - 1.0);
    packed.col(i).segment(2, 7) << m.largest_weight, m.shape, m.failed, variance, m.scaled_squares,
        0.0, 0.0;
    if (!std::isfinite(m.shape)) packed(3, i) = 0.0;
    packed.col(i).segment(9, p) = m.gradient;
    packed.col(i).segment(9 + p, p * p) = m.information.reshaped();
    packed.col(i).segment(9 + p + p * p, p * p) = scatter.reshaped();
  });
  for (const worker_of_measure& worker : workers) host_.count_evaluations(worker.evaluations);
  host_.peers().gather(packed.data(), packed.rows(), packed.cols());
  double variance = 0.0;
  result.finite = true;
  for (int i = 0; i < model.subjects(); ++i) {
    if (model.observations(i) == 0) continue;
    subject_measure& m = result.subjects[static_cast<std::size_t>(i)];
    m.log_likelihood = packed(0, i);
    m.effective_share = packed(1, i);
    result.finite = result.finite && packed(0, i) > -1e10;
    result.log_likelihood += packed(0, i);
    if (wanted == detail::value) continue;
    m.largest_weight = packed(2, i);
    m.shape = packed(3, i);
    m.failed = packed(4, i);
    m.scaled_squares = packed(6, i);
    m.error = 2.0 * std::sqrt(packed(5, i));
    variance += packed(5, i);
    result.gradient += packed.col(i).segment(9, p);
    result.information += packed.col(i).segment(9 + p, p * p).reshaped(p, p);
    result.scatter += packed.col(i).segment(9 + p + p * p, p * p).reshaped(p, p);
  }
  result.error = 2.0 * std::sqrt(variance);
  result.finite = result.finite && result.gradient.allFinite() && result.information.allFinite();
  if (wanted == detail::derivatives && result.finite) judge_information(result, psi);
  return result;
}

// The Newton step, the gain it promises and the noise of that. A coordinate that a bound holds, the
// gradient pushing outwards, takes no part.
void newton_method::judge_information(draw_measure& of, const Eigen::VectorXd& psi) const {
  const Eigen::Index p = psi.size();
  std::vector<Eigen::Index> free;
  for (Eigen::Index k = 0; k < p; ++k) {
    const coordinates::entry& e = scale_.entries()[static_cast<std::size_t>(k)];
    const bool held =
        (psi(k) <= e.lower && of.gradient(k) < 0.0) || (psi(k) >= e.upper && of.gradient(k) > 0.0);
    if (!held) free.push_back(k);
  }
  const Eigen::MatrixXd information = of.information(free, free);
  const Eigen::VectorXd unit = information.diagonal().cwiseAbs().cwiseMax(1e-12).cwiseSqrt();
  const Eigen::MatrixXd scaled =
      unit.cwiseInverse().asDiagonal() * information * unit.cwiseInverse().asDiagonal();
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(scaled);
  of.definite = solver.eigenvalues().size() == 0 || solver.eigenvalues()(0) > 0.0;
  const Eigen::VectorXd curvature = solver.eigenvalues().cwiseAbs().cwiseMax(least_eigenvalue);
  const Eigen::MatrixXd basis = unit.cwiseInverse().asDiagonal() * solver.eigenvectors();
  const Eigen::VectorXd along = basis.transpose() * of.gradient(free);
  const Eigen::VectorXd step = basis * along.cwiseQuotient(curvature);
  of.step = Eigen::VectorXd::Zero(p);
  of.step(free) = step;
  of.gain = along.cwiseProduct(along.cwiseQuotient(curvature)).sum();
  const Eigen::MatrixXd noise = basis.transpose() * of.scatter(free, free) * basis;
  of.noise = noise.diagonal().cwiseQuotient(curvature).sum();
}

// A step with no leap in it, inside the bounds.
Eigen::VectorXd newton_method::limited(const Eigen::VectorXd& step,
                                       const Eigen::VectorXd& psi) const {
  double share = 1.0;
  const Eigen::MatrixXd factor = host_.omega().llt().matrixL();
  for (Eigen::Index k = 0; k < psi.size(); ++k) {
    const coordinates::entry& e = scale_.entries()[static_cast<std::size_t>(k)];
    double most = longest_log_step;
    if (e.theta >= 0) {
      const fixed_effect& t = host_.model().thetas()[static_cast<std::size_t>(e.theta)];
      if (!e.logarithm) most = std::max(1.0, 0.5 * std::fabs(psi(k)));
      if (t.role == theta_role::typical_value && t.law == distribution::normal)
        for (const auto& column : host_.model().columns())
          if (column.theta == e.theta)
            most = std::max(most, 3.0 * std::sqrt(host_.omega()(column.eta, column.eta)));
    } else if (!e.diagonal) {
      most = longest_row_share * factor.row(e.places.front().first).norm();
    }
    if (std::fabs(step(k)) > most) share = std::min(share, most / std::fabs(step(k)));
  }
  Eigen::VectorXd to = psi + share * step;
  for (Eigen::Index k = 0; k < psi.size(); ++k) {
    const coordinates::entry& e = scale_.entries()[static_cast<std::size_t>(k)];
    to(k) = std::clamp(to(k), e.lower, e.upper);
  }
  return to;
}

newton_method::ascent newton_method::climb(const whole_draw& drawn, const Eigen::VectorXd& psi,
                                           const draw_measure& here, int most_steps) const {
  ascent result{psi, 0.0, here};
  double damping = 0.0;
  double last_gain = here.gain;
  for (int s = 0; s < most_steps; ++s) {
    const draw_measure& at = result.last;
    if (at.gain < at.noise) break;
    if (s > 0 && at.gain < 10.0 * at.noise && at.gain > 0.7 * last_gain) break;
    if (!at.definite && at.gain < 10.0 && s >= steps_without_definiteness) break;
    last_gain = at.gain;
    bool moved = false;
    for (int attempt = 0; attempt < 8 && !moved; ++attempt) {
      const Eigen::VectorXd to = limited(at.step / (1.0 + damping), result.psi);
      const draw_measure there = measure(drawn, to, detail::value);
      bool sound = there.finite && there.log_likelihood > at.log_likelihood;
      for (std::size_t i = 0; i < there.subjects.size() && sound; ++i)
        if (host_.model().observations(static_cast<int>(i)) > 0)
          sound = there.subjects[i].effective_share >=
                  least_effective_share * here.subjects[i].effective_share;
      if (!sound) {
        damping = damping == 0.0 ? 0.5 : 4.0 * damping + 1.0;
        continue;
      }
      draw_measure next = measure(drawn, to, detail::derivatives);
      if (!next.finite) {
        damping = damping == 0.0 ? 0.5 : 4.0 * damping + 1.0;
        continue;
      }
      result.gained += 2.0 * (next.log_likelihood - at.log_likelihood);
      result.psi = to;
      result.last = std::move(next);
      damping = damping < 0.2 ? 0.0 : 0.25 * damping;
      moved = true;
    }
    if (!moved) break;
  }
  return result;
}

// Proposals at the moments that a draw found, for the subjects of every process.
void newton_method::follow(const draw_measure& found, newton_state& state) const {
  const population_model& model = host_.model();
  const Eigen::Index d = model.random_effects();
  Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(d + d * d + 1, model.subjects());
  for (int i = 0; i < model.subjects(); ++i) {
    const subject_measure& m = found.subjects[static_cast<std::size_t>(i)];
    if (m.mean.size() != d || !m.mean.allFinite()) continue;
    if (is_sick(m) || Eigen::LLT<Eigen::MatrixXd>(m.covariance).info() != Eigen::Success) continue;
    packed.col(i) << m.mean, m.covariance.reshaped(), 1.0;
  }
  host_.peers().gather(packed.data(), packed.rows(), packed.cols());
  for (int i = 0; i < model.subjects(); ++i) {
    if (packed(d + d * d, i) < 0.5) continue;
    std::vector<draw_component>& own = state.proposals[static_cast<std::size_t>(i)];
    const auto moved =
        single(packed.col(i).head(d), packed.col(i).segment(d, d * d).reshaped(d, d), target_ratio);
    // A mixture keeps its defensive part.
    own.front().centre = moved.front().centre;
    own.front().factor = moved.front().factor;
  }
}

// Looks for likelihood where the proposals have no points. A subject in which much lies outside, or
// that is sick, is given a mode and a defensive component. `changed` tells of any.
bool newton_method::look_widely(run_state& state, const draw_measure& found, bool& changed) const {
  const population_model& model = host_.model();
  const parameter_values at(state.theta, state.omega);
  const Eigen::Index d = model.random_effects();
  Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(1 + d + d * d, model.subjects());
  std::vector<mode_finder> finders;
  for (int w = 0; w < host_.peers().threads().size(); ++w) finders.emplace_back(host_.joint());
  for_each_own_subject(host_, population_points, [&](int i, int worker) {
    if (engine_host::stop_requested()) return;
    mode_finder& finder = finders[static_cast<std::size_t>(worker)];
    const auto own = static_cast<std::size_t>(i);
    const Eigen::MatrixXd far = population_samples(host_, i, population_points, at);
    const Eigen::VectorXd data = finder.log_data(i, far, at);
    const draw_component& main = state.newton.proposals[own].front();
    double outside = 0.0;
    Eigen::Index best = -1;
    for (Eigen::Index j = 0; j < data.size(); ++j) {
      if (!std::isfinite(data(j))) continue;
      const double distance =
          main.factor.triangularView<Eigen::Lower>().solve(far.col(j) - main.centre).squaredNorm();
      if (distance <= 4.0 + 2.0 * static_cast<double>(d)) continue;
      outside += std::exp(data(j) - found.subjects[own].log_likelihood);
      if (best < 0 || data(j) > data(best)) best = j;
    }
    outside /= population_points;
    const bool has_mixture = state.newton.proposals[own].size() > 1;
    const bool sick = is_sick(found.subjects[own]);
    normal_posterior other;
    bool second = false;
    if (best >= 0 && !has_mixture) {
      other = finder.search(i, far.col(best), at);
      const double distance =
          main.factor.triangularView<Eigen::Lower>().solve(other.phi - main.centre).squaredNorm();
      second = other.usable && distance > 4.0 &&
               std::exp(other.log_mass - found.subjects[own].log_likelihood) > most_outside;
    }
    if (second) {
      packed.col(i) << 1.0, other.phi, other.covariance.reshaped();
    } else if ((outside > most_outside || sick) && !has_mixture) {
      const normal_posterior mode = finder.search(i, main.centre, at);
      Eigen::VectorXd mu(d);
      model.means(i, state.theta.data(), mu.data());
      packed.col(i) << 2.0, mode.usable && sick ? mode.phi : mu,
          (mode.usable && sick ? Eigen::MatrixXd(4.0 * mode.covariance) : state.omega).reshaped();
    }
    // The mixture has found samples that its main component misses: a mode near them.
    const subject_measure& m = found.subjects[own];
    if (!is_sick(m) || packed(0, i) > 0.0 || m.mean.size() != d || !m.mean.allFinite()) return;
    const normal_posterior mode = finder.search(i, m.mean, at);
    if (mode.usable) packed.col(i) << 1.0, mode.phi, mode.covariance.reshaped();
  });
  for (const mode_finder& finder : finders) host_.count_evaluations(finder.evaluations());
  if (host_.agree_on_stop()) return false;
  host_.peers().gather(packed.data(), packed.rows(), packed.cols());
  changed = false;
  for (int i = 0; i < model.subjects(); ++i) {
    if (packed(0, i) < 0.5) continue;
    changed = true;
    std::vector<draw_component>& own = state.newton.proposals[static_cast<std::size_t>(i)];
    const Eigen::VectorXd centre = packed.col(i).segment(1, d);
    const Eigen::MatrixXd covariance = packed.col(i).segment(1 + d, d * d).reshaped(d, d);
    Eigen::VectorXd mu(d);
    model.means(i, state.theta.data(), mu.data());
    own.resize(1);
    own.front().share = 1.0 - 2.0 * defensive_share;
    own.push_back(single(centre, covariance, target_ratio).front());
    own.back().share = defensive_share;
    own.push_back({defensive_share, mu, state.omega.llt().matrixL()});
  }
  return true;
}

std::vector<int> newton_method::poorly_determined(const draw_measure& found,
                                                  const Eigen::VectorXd& psi) const {
  const Eigen::MatrixXd factor = host_.omega().llt().matrixL();
  const Eigen::MatrixXd covariance =
      found.definite
          ? Eigen::MatrixXd(found.information.completeOrthogonalDecomposition().pseudoInverse())
          : Eigen::MatrixXd();
  std::vector<int> result;
  for (Eigen::Index k = 0; k < psi.size(); ++k) {
    const coordinates::entry& e = scale_.entries()[static_cast<std::size_t>(k)];
    if (!e.diagonal) continue;
    const int a = e.places.front().first;
    const bool small =
        factor.row(a).norm() > 0.0 && factor(a, a) < small_share_of_row * factor.row(a).norm();
    const bool loose =
        found.information(k, k) <= 0.0 ||
        (found.definite && covariance(k, k) > undetermined_error * undetermined_error) ||
        1.0 / found.information(k, k) > undetermined_error * undetermined_error;
    if (small || loose) result.push_back(static_cast<int>(k));
  }
  return result;
}

// Newton steps over `draws` draws at fixed points, coordinates that are not free held; the last
// draw only measures.
bool newton_method::maximise(run_state& state, const std::vector<bool>& free, int draws,
                             trial_end& end) const {
  Eigen::VectorXd psi = psi_in_force();
  for (int d = 0; d < draws; ++d) {
    whole_draw drawn;
    if (!draw(state, {point_pass::purpose::trial, d},
              d + 1 < draws ? trial_samples : trial_end_samples, groups_of_a_draw, drawn))
      return false;
    draw_measure here = measure(drawn, psi, detail::derivatives);
    end = {-2.0 * here.log_likelihood, here.error};
    if (!here.finite) return true;
    for (int s = 0; s < 3 && d + 1 < draws; ++s) {
      // The step in the free coordinates alone.
      std::vector<Eigen::Index> open;
      for (std::size_t k = 0; k < free.size(); ++k)
        if (free[k]) open.push_back(static_cast<Eigen::Index>(k));
      const Eigen::MatrixXd information = here.information(open, open);
      const Eigen::VectorXd unit = information.diagonal().cwiseAbs().cwiseMax(1e-12).cwiseSqrt();
      const Eigen::MatrixXd scaled =
          unit.cwiseInverse().asDiagonal() * information * unit.cwiseInverse().asDiagonal();
      const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(scaled);
      const Eigen::MatrixXd basis = unit.cwiseInverse().asDiagonal() * solver.eigenvectors();
      const Eigen::VectorXd along = basis.transpose() * here.gradient(open);
      Eigen::VectorXd step = Eigen::VectorXd::Zero(psi.size());
      step(open) =
          basis * along.cwiseQuotient(solver.eigenvalues().cwiseAbs().cwiseMax(least_eigenvalue));
      bool moved = false;
      for (int half = 0; half < 5 && !moved; ++half, step *= 0.4) {
        const Eigen::VectorXd to = limited(step, psi);
        const draw_measure there = measure(drawn, to, detail::derivatives);
        if (!there.finite || there.log_likelihood <= here.log_likelihood) continue;
        psi = to;
        here = there;
        moved = true;
      }
      if (!moved) break;
    }
    if (!take_force(state, psi)) return true;
    follow(here, state.newton);
  }
  return true;
}

// Decides on an omega that is nearly singular, or poorly determined, by differences of sampled
// likelihoods with the same points. `moved`: the steps go on, from a better place.
bool newton_method::examine_boundary(run_state& state, const draw_measure& found,
                                     bool& moved) const {
  constexpr int draws_of_a_trial = 5;
  moved = false;
  newton_state& n = state.newton;
  n.singular.clear();
  n.indistinct.clear();
  const Eigen::VectorXd psi = psi_in_force();
  const std::vector<int> doubtful = poorly_determined(found, psi);
  if (doubtful.empty()) return true;
  const Eigen::MatrixXd factor = state.omega.llt().matrixL();
  const auto effect_of = [&](int k) {
    return scale_.entries()[static_cast<std::size_t>(k)].places.front().first;
  };
  const auto target_of = [&](int k) {
    const int a = effect_of(k);
    const double row = factor.row(a).norm();
    return row <= factor(a, a) * (1.0 + 1e-12) ? least_inflated_deviation : 0.5 * row;
  };
  const auto is_small = [&](int k) {
    const int a = effect_of(k);
    const double row = factor.row(a).norm();
    return row <= factor(a, a) * (1.0 + 1e-12) ? row < small_deviation
                                               : factor(a, a) < small_share_of_row * row;
  };
  const run_state kept = state;
  // -2 log-likelihood here at the points on which a trial ends.
  whole_draw drawn;
  if (!draw(state, {point_pass::purpose::trial, draws_of_a_trial - 1}, trial_end_samples,
            groups_of_a_draw, drawn))
    return false;
  const draw_measure now = measure(drawn, psi, detail::derivatives);
  const trial_end inside{-2.0 * now.log_likelihood, now.error};
  drawn = {};
  // How far below the other end of a trial must lie to count.
  const auto margin = [&](const trial_end& end) {
    return trial_errors * std::hypot(inside.error, end.error);
  };
  const auto restore = [&] {
    state.theta = kept.theta;
    state.omega = kept.omega;
    n.proposals = kept.newton.proposals;
    take_force(state, psi);
  };
  // The maximum from elsewhere, coordinate `held` (or none) staying where it is.
  const auto try_from = [&](const Eigen::VectorXd& there, int held, trial_end& end) {
    std::vector<bool> free(static_cast<std::size_t>(scale_.size()), true);
    if (held >= 0) free[static_cast<std::size_t>(held)] = false;
    end = {std::numeric_limits<double>::infinity(), 0.0};
    return !leap_to(state, there) || maximise(state, free, draws_of_a_trial, end);
  };

  // Where L_aa is tiny its gradient vanishes whether or not the likelihood rises with it: such a
  // place is left once, upwards.
  Eigen::VectorXd more = psi;
  for (const int k : doubtful)
    if (is_small(k)) more(k) = std::log(target_of(k));
  if (more != psi && !n.inflated) {
    n.inflated = true;
    trial_end inflated;
    if (!try_from(more, -1, inflated)) return false;
    if (inflated.minus2ll < inside.minus2ll - std::max(inflation_gain, margin(inflated))) {
      n.samples = trial_samples;
      moved = true;
      return true;
    }
    restore();
  }
  for (const int k : doubtful) {
    if (is_small(k)) {
      n.singular.push_back(name_of_singular(state.omega, effect_of(k)));
      continue;
    }
    Eigen::VectorXd less = psi;
    less(k) -= removal;
    trial_end removed;
    if (!try_from(less, k, removed)) return false;
    if (removed.minus2ll < inside.minus2ll - std::max(decisive, margin(removed)) &&
        n.removals < most_removals) {
      ++n.removals;
      n.samples = trial_samples;
      moved = true;
      return true;
    }
    restore();
    if (removed.minus2ll < inside.minus2ll + decisive)
      n.indistinct.push_back(name_of_singular(state.omega, effect_of(k)));
  }
  return true;
}

// What vanishes in words: a variance of its own, or the closest correlation.
std::string newton_method::name_of_singular(const Eigen::MatrixXd& omega, int effect) const {
  const auto name = [&](int i) {
    return host_.model().effects()[static_cast<std::size_t>(i)].name;
  };
  const Eigen::MatrixXd factor = omega.llt().matrixL();
  int with = -1;
  double closest = 0.0;
  for (int other = 0; other < omega.rows(); ++other) {
    const double r =
        std::fabs(omega(effect, other)) / std::sqrt(omega(effect, effect) * omega(other, other));
    if (other == effect || r <= closest) continue;
    closest = r;
    with = other;
  }
  if (with >= 0 && factor(effect, effect) < 0.5 * factor.row(effect).norm())
    return fmt::format("corr({},{})", name(std::min(effect, with)), name(std::max(effect, with)));
  return fmt::format("omega({})", name(effect));
}

bool newton_method::settle(run_state& state) const {
  constexpr int most_draws_to_settle = 6;
  std::vector<normal_posterior> modes;
  double laplace = 0.0;
  if (!find_modes(host_, parameter_values(state.theta, state.omega), true, modes, laplace))
    return false;
  propose_from(modes, state);
  newton_state& n = state.newton;
  for (int d = 1; d <= most_draws_to_settle; ++d) {
    whole_draw drawn;
    if (!draw(state, {point_pass::purpose::draw, d}, verdict_samples, groups_of_a_draw, drawn))
      return false;
    const draw_measure here = measure(drawn, psi_in_force(), detail::derivatives);
    state.records.push_back({d, -2.0 * here.log_likelihood, state.theta, state.omega});
    n.sick.clear();
    for (int i = 0; i < host_.model().subjects(); ++i)
      if (host_.model().observations(i) > 0 && is_sick(here.subjects[static_cast<std::size_t>(i)]))
        n.sick.push_back(i);
    if (here.finite) follow(here, n);
    bool changed = false;
    if (d > 1 && here.finite && !look_widely(state, here, changed)) return false;
    if (d > 1 && n.sick.empty() && !changed) break;
  }
  return true;
}

bool newton_method::step(run_state& state) const {
  const std::size_t known = state.records.size();
  if (!advance(state)) return false;
  if (state.records.size() > known) {
    state.records.back().theta = state.theta;
    state.records.back().omega = state.omega;
  }
  return true;
}

bool newton_method::advance(run_state& state) const {
  const run_state before = state;
  const auto stopped = [&] {
    state = before;
    host_.set_theta(state.theta);
    host_.set_omega(state.omega);
    return false;
  };
  newton_state& n = state.newton;
  if (!n.started) return start(state) || stopped();

  // Fresh points; what they say before any step on them is the test.
  // A setting above its default is a floor.
  const int floor =
      settings_.samples > 300
          ? std::min(static_cast<int>(std::bit_ceil(static_cast<unsigned>(settings_.samples))),
                     most_samples_of_a_draw)
          : 0;
  const int samples = std::max(n.samples, floor);
  whole_draw drawn;
  ++n.draws;
  if (!draw(state, {point_pass::purpose::draw, n.draws}, samples, groups_of_a_draw, drawn))
    return stopped();
  const Eigen::VectorXd psi = psi_in_force();
  draw_measure here = measure(drawn, psi, detail::derivatives);
  n.gain_ahead = here.gain;
  n.noise = here.noise;
  n.sick.clear();
  n.most_failed = 0.0;
  for (int i = 0; i < host_.model().subjects(); ++i) {
    if (host_.model().observations(i) == 0) continue;
    const subject_measure& m = here.subjects[static_cast<std::size_t>(i)];
    if (is_sick(m)) n.sick.push_back(i);
    n.most_failed = std::max(n.most_failed, m.failed);
  }
  state.records.push_back({n.draws, -2.0 * here.log_likelihood, state.theta, state.omega});
  if (!here.finite) {
    // Proposals that miss the posterior altogether: modes anew.
    std::vector<normal_posterior> modes;
    double laplace = 0.0;
    if (!find_modes(host_, parameter_values(state.theta, state.omega), true, modes, laplace))
      return stopped();
    for (std::size_t i = 0; i < modes.size(); ++i)
      if (modes[i].usable) n.proposals[i] = single(modes[i].phi, modes[i].covariance, target_ratio);
    if (++n.vain >= most_draws_in_vain) {
      n.trouble = "the likelihood of a subject is not finite";
      state.ended = true;
    }
    return true;
  }

  const bool enough = samples >= verdict_samples;
  const bool arrived = here.gain - here.noise <= gain_limit && here.noise <= noise_limit;
  if (enough && (!n.sick.empty() || (arrived && !n.checked))) {
    bool changed = false;
    if (!look_widely(state, here, changed)) return stopped();
    n.checked = true;
    if (changed) {
      n.checked = false;
      return true;
    }
  }
  const bool healthy = n.sick.empty();
  bool vain = false;
  if (enough && arrived && healthy) {
    bool moved = false;
    if (!examine_boundary(state, here, moved)) return stopped();
    if (moved) return true;
    const ascent last = climb(drawn, psi, here, 1);
    if (last.gained <= last_step_ratio * here.gain + last_step_slack && take_force(state, last.psi))
      follow(last.last, n);
    n.arrived = true;
    state.ended = true;
  } else {
    const ascent up = climb(drawn, psi, here, most_newton_steps);
    if (!take_force(state, up.psi)) {
      n.trouble = "the steps left the positive definite matrices";
      state.ended = true;
      return true;
    }
    follow(up.last, n);
    const bool noise_is_left = here.gain <= std::max(noise_limit, 3.0 * here.noise);
    if ((noise_is_left || up.gained < 0.5) && (here.noise > noise_limit || !enough)) {
      vain = n.samples >= most_samples_of_a_draw;
      n.samples = n.samples < 1024 ? std::min(4 * n.samples, 1024)
                                   : std::min(2 * n.samples, most_samples_of_a_draw);
    }
  }
  n.vain = vain ? n.vain + 1 : n.vain;
  if (!state.ended && n.vain >= most_draws_in_vain) {
    bool moved = false;
    if (!examine_boundary(state, here, moved)) return stopped();
    if (!moved) {
      n.trouble = "the points allowed do not tell what is still ahead from noise";
      state.ended = true;
    }
    n.vain = 0;
  }
  if (!state.ended && n.draws >= std::min(most_draws, settings_.max_iterations)) {
    n.trouble = fmt::format("not at rest after {} draws", n.draws);
    state.ended = true;
  }
  n.held.clear();
  const Eigen::VectorXd end = psi_in_force();
  for (Eigen::Index k = 0; k < end.size(); ++k) {
    const coordinates::entry& e = scale_.entries()[static_cast<std::size_t>(k)];
    if (e.theta >= 0 && (end(k) <= e.lower || end(k) >= e.upper)) n.held.push_back(e.theta);
  }
  state.theta = host_.theta();
  state.omega = host_.omega();
  return true;
}

method_conclusion newton_method::conclude(const run_state& state) const {
  const newton_state& n = state.newton;
  method_conclusion result;
  result.singular = n.singular;
  result.held_by_bounds = n.held;
  std::vector<std::string> sick;
  for (const int i : n.sick)
    sick.push_back(host_.model().data().subjects[static_cast<std::size_t>(i)].id);
  const std::string figures = fmt::format(
      "gain ahead {:.2g} +- {:.2g} in -2 log-likelihood on points that the fit has not "
      "used",
      n.gain_ahead, n.noise);
  result.converged = n.arrived && n.singular.empty() && n.most_failed <= most_failures;
  if (!n.trouble.empty())
    result.reason = fmt::format("{}; {}", n.trouble, figures);
  else if (!n.arrived)
    result.reason = fmt::format("{}", figures);
  else if (!n.singular.empty())
    result.reason =
        fmt::format("omega is singular: {}; -2 log-likelihood is no better away from there; {}",
                    fmt::join(n.singular, ", "), figures);
  else if (n.most_failed > most_failures)
    result.reason = fmt::format("the model cannot be evaluated at {:.0f} % of a subject's samples",
                                100.0 * n.most_failed);
  else
    result.reason = figures;
  if (!sick.empty()) result.reason += fmt::format("; poorly sampled: {}", fmt::join(sick, ", "));
  return result;
}

}  // namespace varda
