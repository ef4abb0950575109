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
#include "varda/method/newton/limits.h"
#include "varda/method/newton/moments.h"
#include "varda/support/text.h"

namespace varda {

using namespace newton_limits;

namespace {

constexpr int most_draws = 40;
constexpr int most_draws_in_vain = 4;
constexpr int most_resumptions = 2;
// Of several ends of the start-up: followed until well sampled with little ahead.
constexpr int draws_of_a_choice = 8;
constexpr double settled_gain = 1.0;
// One is left that would stay above the best even if each draw to come gained so many times what
// the last did or promised.
constexpr double most_acceleration = 4.0;

// In -2 log-likelihood: converged when the gain ahead less its noise, and the noise, are below.
constexpr double gain_limit = 0.01;
constexpr double noise_limit = 0.005;
// A last step is taken where its gain does not exceed what it promised.
constexpr double last_step_ratio = 1.5;
constexpr double last_step_slack = 0.001;

// Of a measurement, put together by the processes in one go.
constexpr Eigen::Index most_figures = 1 << 20;

// Samples of a subject besides those of its normal density, as shares of these: of the population
// where the shape of the weights' tail has been above `some_tail` (that of bounded weights is
// clearly negative), and of a wider normal density where it has been above `heavy_tail`.
// Of more than so many subjects some have tails that their samples have not shown yet.
constexpr double population_share = 0.0625;
constexpr double some_tail = -0.35;
constexpr int subjects_with_hidden_tails = 4000;
constexpr double heavy_tail = 0.5;
constexpr double wide_share = 0.25;
constexpr double wide_by = 2.0;

constexpr int most_repairs_of_a_draw = 2;
constexpr int most_newton_steps = 15;
constexpr int steps_without_definiteness = 2;
// Where a measurement takes long, in samples of all subjects, a step that promises no more is taken
// without one: the next draw sees what it was worth.
constexpr double many_samples = 1 << 20;
constexpr double trusted_gain = 0.1;
constexpr double longest_log_step = 1.0;
constexpr double longest_row_share = 0.7;
// A subject is starved where its effective samples have fallen below this share of what they were
// at the draw, but for those with as many left as `ample_samples`. A step may starve few subjects.
constexpr double least_effective_share = 0.25;
constexpr double ample_samples = 32.0;
constexpr double most_starved = 0.01;

// A subject's samples are sick: few effective, or a heavy tail with not many, and a likelihood that
// is not known for that.
constexpr double sick_share = 0.10;
constexpr double sick_shape = 0.7;
constexpr double sick_share_with_shape = 0.40;
constexpr double harmless_error = 0.03;

}  // namespace

bool is_sick(const subject_measure& m) {
  const bool few = m.effective_share < sick_share ||
                   (m.shape > sick_shape && m.effective_share < sick_share_with_shape);
  return few && !(m.error <= harmless_error);
}

int points_factor(int random_effects) {
  return static_cast<int>(std::bit_ceil(static_cast<unsigned>((random_effects + 3) / 4)));
}

int verdict_points(int random_effects, int subjects) {
  const double ratio = std::sqrt(static_cast<double>(subjects) / subjects_of_verdict_samples);
  const auto more = static_cast<int>(std::bit_ceil(static_cast<unsigned>(std::ceil(ratio))));
  return points_factor(random_effects) * std::min(more * verdict_samples, most_samples_of_a_draw);
}

newton_method::newton_method(engine_host& host)
    : newton_method(host, host.model_is_costly() ? memory_of_dear_draws : memory_of_cheap_draws) {}

newton_method::newton_method(engine_host& host, std::size_t draw_memory)
    : host_(host),
      settings_(host.model().specification().estimation),
      scale_(host.model()),
      points_factor_(points_factor(host.model().random_effects())),
      verdict_points_(verdict_points(host.model().random_effects(), host.model().subjects())),
      moves_predictions_(subject_sampler(host.joint(), scale_).moves_predictions()),
      draw_memory_(draw_memory) {}

Eigen::VectorXd newton_method::psi_in_force() const {
  return scale_.of(host_.theta(), host_.omega());
}

void newton_method::begin(run_state& state) const {
  state.newton = {};
  state.newton.samples = points_factor_ * first_samples;
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
    std::vector<draw_component> components = *state.newton.proposals[i];
    draw_component& main = components.front();
    const Eigen::MatrixXd covariance =
        main.factor * main.factor.transpose() / (widening * widening);
    const Eigen::MatrixXd own = covariance.llt().solve(identity);
    const Eigen::LLT<Eigen::MatrixXd> moved(own + precision - old_precision);
    if (moved.info() == Eigen::Success) {
      host_.model().means(static_cast<int>(i), state.theta.data(), mu.data());
      const Eigen::MatrixXd next = moved.solve(identity);
      const Eigen::LLT<Eigen::MatrixXd> factor(0.5 * (next + next.transpose()));
      if (factor.info() != Eigen::Success) continue;
      main.centre = mu + moved.solve(own * (main.centre - mu));
      main.factor = widening * Eigen::MatrixXd(factor.matrixL());
    } else {
      main.factor = widening * Eigen::MatrixXd(state.omega.llt().matrixL());
    }
    state.newton.proposals[i] = mixture_of(std::move(components));
  }
  return true;
}

