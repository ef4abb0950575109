// SPDX-License-Identifier: Apache-2.0
//
// A maximum near a singular omega: whether there is one inside, and whether it differs from none.
#include <fmt/format.h>

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>
#include <limits>

#include "varda/method/newton/limits.h"
#include "varda/method/newton/newton.h"

namespace varda {

using namespace newton_limits;

namespace {

constexpr double small_share_of_row = 0.1;
constexpr double small_deviation = 0.02;  // of a random effect without correlations
constexpr double removal = 2.0;           // log L_aa less
constexpr double decisive = 0.02;         // in -2 log-likelihood
constexpr double inflation_gain = 0.01;
constexpr double least_inflated_deviation = 0.1;
constexpr int most_draws_of_a_trial = 7;
constexpr int least_draws_of_a_trial = 3;
constexpr double rest = 0.02;             // gain ahead, less its noise, at which a trial ends
constexpr double inflation_errors = 1.0;  // that a difference has to exceed
constexpr double removal_errors = 2.0;
constexpr int most_removals = 2;
constexpr double no_limit = std::numeric_limits<double>::infinity();

bool is_sampled_badly(const subject_measure& m) {
  return m.effective_share > 0.0 && is_sick(m);
}

// -2 log-likelihood of the one less that of the other, and its error: where both have the same
// points much of their errors is common to a subject's groups.
struct difference {
  double value = 0.0;
  double error = 0.0;
};

difference between(const draw_measure& one, const draw_measure& other) {
  const Eigen::MatrixXd by_group = one.group_log_likelihood - other.group_log_likelihood;
  const auto groups = static_cast<double>(by_group.rows());
  const Eigen::MatrixXd off = by_group.rowwise() - by_group.colwise().mean();
  return {-2.0 * (one.log_likelihood - other.log_likelihood),
          2.0 * std::sqrt(off.squaredNorm() / (groups * (groups - 1.0)))};
}

}  // namespace

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

bool newton_method::maximise(run_state& state, int held, double hopeless, draw_measure& end) const {
  constexpr int most_steps = 3;
  bool at_rest = false;
  for (int d = 1;; ++d) {
    const bool last = at_rest || d == most_draws_of_a_trial;
    whole_draw drawn;
    if (!draw(state, {point_pass::purpose::trial, last ? 0 : d}, points_factor_ * trial_samples,
              groups_of_a_draw, drawn))
      return false;
    if (held >= 0) drawn.weak = {{Eigen::VectorXd::Unit(scale_.size(), held)}};
    const Eigen::VectorXd psi = psi_in_force();
    end = measure(drawn, psi, detail::derivatives);
    if (!end.finite || last) return true;
    const bool healthy = std::none_of(end.subjects.begin(), end.subjects.end(), is_sampled_badly);
    // Twice what is ahead, and three errors.
    const double within_reach = -2.0 * end.log_likelihood - 2.0 * end.gain - 3.0 * end.error();
    if (healthy && d > least_draws_of_a_trial && within_reach > hopeless) return true;
    std::vector<int> repaired;
    if (!healthy && !look_widely(state, end, repaired)) return false;
    if (!repaired.empty()) continue;
    const ascent up = climb(drawn, psi, end, most_steps);
    if (engine_host::stopped()) return false;
    if (!take_force(state, up.psi)) return true;
    state.newton.proposals = drawn.proposals;
    follow(up.end(end), state.newton);
    at_rest = healthy && d + 1 >= least_draws_of_a_trial && up.gained < rest;
  }
}

// Decides on an omega that is nearly singular, or poorly determined, by differences of sampled
// likelihoods with the same points. `moved`: the steps go on, from a better place.
bool newton_method::examine_boundary(run_state& state, const draw_measure& found,
                                     bool& moved) const {
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
  if (!draw(state, {point_pass::purpose::trial, 0}, points_factor_ * trial_samples,
            groups_of_a_draw, drawn))
    return false;
  const draw_measure inside = measure(drawn, psi, detail::derivatives);
  drawn = {};
  const auto restore = [&] {
    state.theta = kept.theta;
    state.omega = kept.omega;
    n.proposals = kept.newton.proposals;
    take_force(state, psi);
  };
  // The maximum from elsewhere, coordinate `held` (or none) staying where it is, against here.
  const auto try_from = [&](const Eigen::VectorXd& there, int held, double hopeless,
                            difference& gained) {
    gained = {no_limit, 0.0};
    draw_measure end;
    if (!leap_to(state, there)) return true;
    if (!maximise(state, held, hopeless, end)) return false;
    if (end.finite && inside.finite) gained = between(end, inside);
    return true;
  };
  const auto is_lower = [](const difference& d, double least, double errors) {
    return d.value < -std::max(least, errors * d.error);
  };

  // Where L_aa is tiny its gradient vanishes whether or not the likelihood rises with it: such a
  // place is left once, upwards.
  Eigen::VectorXd more = psi;
  for (const int k : doubtful)
    if (is_small(k)) more(k) = std::log(target_of(k));
  if (more != psi && !n.inflated) {
    n.inflated = true;
    difference inflated;
    if (!try_from(more, -1, -2.0 * inside.log_likelihood, inflated)) return false;
    if (is_lower(inflated, inflation_gain, inflation_errors)) {
      n.samples = points_factor_ * trial_samples;
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
    difference removed;
    if (!try_from(less, k, no_limit, removed)) return false;
    // Where the value only falls on the way there, the steps go on from there.
    if (is_lower(removed, 0.0, removal_errors) && n.removals < most_removals) {
      ++n.removals;
      n.samples = points_factor_ * trial_samples;
      moved = true;
      return true;
    }
    restore();
    if (removed.value < decisive)
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

}  // namespace varda
