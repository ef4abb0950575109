// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/singularity.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <Eigen/Eigenvalues>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <optional>

namespace varda {

namespace {

// Trials wait for so many iterations, and for a direction that has lost this share over the last
// of them.
constexpr std::size_t window = 10;
constexpr double least_loss = 0.002;
// A direction is suspicious when the data explain less than half of it.
constexpr double most_unexplained = 0.5;
// While creeping the steps of -2 log-likelihood shrink like 1/n^2, so that the sum of those to come
// is about n times the last one. Less than this must be left for the other estimates to be sound.
constexpr double most_ahead = 0.25;
// A size in the trial, relative to where the iterations stand. An interior maximum between two of
// them makes -2 log-likelihood rise again at the next.
constexpr double trial_factors[] = {0.1, 0.01, 0.001};
// Passes that let the proposals follow the subjects to another omega.
constexpr int pilot_passes = 2;
// Differences known no better than this decide nothing.
constexpr double largest_error = 0.02;

// Least eigenvalue and its eigenvector of the correlation matrix of some effects.
struct eigenpair {
  double value = 0.0;
  Eigen::VectorXd vector;
  Eigen::VectorXd deviations;  // square roots of omega's diagonal
};

eigenpair least_eigenpair(const Eigen::MatrixXd& omega, const std::vector<int>& effects) {
  const Eigen::MatrixXd block = omega(effects, effects);
  const Eigen::VectorXd deviations = block.diagonal().cwiseSqrt();
  const Eigen::VectorXd scale = deviations.cwiseInverse();
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(scale.asDiagonal() * block *
                                                              scale.asDiagonal());
  return {solver.eigenvalues()(0), solver.eigenvectors().col(0), deviations};
}

double correlation(const Eigen::MatrixXd& omega, int i, int j) {
  return omega(i, j) / std::sqrt(omega(i, i) * omega(j, j));
}

// The proposals at another omega, with each subject's likelihood taken for normal: its precision
// is that of the conditional distribution less that of the population.
void move_proposals(const engine_host& host, const e_step& found, const Eigen::MatrixXd& from,
                    const Eigen::MatrixXd& to, proposals& adaptive) {
  const Eigen::MatrixXd change = to.inverse() - from.inverse();
  for (int i = 0; i < host.model().subjects(); ++i) {
    if (host.model().observations(i) == 0) continue;
    const subject_integral& s = found.subjects[static_cast<std::size_t>(i)];
    const Eigen::MatrixXd precision = s.covariance.inverse();
    const Eigen::MatrixXd covariance = (precision + change).inverse();
    adaptive.follow(i, covariance * (precision * s.mean),
                    0.5 * (covariance + covariance.transpose()), s.effective_samples);
  }
}

void follow(const engine_host& host, const e_step& found, proposals& adaptive) {
  for (int i = 0; i < host.model().subjects(); ++i) {
    const subject_integral& s = found.subjects[static_cast<std::size_t>(i)];
    if (host.model().observations(i) > 0)
      adaptive.follow(i, s.mean, s.covariance, s.effective_samples);
  }
}

int trial_samples(const engine_host& host) {
  return singularity_watch::trial_samples(host.model().specification().estimation.samples);
}

// -2 log-likelihood at the parameters in force in several passes over points of their own, the same
// in every trial; and the last pass. Nothing after a stop.
struct trial {
  Eigen::VectorXd minus2ll;
  e_step found;
};

std::optional<trial> try_out(engine_host& host, const proposals& frozen) {
  trial result{Eigen::VectorXd(singularity_watch::trial_passes), {}};
  for (int pass = 1; pass <= singularity_watch::trial_passes; ++pass) {
    integrate_all(host, frozen, {point_pass::purpose::trial, pass}, trial_samples(host),
                  result.found);
    if (!result.found.complete) return std::nullopt;
    result.minus2ll(pass - 1) = -2.0 * result.found.log_likelihood;
  }
  return result;
}

// Whether `later` has not risen above `earlier` beyond the error of their difference. One standard
// error is little: a sound omega close to a singular one rises by little more, and an omega that is
// becoming singular is tried again later.
bool no_worse(const Eigen::VectorXd& earlier, const Eigen::VectorXd& later) {
  const Eigen::ArrayXd rise = later - earlier;
  const auto n = static_cast<double>(rise.size());
  const double error = std::sqrt((rise - rise.mean()).square().sum() / (n - 1.0) / n);
  return error < largest_error && rise.mean() < error;
}

}  // namespace

double vanishing_direction::size(const Eigen::MatrixXd& omega) const {
  const int first = copies_.front().front();
  return is_variance() ? omega(first, first) : least_eigenpair(omega, copies_.front()).value;
}

double vanishing_direction::unexplained(const population_model& model, const Eigen::MatrixXd& omega,
                                        const e_step& found) const {
  const eigenpair least = least_eigenpair(omega, copies_.front());
  const Eigen::VectorXd direction = least.vector.cwiseQuotient(least.deviations);
  double sum = 0.0;
  double count = 0.0;
  for (const std::vector<int>& effects : copies_)
    for (int i = 0; i < model.subjects(); ++i) {
      if (model.observations(i) == 0 || !model.has_effect(i, effects.front())) continue;
      const Eigen::MatrixXd& covariance = found.subjects[static_cast<std::size_t>(i)].covariance;
      sum += direction.dot(covariance(effects, effects) * direction) / least.value;
      count += 1.0;
    }
  return sum / count;
}

Eigen::MatrixXd vanishing_direction::shrunk(Eigen::MatrixXd omega, double factor) const {
  for (const std::vector<int>& effects : copies_) {
    if (is_variance()) {
      // With the correlations as they are.
      omega.row(effects.front()) *= std::sqrt(factor);
      omega.col(effects.front()) *= std::sqrt(factor);
      continue;
    }
    const eigenpair least = least_eigenpair(omega, effects);
    const Eigen::VectorXd lost = least.deviations.cwiseProduct(least.vector);
    omega(effects, effects) -= (1.0 - factor) * least.value * lost * lost.transpose();
  }
  return omega;
}

std::pair<int, int> vanishing_direction::closest(const Eigen::MatrixXd& omega) const {
  const std::vector<int>& effects = copies_.front();
  const Eigen::VectorXd part = least_eigenpair(omega, effects).vector.cwiseAbs();
  std::vector<std::size_t> order(effects.size());
  for (std::size_t k = 0; k < order.size(); ++k) order[k] = k;
  std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return part(static_cast<Eigen::Index>(a)) > part(static_cast<Eigen::Index>(b));
  });
  const auto [less, more] = std::minmax(effects[order[0]], effects[order[1]]);
  return {less, more};
}