// Where the start-up ends in several places, the first draws of each decide.
bool newton_method::start(run_state& state) const {
  std::vector<start_result> ends;
  if (!start_up(host_, ends)) return false;
  const run_state begun = state;
  double least = std::numeric_limits<double>::infinity();
  state.ended = true;
  state.newton.trouble = "omega lost positive definiteness during start-up";
  for (const start_result& end : ends) {
    if (!host_.set_omega(end.omega)) continue;
    host_.set_theta(end.theta);
    run_state trial = begun;
    trial.theta = end.theta;
    trial.omega = end.omega;
    propose_from(end.modes, trial);
    trial.newton.started = true;
    const newton_state& n = trial.newton;
    for (int d = 1; ends.size() > 1 && d <= draws_of_a_choice && !trial.ended; ++d) {
      if (!step(trial)) return false;
      if (n.gain_ahead < settled_gain && n.sick.empty()) break;
      const std::size_t last = trial.records.size() - 1;
      if (last == 0) continue;
      const double value = trial.records[last].minus2ll;
      const double fall = std::max(n.gain_ahead, trial.records[last - 1].minus2ll - value);
      if (value - fall * most_acceleration * (draws_of_a_choice - d) > least) break;
    }
    const double value = trial.records.empty() ? end.laplace : trial.records.back().minus2ll;
    if (!(value < least)) continue;
    least = value;
    state = std::move(trial);
  }
  host_.set_theta(state.theta);
  host_.set_omega(state.omega);
  return true;
}

// A conditional distribution can have the tails of the population where its data say little of a
// parameter beyond some value, or heavy ones all around. The first hardly show in the weights until
// a sample falls there, one in a million of a trial's, so that every subject whose weights are not
// clearly bounded has samples of the population, as has every one of very many subjects: there each
// draw would find more such tails, and the maximum would move with them. The others are met by a
// wider normal density. They bound the weights. Both are drawn besides, which leaves the first
// component its net of points.
draw_mixture components_of(const population_model& model, const whole_draw& drawn, int subject) {
  const auto own = static_cast<std::size_t>(subject);
  const double tail = drawn.tails.empty() ? -1.0 : drawn.tails[own];
  const bool has_tail = tail >= some_tail || model.subjects() > subjects_with_hidden_tails;
  if (drawn.proposals[own]->size() != 1 || !has_tail) return drawn.proposals[own];
  std::vector<draw_component> result = *drawn.proposals[own];
  Eigen::VectorXd mu(model.random_effects());
  model.means(subject, drawn.theta.data(), mu.data());
  result.push_back({population_share, mu, drawn.population});
  if (tail > heavy_tail)
    result.push_back({wide_share, result[0].centre, Eigen::MatrixXd(wide_by * result[0].factor)});
  return mixture_of(std::move(result));
}

// Where there is no mode to be had the population serves.
void newton_method::propose_from(const std::vector<normal_posterior>& modes,
                                 run_state& state) const {
  Eigen::VectorXd mu(host_.model().random_effects());
  state.newton.proposals.resize(modes.size());
  for (std::size_t i = 0; i < modes.size(); ++i) {
    host_.model().means(static_cast<int>(i), state.theta.data(), mu.data());
    state.newton.proposals[i] =
        mixture_of(modes[i].usable ? single(modes[i].phi, modes[i].covariance, target_ratio)
                                   : single(mu, state.omega, target_ratio));
  }
}

