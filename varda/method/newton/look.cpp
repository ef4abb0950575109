// SPDX-License-Identifier: Apache-2.0
#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <vector>

#include "varda/host/subjects.h"
#include "varda/method/newton/limits.h"
#include "varda/method/newton/moments.h"
#include "varda/method/newton/newton.h"

namespace varda {

using namespace newton_limits;

namespace {

// Population samples of a look, and the share of a likelihood outside its proposal that calls for a
// mixture.
constexpr int population_points = 128;
constexpr double most_outside = 0.02;
constexpr double defensive_share = 0.25;
// Of a subject's proposal: what does not help will not. Each takes more points than the one before.
constexpr int most_repairs = 4;
constexpr double more_points = 2.0;
// With more random effects than these a sample of the population or of a wide normal density hits
// nothing.
constexpr Eigen::Index few_effects = 8;
constexpr double most_points = 8.0;
constexpr double only_more_points = -1.0;

}  // namespace

// Looks for likelihood where the proposals have no points. A subject in which much lies outside, or
// that is sick, is given a mode and a defensive component.
bool newton_method::look_widely(run_state& state, const draw_measure& found,
                                std::vector<int>& repaired) const {
  const population_model& model = host_.model();
  const parameter_values at(state.theta, state.omega);
  const Eigen::Index d = model.random_effects();
  // What is found beside the main component: whether (or that more points will do), where, how
  // wide; and the moments that are to take its place: whether, which.
  const Eigen::Index part = 1 + d + d * d;
  const Eigen::Index known = d + d * d + found.skewness.rows();
  Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(part + 1 + known, model.subjects());
  const auto effective_samples = [&](int i) {
    const auto own = static_cast<std::size_t>(i);
    return found.subjects[own].effective_share * found.samples *
           total_share(*state.newton.proposals[own]);
  };
  std::vector<mode_finder> finders;
  for (int w = 0; w < host_.peers().threads().size(); ++w) finders.emplace_back(host_.joint());
  for_each_own_subject(host_, population_points, [&](int i, int worker) {
    if (engine_host::stop_requested()) return;
    mode_finder& finder = finders[static_cast<std::size_t>(worker)];
    const auto own = static_cast<std::size_t>(i);
    const Eigen::MatrixXd far = population_samples(host_, i, population_points, at);
    const Eigen::VectorXd data = finder.log_data(i, far, at);
    const draw_component& main = state.newton.proposals[own]->front();
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
    const bool has_mixture = state.newton.proposals[own]->size() > 1;
    const bool sick = is_sick(found.subjects[own]);
    normal_posterior other;
    bool second = false;
    if (best >= 0 && !has_mixture) {
      other = finder.search_beside(i, far.col(best), at, main.centre, main.factor);
      second =
          other.usable &&
          main.factor.triangularView<Eigen::Lower>().solve(other.phi - main.centre).squaredNorm() >
              4.0 &&
          std::exp(other.log_mass - found.subjects[own].log_likelihood) > most_outside;
    }
    if (second) {
      packed.col(i).head(part) << 1.0, other.phi, other.covariance.reshaped();
    } else if (sick && !has_mixture && d > few_effects) {
      packed(0, i) = only_more_points;
    } else if ((outside > most_outside || sick) && !has_mixture) {
      const normal_posterior mode = finder.search(i, main.centre, at);
      Eigen::VectorXd mu(d);
      model.means(i, state.theta.data(), mu.data());
      packed.col(i).head(part) << 2.0, mode.usable && sick ? mode.phi : mu,
          (mode.usable && sick ? Eigen::MatrixXd(4.0 * mode.covariance) : state.omega).reshaped();
    }
    const auto mean = found.moments.col(i).head(d);
    if (const auto covariance = found.moments.col(i).tail(d * d).reshaped(d, d);
        sick && found.moments.col(i).allFinite() && effective_samples(i) >= enough_for_moments(d) &&
        Eigen::LLT<Eigen::MatrixXd>(covariance).info() == Eigen::Success)
      packed.col(i).tail(1 + known) << 1.0, found.moments.col(i), found.skewness.col(i);
    // The mixture has found samples that its main component misses: a mode near them.
    if (!sick || packed(0, i) != 0.0 || found.subjects[own].effective_share == 0.0 ||
        !mean.allFinite())
      return;
    const normal_posterior mode = finder.search(i, mean, at);
    if (mode.usable) packed.col(i).head(part) << 1.0, mode.phi, mode.covariance.reshaped();
  });
  for (const mode_finder& finder : finders) host_.count_evaluations(finder.evaluations());
  if (host_.agree_on_stop()) return false;
  host_.peers().gather(packed.data(), packed.rows(), packed.cols());
  repaired.clear();
  state.newton.repairs.resize(static_cast<std::size_t>(model.subjects()), 0);
  for (int i = 0; i < model.subjects(); ++i) {
    int& repairs = state.newton.repairs[static_cast<std::size_t>(i)];
    if (packed(0, i) == 0.0 || repairs >= most_repairs) continue;
    const double points = std::pow(more_points, repairs++);
    repaired.push_back(i);
    draw_mixture& shared = state.newton.proposals[static_cast<std::size_t>(i)];
    std::vector<draw_component> own = {shared->front()};
    if (const auto moments = packed.col(i).tail(1 + known); moments(0) > 0.5) {
      const double share = found.subjects[static_cast<std::size_t>(i)].effective_share;
      follow_moments(moments.tail(known), share, effective_samples(i), own.front());
    }
    if (packed(0, i) == only_more_points) {
      own.front().share = std::min(more_points * points, most_points);
      shared = mixture_of(std::move(own));
      continue;
    }
    const Eigen::VectorXd centre = packed.col(i).segment(1, d);
    const Eigen::MatrixXd covariance = packed.col(i).segment(1 + d, d * d).reshaped(d, d);
    Eigen::VectorXd mu(d);
    model.means(i, state.theta.data(), mu.data());
    own.front().share = points * (1.0 - 2.0 * defensive_share);
    own.push_back(single(centre, covariance, target_ratio).front());
    own.back().share = points * defensive_share;
    own.push_back({points * defensive_share, mu, state.omega.llt().matrixL()});
    shared = mixture_of(std::move(own));
  }
  return true;
}

}  // namespace varda