std::string vanishing_direction::name(const population_model& model,
                                      const Eigen::MatrixXd& omega) const {
  const auto effect = [&](int i) { return model.effects()[static_cast<std::size_t>(i)].name; };
  if (is_variance()) return fmt::format("omega({})", effect(copies_.front().front()));
  const auto [one, other] = closest(omega);
  return fmt::format("corr({},{})", effect(one), effect(other));
}

std::string vanishing_direction::tendency(const population_model& model,
                                          const Eigen::MatrixXd& omega) const {
  const std::string here = name(model, omega);
  if (is_variance()) return fmt::format("{} tends to 0 ({:.3g})", here, size(omega));
  const auto [one, other] = closest(omega);
  const double value = correlation(omega, one, other);
  if (std::fabs(value) > 0.9)
    return fmt::format("{} tends to {} ({:.4f})", here, value > 0.0 ? 1 : -1, value);
  std::vector<std::string> all;
  for (const int e : copies_.front())
    all.push_back(model.effects()[static_cast<std::size_t>(e)].name);
  return fmt::format("the random effects of {} become linearly dependent, {} most of all",
                     fmt::join(all, ", "), here);
}

std::vector<vanishing_direction> vanishing_directions(const population_model& model) {
  // Where each free variance stands in every occasion, by its first place.
  std::vector<std::vector<int>> places(static_cast<std::size_t>(model.random_effects()));
  for (const omega_element& e : model.omega_elements())
    if (e.is_variance() && !e.fixed)
      for (const auto& [row, column] : e.places)
        places[static_cast<std::size_t>(e.row())].push_back(row);

  std::vector<vanishing_direction> result;
  for (int e = 0; e < model.random_effects(); ++e) {
    const std::vector<int>& own = places[static_cast<std::size_t>(e)];
    if (own.empty()) continue;
    std::vector<std::vector<int>> variance(own.size());
    std::vector<std::vector<int>> block(own.size());
    bool first = true;
    for (int other = 0; other < model.random_effects(); ++other) {
      if (model.omega_mask()(e, other) == 0.0) continue;
      first = first && other >= e;
      for (std::size_t copy = 0; copy < own.size(); ++copy)
        block[copy].push_back(places[static_cast<std::size_t>(other)][copy]);
    }
    for (std::size_t copy = 0; copy < own.size(); ++copy) variance[copy] = {own[copy]};
    result.emplace_back(variance);
    if (first && block.front().size() > 1) result.emplace_back(block);
  }
  return result;
}