bool newton_method::draw(const run_state& state, const point_pass& pass, int samples, int groups,
                         whole_draw& drawn) const {
  return draw(state, {pass, samples / groups, groups, 0, groups}, draw_memory_, drawn);
}

bool newton_method::draw_once(const run_state& state, const point_pass& pass, int samples,
                              int groups, whole_draw& drawn) const {
  return draw(state, {pass, samples / groups, groups, 0, groups},
              host_.model_is_costly() ? draw_memory_ : 0, drawn);
}

bool newton_method::draw(const run_state& state, const draw_plan& plan, std::size_t memory,
                         whole_draw& drawn) const {
  const population_model& model = host_.model();
  drawn.plan = plan;
  drawn.theta = host_.theta();
  drawn.population = host_.omega().llt().matrixL();
  drawn.proposals = state.newton.proposals;
  drawn.tails = state.newton.tails;
  drawn.kept.assign(static_cast<std::size_t>(model.subjects()), {});
  std::vector<int> kept;
  std::size_t taken = 0;
  const std::size_t room = memory_for_samples(memory, static_cast<std::size_t>(model.subjects()));
  for (const int i : own_subjects(host_)) {
    const draw_mixture from = components_of(model, drawn, i);
    taken += bytes_of_draw(model, i, *from, plan);
    if (taken > room) break;
    kept.push_back(i);
    subject_drawer::make_room(model, i, *from, plan, drawn.kept[static_cast<std::size_t>(i)]);
  }
  draw_kept(kept, drawn);
  return !engine_host::agree_on_stop();
}

// The samples of these subjects, for which there is room.
void newton_method::draw_kept(const std::vector<int>& subjects, whole_draw& drawn) const {
  const thread_team& threads = host_.peers().threads();
  const int groups = drawn.plan.groups;
  std::vector<subject_drawer> drawers;
  for (int w = 0; w < threads.size(); ++w) drawers.emplace_back(host_.joint(), host_.points());
  // A few subjects have work for many threads, group by group.
  threads.for_each(static_cast<int>(subjects.size()) * groups, [&](int item, int worker) {
    if (engine_host::stop_requested()) return;
    const int subject = subjects[static_cast<std::size_t>(item / groups)];
    const auto at = static_cast<std::size_t>(subject);
    const draw_mixture from = components_of(host_.model(), drawn, subject);
    drawers[static_cast<std::size_t>(worker)].draw_group(subject, drawn.theta, *from, drawn.plan,
                                                         item % groups, drawn.kept[at]);
  });
  for (const subject_drawer& drawer : drawers) host_.count_evaluations(drawer.evaluations());
}

bool newton_method::mend(run_state& state, const Eigen::VectorXd& psi, whole_draw& drawn,
                         draw_measure& found, bool& changed) const {
  std::vector<int> repaired;
  if (!look_widely(state, found, repaired)) return false;
  changed = !repaired.empty();
  if (!changed) return true;
  const measure_point at(scale_, psi, host_.theta(), host_.omega());
  if (!add(drawn, at, detail::derivatives, repaired, -1.0, found)) return false;
  std::vector<int> again;
  for (const int i : repaired) {
    const auto own = static_cast<std::size_t>(i);
    drawn.proposals[own] = state.newton.proposals[own];
    if (drawn.kept[own].phi.size() == 0) continue;
    again.push_back(i);
    subject_drawer::make_room(host_.model(), i, *components_of(host_.model(), drawn, i), drawn.plan,
                              drawn.kept[own]);
  }
  draw_kept(again, drawn);
  if (!add(drawn, at, detail::derivatives, repaired, 1.0, found)) return false;
  drawn.weak.clear();
  if (found.finite) judge_information(found, psi, drawn.weak);
  // What is not a number cannot be taken out of a sum.
  if (!found.finite || !std::isfinite(found.noise) || !std::isfinite(found.variance))
    found = measure(drawn, psi, detail::derivatives);
  return !engine_host::agree_on_stop();
}

draw_measure newton_method::measure(const whole_draw& drawn, const Eigen::VectorXd& psi,
                                    detail wanted) const {
  const population_model& model = host_.model();
  const Eigen::Index p = scale_.size();
  const measure_point at(scale_, psi, host_.theta(), host_.omega());
  draw_measure result;
  result.samples = drawn.plan.samples();
  result.gradient = Eigen::VectorXd::Zero(p);
  result.information = result.scatter = result.outer_products = Eigen::MatrixXd::Zero(p, p);
  result.subjects.resize(static_cast<std::size_t>(model.subjects()));
  if (wanted == detail::derivatives) {
    const Eigen::Index effects = model.random_effects();
    result.group_log_likelihood.setZero(drawn.plan.groups, model.subjects());
    result.moments.setZero(effects + effects * effects, model.subjects());
    result.skewness.setZero(effects >= effects_with_skewness ? effects : 0, model.subjects());
    if (moves_predictions_) result.shifts.setZero(effects * p, model.subjects());
  }
  if (!at.theta.allFinite() || !at.prior.is_definite()) return result;
  std::vector<int> subjects;
  for (int i = 0; i < model.subjects(); ++i)
    if (model.observations(i) > 0) subjects.push_back(i);
  result.finite = true;
  if (!add(drawn, at, wanted, subjects, 1.0, result)) return result;
  if (wanted == detail::derivatives && result.finite) judge_information(result, psi, drawn.weak);
  return result;
}