int singularity_watch::trial_samples(int samples) {
  constexpr int enough = 4096;
  return std::max(samples, std::min(4 * samples, enough));
}

singularity_watch::singularity_watch(const engine_host& host)
    : directions_(vanishing_directions(host.model())), next_trial_(window + 1) {}

// -2 log-likelihood goes down, and not far any more.
bool singularity_watch::creeping() const {
  const std::size_t n = history_.size();
  if (n < next_trial_) return false;
  const double step =
      (history_[n - 1 - window].minus2ll - history_[n - 1].minus2ll) / static_cast<double>(window);
  return step * static_cast<double>(n) < most_ahead;
}

bool singularity_watch::falling(std::size_t direction) const {
  const std::size_t n = history_.size();
  return history_[n - 1].sizes[direction] <
         (1.0 - least_loss) * history_[n - 1 - window].sizes[direction];
}

void singularity_watch::examine(engine_host& host, const e_step& found, proposals& adaptive) {
  record now{-2.0 * found.log_likelihood, {}};
  for (const vanishing_direction& d : directions_) now.sizes.push_back(d.size(host.omega()));
  history_.push_back(std::move(now));
  if (!creeping()) return;
  bool tried = false;
  for (std::size_t k = 0; k < directions_.size(); ++k)
    if (falling(k)) tried = try_direction(k, host, found, adaptive) || tried;
  if (tried) next_trial_ = 2 * history_.size();
}

void singularity_watch::examine_at_rest(engine_host& host, const e_step& found,
                                        proposals& adaptive) {
  for (std::size_t k = 0; k < directions_.size(); ++k) try_direction(k, host, found, adaptive);
}

// Whether the data say so little of a direction that it was tried.
bool singularity_watch::try_direction(std::size_t k, engine_host& host, const e_step& found,
                                      proposals& adaptive) {
  const vanishing_direction& direction = directions_[k];
  if (direction.unexplained(host.model(), host.omega(), found) < most_unexplained) return false;
  if (vanishes(host, direction, adaptive)) {
    names_.push_back(direction.name(host.model(), host.omega()));
    tendencies_.push_back(direction.tendency(host.model(), host.omega()));
  }
  return true;
}

bool singularity_watch::vanishes(engine_host& host, const vanishing_direction& direction,
                                 proposals& adaptive) const {
  const Eigen::MatrixXd start = host.omega();
  const proposals before = adaptive;
  const auto give_up = [&] {
    host.set_omega(start);
    adaptive = before;
    return false;
  };
  std::optional<trial> last = try_out(host, adaptive);
  if (!last) return give_up();
  Eigen::VectorXd least = last->minus2ll;
  e_step pilot;
  for (const double factor : trial_factors) {
    const Eigen::MatrixXd from = host.omega();
    if (!host.set_omega(direction.shrunk(start, factor))) return give_up();
    move_proposals(host, last->found, from, host.omega(), adaptive);
    for (int pass = 1; pass <= pilot_passes; ++pass) {
      integrate_all(host, adaptive, {point_pass::purpose::trial, pass}, varda::trial_samples(host),
                    pilot);
      if (!pilot.complete) return give_up();
      follow(host, pilot, adaptive);
    }
    last = try_out(host, adaptive);
    if (!last || !no_worse(least, last->minus2ll)) return give_up();
    if (last->minus2ll.mean() < least.mean()) least = last->minus2ll;
  }
  return true;
}

std::string singularity_watch::reason() const {
  return fmt::format(
      "omega is becoming singular: {}; the likelihood does not decrease towards the singularity",
      fmt::join(tendencies_, ", "));
}

}  // namespace varda