// Adds to the sums what the samples of these subjects, in ascending order, say, or takes it away
// again. Collective. False, and no sum finite, after a stop request.
bool newton_method::add(const whole_draw& drawn, const measure_point& at, detail wanted,
                        const std::vector<int>& subjects, double sign, draw_measure& sum) const {
  const Eigen::Index p = scale_.size();
  const Eigen::Index groups = drawn.plan.groups;
  // Of symmetric matrices the lower triangles by columns.
  const Eigen::Index triangle = p * (p + 1) / 2;
  const Eigen::Index figures = wanted == detail::value ? 2 : 7 + p + 2 * triangle + groups;
  struct worker_of_measure {
    subject_sampler sampler;
    subject_drawer drawer;
    subject_draw again;
    subject_details details;
    std::int64_t evaluations;
  };
  std::vector<worker_of_measure> workers;
  for (int w = 0; w < host_.peers().threads().size(); ++w)
    workers.push_back({subject_sampler(host_.joint(), scale_),
                       subject_drawer(host_.joint(), host_.points()),
                       {},
                       {},
                       0});
  // A column of figures for each subject, summed over the processes: each column stands on one.
  Eigen::MatrixXd packed;
  const auto one = [&](int i, int w, Eigen::Index column) {
    const auto own = static_cast<std::size_t>(i);
    worker_of_measure& worker = workers[static_cast<std::size_t>(w)];
    const bool kept = drawn.kept[own].phi.size() > 0;
    if (!kept)
      worker.drawer.draw(i, drawn.theta, *components_of(host_.model(), drawn, i), drawn.plan,
                         worker.again);
    subject_details& details = worker.details;
    const subject_measure m =
        worker.sampler.measure(i, kept ? drawn.kept[own] : worker.again, drawn.theta, at, wanted,
                               details, worker.evaluations);
    const bool finite = std::isfinite(m.log_likelihood);
    auto figure = packed.col(column);
    figure(0) = finite ? m.log_likelihood : -1e10;
    figure(1) = m.effective_share;
    if (sign > 0.0) sum.subjects[own] = m;
    if (wanted == detail::value || !finite) return;
    if (sign > 0.0) {
      sum.moments.col(i) << details.mean, details.covariance.reshaped();
      if (sum.skewness.size() > 0) sum.skewness.col(i) = details.skewness;
      if (moves_predictions_) sum.shifts.col(i) = details.shift.reshaped();
    }
    const auto r = static_cast<double>(groups);
    Eigen::MatrixXd scatter = Eigen::MatrixXd::Zero(p, p);
    for (Eigen::Index g = 0; g < groups; ++g) {
      const Eigen::VectorXd off = details.group_gradient.col(g) - details.gradient;
      scatter += off * off.transpose();
    }
    scatter /= r * (r - 1.0);
    figure.segment(2, 5) << m.largest_weight, m.shape, m.failed, 0.25 * m.error * m.error,
        m.scaled_squares;
    if (!std::isfinite(m.shape)) figure(3) = 0.0;
    figure.segment(7, p) = details.gradient;
    Eigen::Index at_entry = 7 + p;
    for (Eigen::Index c = 0; c < p; ++c)
      for (Eigen::Index k = c; k < p; ++k, ++at_entry) {
        figure(at_entry) = details.information(k, c);
        figure(at_entry + triangle) = scatter(k, c);
      }
    figure.tail(groups) = details.group_log_likelihood;
  };
  const std::size_t at_once =
      std::max(static_cast<std::size_t>(most_figures / figures), std::size_t{1});
  for (std::size_t first = 0; first < subjects.size(); first += at_once) {
    const std::size_t last = std::min(first + at_once, subjects.size());
    packed = Eigen::MatrixXd::Zero(figures, static_cast<Eigen::Index>(last - first));
    const std::vector<int> some(subjects.begin() + static_cast<std::ptrdiff_t>(first),
                                subjects.begin() + static_cast<std::ptrdiff_t>(last));
    std::vector<int> own;
    for (const int i : some)
      if (owns(host_, i)) own.push_back(i);
    for_each_subject(host_, own, verdict_samples, [&](int i, int worker) {
      one(i, worker, std::lower_bound(some.begin(), some.end(), i) - some.begin());
    });
    if (!engine_host::share(packed, some)) return sum.finite = false;
    for (Eigen::Index k = 0; k < packed.cols(); ++k) {
      const int i = some[static_cast<std::size_t>(k)];
      const auto figure = packed.col(k);
      sum.finite = sum.finite && figure(0) > -1e10;
      sum.log_likelihood += sign * figure(0);
      if (sign > 0.0) {
        subject_measure& m = sum.subjects[static_cast<std::size_t>(i)];
        m.log_likelihood = figure(0);
        m.effective_share = figure(1);
        if (wanted == detail::derivatives) {
          m.largest_weight = figure(2);
          m.shape = figure(3);
          m.failed = figure(4);
          m.error = 2.0 * std::sqrt(figure(5));
          m.scaled_squares = figure(6);
        }
      }
      if (wanted == detail::value) continue;
      const auto gradient = figure.segment(7, p);
      sum.variance += sign * figure(5);
      sum.gradient += sign * gradient;
      Eigen::Index at_entry = 7 + p;
      for (Eigen::Index c = 0; c < p; ++c)
        for (Eigen::Index r = c; r < p; ++r, ++at_entry) {
          sum.outer_products(r, c) += sign * gradient(r) * gradient(c);
          sum.information(r, c) += sign * figure(at_entry);
          sum.scatter(r, c) += sign * figure(at_entry + triangle);
        }
      sum.group_log_likelihood.col(i) = figure.tail(groups);
    }
  }
  for (Eigen::MatrixXd* of : {&sum.outer_products, &sum.information, &sum.scatter})
    of->triangularView<Eigen::StrictlyUpper>() = of->transpose();
  for (const worker_of_measure& worker : workers)
    host_.count_evaluations(worker.evaluations + worker.drawer.evaluations());
  sum.finite = sum.finite && sum.gradient.allFinite() && sum.information.allFinite();
  return true;
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

// Draws again at the same points, a step `by` further: every proposal goes where its subject's
// conditional mean goes to first order.
void newton_method::carry(const draw_measure& from, const Eigen::VectorXd& by,
                          const measure_point& to, whole_draw& drawn) const {
  const Eigen::Index d = host_.model().random_effects();
  Eigen::MatrixXd change = Eigen::MatrixXd::Zero(d, host_.model().subjects());
  for (const int i : own_subjects(host_))
    if (const Eigen::VectorXd own = from.shifts.col(i).reshaped(d, by.size()) * by; own.allFinite())
      change.col(i) = own;
  host_.peers().gather(change.data(), change.rows(), change.cols());
  for (std::size_t i = 0; i < drawn.proposals.size(); ++i) {
    std::vector<draw_component> components = *drawn.proposals[i];
    for (draw_component& c : components) c.centre += change.col(static_cast<Eigen::Index>(i));
    drawn.proposals[i] = mixture_of(std::move(components));
  }
  drawn.theta = to.theta;
  drawn.population = to.prior.factor();
  draw_again(drawn);
}

// The samples that are kept, from proposals that have moved.
void newton_method::draw_again(whole_draw& drawn) const {
  std::vector<int> kept;
  for (std::size_t i = 0; i < drawn.kept.size(); ++i)
    if (drawn.kept[i].phi.size() > 0) kept.push_back(static_cast<int>(i));
  draw_kept(kept, drawn);
}

// Whether a step leaves too many subjects without effective samples.
bool newton_method::starves(const draw_measure& before, const draw_measure& behind) const {
  int starved = 0;
  for (std::size_t i = 0; i < behind.subjects.size(); ++i)
    if (host_.model().observations(static_cast<int>(i)) > 0 &&
        behind.subjects[i].effective_share <
            std::min(least_effective_share * before.subjects[i].effective_share,
                     ample_samples / static_cast<double>(behind.samples)))
      ++starved;
  return starved > most_starved * host_.model().subjects();
}

newton_method::ascent newton_method::climb(whole_draw& drawn, const Eigen::VectorXd& psi,
                                           const draw_measure& here, int most_steps) const {
  ascent result{psi, 0.0, std::nullopt};
  double damping = 0.0;
  bool carried = false;  // steps are too long for samples that stand still
  double last_gain = here.gain;
  for (int s = 0; s < most_steps; ++s) {
    // With many subjects a climb takes long.
    if (engine_host::agree_on_stop()) break;
    const draw_measure& at = result.end(here);
    if (at.gain < at.noise) break;
    if (s > 0 && at.gain < 10.0 * at.noise && at.gain > 0.7 * last_gain) break;
    if (!at.definite && at.gain < 10.0 && s >= steps_without_definiteness) break;
    last_gain = at.gain;
    if (at.definite &&
        at.gain<trusted_gain&& static_cast<double>(at.samples) * host_.model().subjects()>
            many_samples) {
      result.gained += at.gain;
      result.psi = limited(at.step, result.psi);
      break;
    }
    bool moved = false;
    // What a draw is carried away from.
    const std::vector<draw_mixture> proposals = drawn.proposals;
    const Eigen::VectorXd theta = drawn.theta;
    const Eigen::MatrixXd population = drawn.population;
    for (int attempt = 0; attempt < 8 && !moved; ++attempt) {
      const Eigen::VectorXd to = limited(at.step / (1.0 + damping), result.psi);
      const auto carry_there = [&] {
        const measure_point there(scale_, to, host_.theta(), host_.omega());
        if (there.theta.allFinite() && there.prior.is_definite())
          carry(at, to - result.psi, there, drawn);
      };
      if (carried) carry_there();
      // What a first attempt finds is mostly what the next step needs.
      draw_measure next = measure(drawn, to, attempt == 0 ? detail::derivatives : detail::value);
      if (moves_predictions_ && !carried && next.finite && starves(here, next)) {
        carried = true;
        carry_there();
        next = {};
        next = measure(drawn, to, attempt == 0 ? detail::derivatives : detail::value);
      }
      const bool sound =
          next.finite && next.log_likelihood > at.log_likelihood && !starves(here, next);
      if (sound && attempt > 0) {
        next = {};  // one of many subjects takes much memory
        next = measure(drawn, to, detail::derivatives);
      }
      if (!sound || !next.finite) {
        if (drawn.proposals != proposals) {
          drawn.proposals = proposals;
          drawn.theta = theta;
          drawn.population = population;
          draw_again(drawn);
        }
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

bool newton_method::trusts_step(const draw_measure& at) const {
  return at.definite &&
         at.gain<trusted_gain&& static_cast<double>(at.samples) * host_.model().subjects()>
             many_samples;
}

// Proposals at the moments that a draw found, for the subjects of every process.
void newton_method::follow(const draw_measure& found, newton_state& state) const {
  const population_model& model = host_.model();
  const Eigen::Index d = model.random_effects();
  const Eigen::Index known = d + d * d + found.skewness.rows();
  const auto samples_of = [&](int i) {
    return found.samples * total_share(*state.proposals[static_cast<std::size_t>(i)]);
  };
  Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(known + 1, model.subjects());
  for (int i = 0; i < model.subjects(); ++i) {
    const subject_measure& m = found.subjects[static_cast<std::size_t>(i)];
    const auto moments = found.moments.col(i);
    const double effective = m.effective_share * samples_of(i);
    if (!owns(host_, i) || m.effective_share == 0.0 || !moments.allFinite() ||
        (is_sick(m) && effective < enough_for_moments(d)) ||
        Eigen::LLT<Eigen::MatrixXd>(moments.tail(d * d).reshaped(d, d)).info() != Eigen::Success)
      continue;
    packed.col(i) << moments, found.skewness.col(i), 1.0;
  }
  host_.peers().gather(packed.data(), packed.rows(), packed.cols());
  for (int i = 0; i < model.subjects(); ++i) {
    if (packed(known, i) < 0.5) continue;
    const double share = found.subjects[static_cast<std::size_t>(i)].effective_share;
    draw_mixture& shared = state.proposals[static_cast<std::size_t>(i)];
    // A mixture keeps its defensive part.
    std::vector<draw_component> own = *shared;
    follow_moments(packed.col(i).head(known), share, share * samples_of(i), own.front());
    shared = mixture_of(std::move(own));
  }
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
    if (!draw(state, {point_pass::purpose::draw, d}, points_factor_ * verdict_samples,
              groups_of_a_draw, drawn))
      return false;
    const draw_measure here = measure(drawn, psi_in_force(), detail::derivatives);
    state.records.push_back({d, -2.0 * here.log_likelihood, state.theta, state.omega});
    note(here, n);
    if (here.finite) follow(here, n);
    std::vector<int> repaired;
    if (d > 1 && here.finite && !look_widely(state, here, repaired)) return false;
    if (d > 1 && n.sick.empty() && repaired.empty()) break;
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
  if (n.draws >= std::min(most_draws, settings_.max_iterations)) {
    n.trouble = fmt::format("iteration limit reached ({})", count_of(n.draws, "draw"));
    state.ended = true;
    return true;
  }

  // Fresh points; what they say before any step on them is the test.
  // A setting above its default is a floor.
  const int floor =
      settings_.samples > 300
          ? std::min(static_cast<int>(std::bit_ceil(static_cast<unsigned>(settings_.samples))),
                     points_factor_ * most_samples_of_a_draw)
          : 0;
  const int samples = std::max(n.samples, floor);
  whole_draw drawn;
  ++n.draws;
  if (!draw(state, {point_pass::purpose::draw, n.draws}, samples, groups_of_a_draw, drawn))
    return stopped();
  const Eigen::VectorXd psi = psi_in_force();
  draw_measure here = measure(drawn, psi, detail::derivatives);
  if (here.finite) stiffen(weak_directions(drawn, psi, here), drawn, psi, here);
  note(here, n);
  state.records.push_back({n.draws, -2.0 * here.log_likelihood, state.theta, state.omega});
  if (!here.finite) {
    // Proposals that miss the posterior altogether: modes anew.
    std::vector<normal_posterior> modes;
    double laplace = 0.0;
    if (!find_modes(host_, parameter_values(state.theta, state.omega), true, modes, laplace))
      return stopped();
    for (std::size_t i = 0; i < modes.size(); ++i)
      if (modes[i].usable)
        n.proposals[i] = mixture_of(single(modes[i].phi, modes[i].covariance, target_ratio));
    if (++n.vain >= most_draws_in_vain) {
      n.trouble = "the likelihood of a subject is not finite";
      state.ended = true;
    }
    return true;
  }

  // What is left alone on a few points may show on more.
  const int least = drawn.weak.empty() ? verdict_points_
                                       : std::max(verdict_points_, points_factor_ * trial_samples);
  const int most = points_factor_ * most_samples_of_a_draw;
  const bool enough = samples >= least;
  const auto arrived = [&] {
    return here.gain - here.noise <= gain_limit && here.noise <= noise_limit;
  };
  bool changed = enough && (!n.sick.empty() || (arrived() && !n.checked));
  for (int repair = 0; changed && repair < most_repairs_of_a_draw; ++repair) {
    if (!mend(state, psi, drawn, here, changed)) return stopped();
    if (!here.finite) return true;
    n.checked = true;
    if (!changed) break;
    stiffen(weak_directions(drawn, psi, here), drawn, psi, here);
    note(here, n);
    state.records.back().minus2ll = -2.0 * here.log_likelihood;
  }
  const bool healthy = n.sick.empty();
  bool vain = false;
  if (enough && arrived() && healthy) {
    bool moved = false;
    if (!examine_boundary(state, here, moved)) return stopped();
    if (moved) return true;
    const ascent last = climb(drawn, psi, here, 1);
    if (engine_host::stopped()) return stopped();
    if (last.gained <= last_step_ratio * here.gain + last_step_slack &&
        take_force(state, last.psi)) {
      n.proposals = drawn.proposals;
      follow(last.end(here), n);
    }
    n.arrived = true;
    state.ended = true;
  } else {
    const ascent up = climb(drawn, psi, here, most_newton_steps);
    if (engine_host::stopped()) return stopped();
    if (!take_force(state, up.psi)) {
      n.trouble = "omega lost positive definiteness";
      state.ended = true;
      return true;
    }
    n.proposals = drawn.proposals;
    follow(up.end(here), n);
    const bool noise_is_left = here.gain <= std::max(noise_limit, 3.0 * here.noise);
    if ((noise_is_left || up.gained < 0.5) && (here.noise > noise_limit || !enough)) {
      const int middle = points_factor_ * trial_samples;
      vain = n.samples >= most;
      if (n.samples < verdict_points_)
        n.samples = verdict_points_;
      else
        n.samples =
            n.samples < middle ? std::min(4 * n.samples, middle) : std::min(2 * n.samples, most);
    }
  }
  n.vain = vain ? n.vain + 1 : n.vain;
  if (!state.ended && n.vain >= most_draws_in_vain) {
    bool moved = false;
    if (!examine_boundary(state, here, moved)) return stopped();
    if (!moved) {
      n.trouble = "the remaining gain cannot be told from noise with the maximum number of points";
      state.ended = true;
    }
    n.vain = 0;
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

bool newton_method::go_on(run_state& state, double gain, const Eigen::VectorXd& step) const {
  newton_state& n = state.newton;
  if (!(gain > gain_limit) || !n.arrived || !n.singular.empty() ||
      n.resumptions >= most_resumptions ||
      n.draws >= std::min(most_draws, settings_.max_iterations))
    return false;
  ++n.resumptions;
  if (const Eigen::VectorXd psi = psi_in_force();
      step.size() > 0 && take_force(state, limited(step, psi))) {
    state.records.back().theta = state.theta;
    state.records.back().omega = state.omega;
    return true;
  }
  n.samples = std::min(2 * n.samples, points_factor_ * most_samples_of_a_draw);
  n.arrived = false;
  state.ended = false;
  return true;
}

// What a draw says of the end.
void newton_method::note(const draw_measure& here, newton_state& n) const {
  n.gain_ahead = here.gain;
  n.noise = here.noise;
  n.sick.clear();
  n.most_failed = 0.0;
  n.tails.resize(here.subjects.size(), -1.0);
  for (int i = 0; i < host_.model().subjects(); ++i) {
    if (host_.model().observations(i) == 0) continue;
    const auto own = static_cast<std::size_t>(i);
    const subject_measure& m = here.subjects[own];
    if (is_sick(m)) n.sick.push_back(i);
    if (here.samples >= points_factor_ * verdict_samples && std::isfinite(m.shape))
      n.tails[own] = std::max(n.tails[own], m.shape);
    n.most_failed = std::max(n.most_failed, m.failed);
  }
}

std::string newton_method::moving(const run_state& state) const {
  const newton_state& n = state.newton;
  return n.draws > 0 ? fmt::format("remaining gain {:.2g} +- {:.1g}", n.gain_ahead, n.noise) : "";
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
      "remaining gain in -2 log-likelihood {:.2g} +- {:.2g}, on points that the fit has not "
      "used",
      n.gain_ahead, n.noise);
  result.converged = n.arrived && n.singular.empty() && n.most_failed <= most_failures;
  if (!n.trouble.empty())
    result.reason = fmt::format("{}; {}", n.trouble, figures);
  else if (!n.arrived)
    result.reason = fmt::format("{}", figures);
  else if (!n.singular.empty())
    result.reason = fmt::format(
        "omega is singular: {}; -2 log-likelihood is no lower away from the singularity; {}",
        fmt::join(n.singular, ", "), figures);
  else if (n.most_failed > most_failures)
    result.reason = fmt::format("the model cannot be evaluated at {:.0f} % of a subject's samples",
                                100.0 * n.most_failed);
  if (!sick.empty())
    result.reason += fmt::format("{}poorly sampled subjects: {}", result.reason.empty() ? "" : "; ",
                                 fmt::join(sick, ", "));
  return result;
}

}  // namespace varda
