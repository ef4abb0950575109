// SPDX-License-Identifier: Apache-2.0
#include "varda/method/newton/startup.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <Eigen/QR>
#include <algorithm>
#include <cmath>
#include <limits>

#include "statsubs/estep/proposals.h"
#include "varda/host/subjects.h"
#include "varda/inference/minimise.h"
#include "varda/method/newton/coordinates.h"
#include "varda/support/orderless_sums.h"

namespace varda {

namespace {

// Perturbed start values: so many about the start, as many again about the best of them.
constexpr int candidates = 256;
constexpr int climbed = 5;
constexpr double wide = 1.0;  // standard deviation of logarithms
constexpr double coefficient_share = 0.5;

constexpr int most_iterations = 20;
constexpr int iterations_after_new_modes = 6;
constexpr double settled = 0.1;
// No variance falls below this share of the last in one iteration, nor below `least_variance` on a
// logarithmic scale.
constexpr double least_shrinkage = 0.5;
constexpr double least_variance = 0.04;

constexpr int wide_samples = 64;

// Parameters to start from follow from so many subjects, spread over all of them.
constexpr int most_subjects = 1000;

// A stream of uniform numbers that nothing but its address decides.
class uniforms {
 public:
  explicit uniforms(std::uint64_t address) : address_(address) {}
  double next() {
    constexpr std::uint64_t golden = 0x9e3779b97f4a7c15U;
    return (static_cast<double>(mixed(address_ + ++count_ * golden) >> 12) + 0.5) * 0x1p-52;
  }
  double normal() { return statsubs::dnorminv(next()); }

 private:
  std::uint64_t address_;
  std::uint64_t count_ = 0;
};

// Reduces what each process computed of its own subjects, in the order of the subjects.
double sum_of(const engine_host& host, Eigen::VectorXd& by_subject) {
  host.peers().gather(by_subject.data(), 1, by_subject.size());
  return by_subject.sum();
}

bool counts(const engine_host& host, int subject) {
  return owns(host, subject) && host.model().observations(subject) > 0;
}

bool is_free_scale(const fixed_effect& t) {
  return t.role == theta_role::residual_deviation && t.is_scale && !t.fixed;
}

// The subjects with observations, or as many of them as parameters to start from follow from.
struct participants {
  participants(const engine_host& host, bool few) : included(subjects_of(host)) {
    const auto n = static_cast<std::int64_t>(included.size());
    for (std::int64_t i = 0; i < n; ++i) {
      const auto subject = static_cast<int>(i);
      const bool chosen =
          !few || n <= most_subjects || (i + 1) * most_subjects / n != i * most_subjects / n;
      if (!chosen || host.model().observations(subject) == 0) continue;
      included[static_cast<std::size_t>(i)] = 1;
      if (owns(host, subject)) own.push_back(subject);
    }
  }
  bool includes(int subject) const { return included[static_cast<std::size_t>(subject)] != 0; }

  std::vector<char> included;
  std::vector<int> own;  // of this process

 private:
  static std::vector<char> subjects_of(const engine_host& host) {
    return std::vector<char>(static_cast<std::size_t>(host.model().subjects()), 0);
  }
};

// What an observation pays for residual deviations that are large shares of their predictions. As
// such a share b grows and the prediction f falls, the density of y with deviation b f becomes that
// about 0, whatever f is: without a price the pooled fit may end far from any data, where nothing
// leads back.
double price_of_vanishing(const population_model& model, const Eigen::VectorXd& theta) {
  constexpr double free_share = 1.5;
  double price = 0.0;
  Eigen::Index at = model.first_of_endpoints();
  for (const endpoint& of : model.specification().endpoints) {
    if (!of.is_normal()) continue;
    const residual_error& error = of.residual;
    const bool is_pair =
        error.kind == error_kind::combined || error.kind == error_kind::combined_sd;
    if ((is_pair || error.kind == error_kind::proportional) && !error.proportional_fixed) {
      const double share = std::max(free_share, error.proportional);
      price += std::pow(std::max(std::log(theta(at) / share), 0.0), 2);
    }
    at += is_pair || error.kind == error_kind::power ? 2 : 1;
  }
  return price;
}

struct pooled_fit {
  double value = 0.0;
  double scale = 1.0;
};

// Common factors of the residual deviations, about 1.
std::vector<double> coarse_ladder() {
  constexpr int rungs = 17;
  constexpr double ratio = 1.6;
  std::vector<double> factors;
  for (int r = 0; r < rungs; ++r) factors.push_back(std::pow(ratio, r - rungs / 2));
  return factors;
}

Eigen::VectorXd scaled_deviations(const population_model& model, Eigen::VectorXd theta,
                                  double factor) {
  for (std::size_t k = 0; k < model.thetas().size(); ++k)
    if (is_free_scale(model.thetas()[k])) theta(static_cast<Eigen::Index>(k)) *= factor;
  return theta;
}

// Whether the thetas agree in all fixed effects of a kind.
template <class Kind>
bool agree_in(const population_model& model, const std::vector<Eigen::VectorXd>& thetas,
              Kind is_of_kind) {
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    if (!is_of_kind(model.thetas()[k])) continue;
    const auto at = static_cast<Eigen::Index>(k);
    for (const Eigen::VectorXd& theta : thetas)
      if (theta(at) != thetas.front()(at)) return false;
  }
  return true;
}

// The fits of all subjects at the typical values, with the price of vanishing predictions, residual
// deviations scaled by the best of the factors: a measure of start values that needs no random
// effects. One for each theta.
std::vector<pooled_fit> pooled_fits(const engine_host& host, const participants& among,
                                    const std::vector<Eigen::VectorXd>& thetas,
                                    const std::vector<double>& factors,
                                    scratch_of_workers& scratch) {
  const population_model& model = host.model();
  const auto rungs = static_cast<Eigen::Index>(factors.size());
  const auto count = static_cast<Eigen::Index>(thetas.size());
  double observations = 0.0;
  for (std::size_t i = 0; i < among.included.size(); ++i)
    if (among.included[i] != 0) observations += model.observations(static_cast<int>(i));
  // Thetas between which predictions differ in nothing but the means of phi are individuals of one
  // block, and of one block of densities where their residual errors are the same or differ in one
  // scale of all residuals. That one block serves all factors too.
  const Eigen::Index at_once =
      agree_in(model, thetas, [](const fixed_effect& t) { return t.moves_predictions(); }) ? count
                                                                                           : 1;
  const int scale = model.scale_deviation();
  const bool same_errors = agree_in(model, thetas, [](const fixed_effect& t) {
    return t.role == theta_role::residual_deviation;
  });
  std::vector<Eigen::VectorXd> scaled;
  for (const Eigen::VectorXd& theta : thetas)
    for (const double factor : factors) scaled.push_back(scaled_deviations(model, theta, factor));
  const auto with = [&](Eigen::Index c, Eigen::Index r) -> const Eigen::VectorXd& {
    return scaled[static_cast<std::size_t>(rungs * c + r)];
  };
  // With q the sum of squared residuals over s^2, the objective n log s + q / 2 at k s is larger by
  // n log k + q (1 / k^2 - 1) / 2: of each factor of each theta, against the model's start, which
  // no search leads astray.
  const double usual = scale >= 0 ? model.start_theta()(scale) : 0.0;
  Eigen::ArrayXd logarithms, changes;
  if (scale >= 0) {
    logarithms.resize(rungs * count);
    changes.resize(rungs * count);
    for (Eigen::Index c = 0; c < count; ++c)
      for (Eigen::Index r = 0; r < rungs; ++r) {
        const double k = with(c, r)(scale) / usual;
        logarithms(rungs * c + r) = std::log(k);
        changes(rungs * c + r) = 0.5 * (1.0 / (k * k) - 1.0);
      }
  }
  // A sum for each factor of each theta.
  static_assert(most_subjects <= orderless_sums::most_numbers);
  std::vector<orderless_sums> sums(static_cast<std::size_t>(host.peers().threads().size()),
                                   orderless_sums(rungs * count));
  for_each_subject(host, among.own, static_cast<int>(count), [&](int i, int worker) {
    orderless_sums& own_sums = sums[static_cast<std::size_t>(worker)];
    Eigen::MatrixXd phi(model.random_effects(), at_once);
    Eigen::MatrixXd f;
    Eigen::VectorXd objective;
    Eigen::VectorXd squares;
    for (Eigen::Index first = 0; first < count; first += at_once) {
      for (Eigen::Index c = 0; c < at_once; ++c)
        model.means(i, thetas[static_cast<std::size_t>(first + c)].data(), phi.col(c).data());
      const Eigen::VectorXd& theta = thetas[static_cast<std::size_t>(first)];
      host.joint().predict(i, theta.data(), phi, f, scratch[worker].densities);
      scratch[worker].evaluations += at_once;
      if (scale >= 0) {
        Eigen::VectorXd at_usual = theta;
        at_usual(scale) = usual;
        host.joint().of_data(i, at_usual.data(), f, objective, squares);
        const auto n = static_cast<double>(f.cols());
        for (Eigen::Index c = 0; c < at_once; ++c)
          for (Eigen::Index k = rungs * (first + c); k < rungs * (first + c + 1); ++k)
            own_sums.add(k, objective(c) + n * logarithms(k) + squares(c) * changes(k));
        continue;
      }
      for (Eigen::Index r = 0; r < rungs; ++r) {
        if (same_errors) host.joint().of_data(i, with(first, r).data(), f, objective, squares);
        for (Eigen::Index c = 0; c < at_once; ++c) {
          if (!same_errors)
            host.joint().of_data(i, with(first + c, r).data(), f.row(c), objective, squares);
          own_sums.add(rungs * (first + c) + r, objective(same_errors ? c : 0));
        }
      }
    }
  });
  for (std::size_t w = 1; w < sums.size(); ++w) sums.front().add(sums[w]);
  host.peers().add_up(sums.front().parts().data(), sums.front().parts().size());
  const Eigen::VectorXd totals = sums.front().totals();
  std::vector<pooled_fit> result;
  for (Eigen::Index c = 0; c < count; ++c) {
    Eigen::VectorXd total = totals.segment(rungs * c, rungs);
    for (Eigen::Index r = 0; r < rungs; ++r)
      total(r) += observations * price_of_vanishing(model, with(c, r));
    Eigen::Index best = 0;
    const double value = total.minCoeff(&best);
    result.push_back({value, factors[static_cast<std::size_t>(best)]});
  }
  return result;
}

// Moves the free values that are no residual deviations, by so much each: logarithms of what is
// positive, shares of what is not.
Eigen::VectorXd moved_by(const population_model& model, const Eigen::VectorXd& theta,
                         const Eigen::VectorXd& by) {
  Eigen::VectorXd result = theta;
  Eigen::Index at = 0;
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    if (t.fixed || t.role == theta_role::residual_deviation) continue;
    double& value = result(static_cast<Eigen::Index>(k));
    const double z = by(at++);
    if (t.role == theta_role::covariate_effect || t.role == theta_role::direct_effect)
      value += coefficient_share * z;
    else if (t.is_positive())
      value *= std::exp(z);
    else
      value += z * (t.law == distribution::logit_normal ? 1.0 : std::max(std::fabs(value), 1.0));
    value = std::clamp(value, t.lower, t.upper);
  }
  return result;
}

Eigen::Index values_to_move(const population_model& model) {
  Eigen::Index count = 0;
  for (const fixed_effect& t : model.thetas())
    count += !t.fixed && t.role != theta_role::residual_deviation ? 1 : 0;
  return count;
}

// The maxima of the pooled fit next to each of `from`.
std::vector<Eigen::VectorXd> pooled_maxima(const engine_host& host, const participants& among,
                                           const std::vector<Eigen::VectorXd>& from,
                                           scratch_of_workers& scratch) {
  constexpr double first_step = 0.3;
  constexpr double precision = 0.02;
  const population_model& model = host.model();
  const Eigen::Index n = values_to_move(model);
  const auto at = [&](std::size_t search, const Eigen::VectorXd& x) {
    return scaled_deviations(model, moved_by(model, from[search], x.head(n)), std::exp(x(n)));
  };
  const auto values = [&](const std::vector<asked_point>& asked) {
    std::vector<Eigen::VectorXd> thetas;
    for (const asked_point& p : asked) thetas.push_back(at(p.search, p.x));
    std::vector<double> result;
    for (const pooled_fit& fit : pooled_fits(host, among, thetas, {1.0}, scratch))
      result.push_back(fit.value);
    return result;
  };
  const std::vector<minimum> found = minimise_together(
      values, std::vector<Eigen::VectorXd>(from.size(), Eigen::VectorXd::Zero(n + 1)),
      Eigen::VectorXd::Constant(n + 1, first_step), precision);
  std::vector<Eigen::VectorXd> result;
  for (std::size_t s = 0; s < found.size(); ++s) result.push_back(at(s, found[s].x));
  return result;
}

Eigen::VectorXd perturbed(const population_model& model, const Eigen::VectorXd& theta,
                          double deviation, uniforms& draw) {
  Eigen::VectorXd by(values_to_move(model));
  for (double& z : by) z = deviation * draw.normal();
  return moved_by(model, theta, by);
}

// Whether some value that is no residual deviation lies far from the other's.
bool are_apart(const population_model& model, const Eigen::VectorXd& one,
               const Eigen::VectorXd& other) {
  constexpr double far = 0.5;  // on the scale of a logarithm
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    if (t.fixed || t.role == theta_role::residual_deviation) continue;
    const auto at = static_cast<Eigen::Index>(k);
    const double distance = t.is_positive()
                                ? std::log(one(at) / other(at))
                                : (one(at) - other(at)) / std::max(std::fabs(other(at)), 1.0);
    if (std::fabs(distance) > far) return true;
  }
  return false;
}

// The maxima of the pooled fit that can be reached from the start and from the best of many
// perturbed start values: the best, and the best that is far from it. What is second for the pooled
// fit may be first for the population's.
std::vector<Eigen::VectorXd> screen(engine_host& host, const participants& among,
                                    const Eigen::VectorXd& start) {
  const population_model& model = host.model();
  scratch_of_workers scratch(host);
  uniforms draw(
      address_of(model.specification().estimation.seed, {point_pass::purpose::screening, 0}, 0));
  struct candidate {
    pooled_fit fit;
    Eigen::VectorXd theta;
  };
  std::vector<candidate> all = {
      {pooled_fits(host, among, {start}, coarse_ladder(), scratch).front(), start}};
  std::vector<Eigen::VectorXd> thetas;
  for (int c = 0; c < candidates; ++c) thetas.push_back(perturbed(model, start, wide, draw));
  const std::vector<pooled_fit> fits = pooled_fits(host, among, thetas, coarse_ladder(), scratch);
  for (std::size_t c = 0; c < fits.size(); ++c) all.push_back({fits[c], thetas[c]});
  std::stable_sort(all.begin() + 1, all.end(), [](const candidate& one, const candidate& other) {
    return one.fit.value < other.fit.value;
  });
  all.resize(1 + climbed);
  thetas.clear();
  for (const candidate& c : all) thetas.push_back(scaled_deviations(model, c.theta, c.fit.scale));
  thetas = pooled_maxima(host, among, thetas, scratch);
  const std::vector<pooled_fit> maxima = pooled_fits(host, among, thetas, {1.0}, scratch);
  for (std::size_t c = 0; c < all.size(); ++c) all[c] = {maxima[c], thetas[c]};
  host.count_evaluations(scratch.evaluations());
  std::stable_sort(all.begin(), all.end(), [](const candidate& one, const candidate& other) {
    return one.fit.value < other.fit.value;
  });
  std::vector<Eigen::VectorXd> best = {all.front().theta};
  for (const candidate& c : all)
    if (best.size() == 1 && std::isfinite(c.fit.value) && are_apart(model, c.theta, best.front()))
      best.push_back(c.theta);
  return best;
}

// One process's modes for all: phi, covariance, density and mass, by subject.
void share(const engine_host& host, const participants& among,
           std::vector<normal_posterior>& modes) {
  const int effects = host.model().random_effects();
  const int size = effects + effects * effects + 3;
  Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(size, host.model().subjects());
  for (int i = 0; i < host.model().subjects(); ++i) {
    if (!counts(host, i) || !among.includes(i)) continue;
    const normal_posterior& m = modes[static_cast<std::size_t>(i)];
    packed.col(i) << m.phi, m.covariance.reshaped(), m.log_density, m.log_mass,
        m.usable ? 1.0 : 0.0;
    if (!m.usable) packed.col(i).segment(effects + effects * effects, 2).setZero();
  }
  host.peers().gather(packed.data(), packed.rows(), packed.cols());
  for (int i = 0; i < host.model().subjects(); ++i) {
    if (!among.includes(i)) continue;
    normal_posterior& m = modes[static_cast<std::size_t>(i)];
    m.phi = packed.col(i).head(effects);
    m.covariance = packed.col(i).segment(effects, effects * effects).reshaped(effects, effects);
    m.log_density = packed(size - 3, i);
    m.log_mass = packed(size - 2, i);
    m.usable = packed(size - 1, i) > 0.5;
  }
}

}  // namespace

Eigen::MatrixXd population_samples(const engine_host& host, int subject, int count,
                                   const parameter_values& at) {
  const population_model& model = host.model();
  uniforms draw(address_of(model.specification().estimation.seed,
                           {point_pass::purpose::screening, 1}, subject));
  Eigen::VectorXd mu(model.random_effects());
  model.means(subject, at.theta.data(), mu.data());
  Eigen::MatrixXd z(mu.size(), count);
  for (double& value : z.reshaped()) value = draw.normal();
  return (at.prior.factor().triangularView<Eigen::Lower>() * z).colwise() + mu;
}

namespace {

bool find_modes(engine_host& host, const participants& among, const parameter_values& at,
                bool widely, std::vector<normal_posterior>& modes, double& laplace) {
  const population_model& model = host.model();
  const bool known = !modes.empty();
  modes.resize(static_cast<std::size_t>(model.subjects()));
  std::vector<mode_finder> finders;
  for (int w = 0; w < host.peers().threads().size(); ++w) finders.emplace_back(host.joint());
  for_each_subject(host, among.own, wide_samples, [&](int i, int worker) {
    if (engine_host::stop_requested()) return;
    mode_finder& finder = finders[static_cast<std::size_t>(worker)];
    Eigen::VectorXd mu(model.random_effects());
    normal_posterior& mode = modes[static_cast<std::size_t>(i)];
    model.means(i, at.theta.data(), mu.data());
    Eigen::VectorXd from = mu;
    if (known) {
      Eigen::MatrixXd both(mu.size(), 2);
      both << mu, mode.phi;
      const Eigen::VectorXd value = finder.log_density(i, both, at);
      if (value(1) > value(0)) from = mode.phi;
    }
    mode = finder.search(i, from, at);
    if (!widely) return;
    const Eigen::MatrixXd far = population_samples(host, i, wide_samples, at);
    const Eigen::VectorXd value = finder.log_density(i, far, at);
    const Eigen::LLT<Eigen::MatrixXd> factor(mode.covariance);
    Eigen::Index best = -1;
    for (Eigen::Index j = 0; j < value.size(); ++j) {
      const double distance = factor.matrixL().solve(far.col(j) - mode.phi).squaredNorm();
      if (distance > 4.0 + 2.0 * static_cast<double>(mu.size()) && std::isfinite(value(j)) &&
          (best < 0 || value(j) > value(best)))
        best = j;
    }
    if (best < 0) return;
    const normal_posterior other =
        mode.usable ? finder.search_beside(i, far.col(best), at, mode.phi, factor.matrixL())
                    : finder.search(i, far.col(best), at);
    if (other.usable && (!mode.usable || other.log_mass > mode.log_mass)) mode = other;
  });
  for (const mode_finder& finder : finders) host.count_evaluations(finder.evaluations());
  if (engine_host::agree_on_stop()) return false;
  share(host, among, modes);
  laplace = 0.0;
  for (int i = 0; i < model.subjects(); ++i)
    if (among.includes(i)) {
      const normal_posterior& m = modes[static_cast<std::size_t>(i)];
      laplace += m.usable ? -2.0 * m.log_mass : 1e10;
    }
  return true;
}

}  // namespace

bool find_modes(engine_host& host, const parameter_values& at, bool widely,
                std::vector<normal_posterior>& modes, double& laplace) {
  return find_modes(host, participants(host, false), at, widely, modes, laplace);
}

namespace {

// The parameters that the modes and their covariances suggest.
class two_stage {
 public:
  two_stage(engine_host& host)
      : host_(host), model_(host.model()), scratch_(host), scale_(host.model()) {}
  ~two_stage() { host_.count_evaluations(scratch_.evaluations()); }
  two_stage(const two_stage&) = delete;
  two_stage& operator=(const two_stage&) = delete;

  // Moves theta and omega; returns the largest change: of typical values in deviations of the
  // random effect, of logarithms of variances and residual deviations.
  double step(const std::vector<normal_posterior>& modes, Eigen::VectorXd& theta,
              Eigen::MatrixXd& omega) {
    const double means = update_means(modes, theta, omega);
    const double variances = update_omega(modes, theta, omega);
    const double rest = update_data(modes, theta);
    return std::max({means, variances, rest});
  }

 private:
  double update_means(const std::vector<normal_posterior>& modes, Eigen::VectorXd& theta,
                      const Eigen::MatrixXd& omega) const {
    const random_effect_density prior(omega);
    std::vector<int> positions;
    for (const auto& column : model_.columns())
      if (!model_.thetas()[static_cast<std::size_t>(column.theta)].fixed)
        positions.push_back(column.theta);
    std::sort(positions.begin(), positions.end());
    positions.erase(std::unique(positions.begin(), positions.end()), positions.end());
    const auto n = static_cast<Eigen::Index>(positions.size());
    if (n == 0) return 0.0;
    Eigen::MatrixXd normal = Eigen::MatrixXd::Zero(n, n);
    Eigen::VectorXd right = Eigen::VectorXd::Zero(n);
    Eigen::VectorXd mu(model_.random_effects());
    for (int i = 0; i < model_.subjects(); ++i) {
      if (model_.observations(i) == 0 || !modes[static_cast<std::size_t>(i)].usable) continue;
      Eigen::MatrixXd design = Eigen::MatrixXd::Zero(mu.size(), n);
      for (std::size_t c = 0; c < model_.columns().size(); ++c) {
        const auto& column = model_.columns()[c];
        const auto at = std::lower_bound(positions.begin(), positions.end(), column.theta);
        if (at != positions.end() && *at == column.theta)
          design(column.eta, at - positions.begin()) += model_.design(i, static_cast<int>(c));
      }
      model_.means(i, theta.data(), mu.data());
      const Eigen::MatrixXd whitened = prior.whitener() * design;
      normal += whitened.transpose() * whitened;
      right +=
          whitened.transpose() * (prior.whitener() * (modes[static_cast<std::size_t>(i)].phi - mu));
    }
    const Eigen::VectorXd move = normal.completeOrthogonalDecomposition().solve(right);
    double change = 0.0;
    for (Eigen::Index k = 0; k < n; ++k) {
      const int position = positions[static_cast<std::size_t>(k)];
      const fixed_effect& t = model_.thetas()[static_cast<std::size_t>(position)];
      const double beta = t.regression(theta(position)) + move(k);
      theta(position) = std::clamp(t.from_regression(beta), t.lower, t.upper);
      for (const auto& column : model_.columns())
        if (column.theta == position && t.role == theta_role::typical_value)
          change = std::max(change, std::fabs(move(k)) / std::sqrt(omega(column.eta, column.eta)));
    }
    return change;
  }

  double least_of(int eta) const {
    const int k = model_.effects()[static_cast<std::size_t>(eta)].parameter;
    const fixed_effect& t = model_.thetas()[static_cast<std::size_t>(k)];
    if (t.law != distribution::normal) return least_variance;
    return least_variance * std::max(std::pow(t.start, 2), 1e-12);
  }

  double update_omega(const std::vector<normal_posterior>& modes, const Eigen::VectorXd& theta,
                      Eigen::MatrixXd& omega) const {
    const auto& elements = model_.omega_elements();
    Eigen::VectorXd sums = Eigen::VectorXd::Zero(static_cast<Eigen::Index>(elements.size()));
    Eigen::VectorXd number = sums;
    Eigen::VectorXd mu(model_.random_effects());
    for (int i = 0; i < model_.subjects(); ++i) {
      const normal_posterior& m = modes[static_cast<std::size_t>(i)];
      if (model_.observations(i) == 0 || !m.usable) continue;
      model_.means(i, theta.data(), mu.data());
      const Eigen::VectorXd eta = m.phi - mu;
      for (Eigen::Index e = 0; e < sums.size(); ++e)
        for (const auto& [row, column] : elements[static_cast<std::size_t>(e)].places) {
          if (!model_.has_effect(i, row)) continue;
          sums(e) += eta(row) * eta(column) + m.covariance(row, column);
          number(e) += 1.0;
        }
    }
    Eigen::MatrixXd next = omega;
    for (Eigen::Index e = 0; e < sums.size(); ++e) {
      const omega_element& element = elements[static_cast<std::size_t>(e)];
      if (element.fixed || number(e) == 0.0) continue;
      for (const auto& [row, column] : element.places)
        next(row, column) = next(column, row) = sums(e) / number(e);
    }
    double change = 0.0;
    for (const omega_element& element : elements) {
      if (element.fixed || !element.is_variance()) continue;
      for (const auto& [row, same] : element.places) {
        const double least = std::max(least_shrinkage * omega(row, row), least_of(row));
        // With the correlations as they are.
        if (next(row, row) < least) {
          const double factor = std::sqrt(least / next(row, row));
          next.row(row) *= factor;
          next.col(row) *= factor;
        }
        change = std::max(change, std::fabs(std::log(next(row, row) / omega(row, row))));
      }
    }
    if (next.allFinite() && next.llt().info() == Eigen::Success) omega = next;
    return change;
  }

  // Residual deviations and parameters on which predictions depend directly, by scoring steps at
  // the 2d sigma points of every subject.
  double update_data(const std::vector<normal_posterior>& modes, Eigen::VectorXd& theta) {
    std::vector<int> residual, moving;
    for (std::size_t k = 0; k < model_.thetas().size(); ++k) {
      const fixed_effect& t = model_.thetas()[k];
      if (t.fixed) continue;
      if (t.role == theta_role::residual_deviation) residual.push_back(static_cast<int>(k));
      if (t.moves_predictions()) moving.push_back(static_cast<int>(k));
    }
    double change = 0.0;
    if (!moving.empty()) change = move_predictions(modes, moving, theta);
    constexpr int scoring_steps = 10;
    if (residual.empty()) return change;
    make_sigma_points(modes);
    predict(theta);
    const Eigen::VectorXd before = theta;
    for (int s = 0; s < scoring_steps; ++s) {
      const int first = model_.first_of_endpoints();
      const auto m = static_cast<Eigen::Index>(model_.observed().parameters().size());
      Eigen::VectorXd gradient = Eigen::VectorXd::Zero(m);
      Eigen::MatrixXd scatter = Eigen::MatrixXd::Zero(m, m);
      Eigen::MatrixXd packed = Eigen::MatrixXd::Zero(m + m * m, model_.subjects());
      for_each_own_subject(host_, 2 * model_.random_effects(), [&](int i, int) {
        if (!usable(modes, i)) return;
        const Eigen::MatrixXd& f = predictions_[static_cast<std::size_t>(i)];
        if (f.size() == 0) return;  // a stop came first
        const Eigen::VectorXd weights =
            Eigen::VectorXd::Constant(f.rows(), 1.0 / static_cast<double>(f.rows()));
        Eigen::MatrixXd g;
        Eigen::MatrixXd h;
        model_.observed().derivatives(model_.data().subjects[static_cast<std::size_t>(i)], f,
                                      theta.data(), weights, g, h);
        if (!g.allFinite() || !h.allFinite()) return;
        packed.col(i) << g.transpose() * weights, h.reshaped();
      });
      host_.peers().gather(packed.data(), packed.rows(), packed.cols());
      const Eigen::VectorXd total = packed.rowwise().sum();
      gradient = total.head(m);
      scatter = -total.tail(m * m).reshaped(m, m);
      for (const fixed_effect& t : model_.observed().parameters())
        if (t.fixed) {
          const auto k = &t - model_.observed().parameters().data();
          gradient(k) = 0.0;
          scatter.row(k).setZero();
          scatter.col(k).setZero();
          scatter(k, k) = 1.0;
        }
      const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(scatter);
      const double widest = std::max(solver.eigenvalues().cwiseAbs().maxCoeff(), 1e-300);
      const Eigen::VectorXd step =
          solver.eigenvectors() *
          (solver.eigenvectors().transpose() * gradient)
              .cwiseQuotient(solver.eigenvalues().cwiseAbs().cwiseMax(1e-3 * widest));
      if (!step.allFinite()) break;
      for (Eigen::Index k = 0; k < m; ++k)
        theta(first + k) *= std::exp(std::clamp(step(k), -1.0, 1.0));
      if (step.cwiseAbs().maxCoeff() < 0.01) break;
    }
    for (const int position : residual)
      change = std::max(change, std::fabs(std::log(theta(position) / before(position))));
    return change;
  }

  bool usable(const std::vector<normal_posterior>& modes, int i) const {
    return counts(host_, i) && modes[static_cast<std::size_t>(i)].usable;
  }

  void make_sigma_points(const std::vector<normal_posterior>& modes) {
    const Eigen::Index d = model_.random_effects();
    points_.assign(modes.size(), {});
    for_each_own_subject(host_, 2 * model_.random_effects(), [&](int i, int) {
      if (!usable(modes, i)) return;
      const normal_posterior& m = modes[static_cast<std::size_t>(i)];
      const Eigen::MatrixXd factor =
          std::sqrt(static_cast<double>(d)) * Eigen::MatrixXd(m.covariance.llt().matrixL());
      Eigen::MatrixXd& points = points_[static_cast<std::size_t>(i)];
      points.resize(d, 2 * d);
      points << factor.colwise() + m.phi, (-factor).colwise() + m.phi;
    });
    predictions_.assign(modes.size(), {});
  }

  void predict(const Eigen::VectorXd& theta) {
    for_each_own_subject(host_, 2 * model_.random_effects(), [&](int i, int worker) {
      const auto at = static_cast<std::size_t>(i);
      if (points_[at].size() == 0) return;
      host_.joint().predict(i, theta.data(), points_[at], predictions_[at],
                            scratch_[worker].densities);
      scratch_[worker].evaluations += points_[at].cols();
    });
  }

  // One Newton step by differences at the sigma points, clipped.
  double move_predictions(const std::vector<normal_posterior>& modes,
                          const std::vector<int>& positions, Eigen::VectorXd& theta) {
    constexpr double step = 1e-3;
    constexpr double longest = 0.5;
    make_sigma_points(modes);
    const auto n = static_cast<Eigen::Index>(positions.size());
    const auto moved = [&](const Eigen::VectorXd& by) {
      Eigen::VectorXd result = theta;
      for (Eigen::Index k = 0; k < n; ++k) {
        const int position = positions[static_cast<std::size_t>(k)];
        const fixed_effect& t = model_.thetas()[static_cast<std::size_t>(position)];
        double& value = result(position);
        value = t.is_positive() ? value * std::exp(by(k))
                                : value + by(k) * std::max(std::fabs(value), 1.0);
        value = std::clamp(value, t.lower, t.upper);
      }
      return result;
    };
    const auto total = [&](const Eigen::VectorXd& by) {
      const Eigen::VectorXd at = moved(by);
      predict(at);
      Eigen::VectorXd by_subject = Eigen::VectorXd::Zero(model_.subjects());
      for_each_own_subject(host_, 2 * model_.random_effects(), [&](int i, int) {
        if (!usable(modes, i)) return;
        const Eigen::MatrixXd& f = predictions_[static_cast<std::size_t>(i)];
        if (f.size() == 0) return;  // a stop came first
        Eigen::VectorXd value;
        Eigen::VectorXd squares;
        host_.joint().of_data(i, at.data(), f, value, squares);
        by_subject(i) = value.mean();
      });
      return sum_of(host_, by_subject);
    };
    const Eigen::VectorXd zero = Eigen::VectorXd::Zero(n);
    const double here = total(zero);
    Eigen::VectorXd gradient(n), curvature(n), up(n), down(n);
    Eigen::MatrixXd hessian(n, n);
    for (Eigen::Index k = 0; k < n; ++k) {
      const Eigen::VectorXd unit = step * Eigen::VectorXd::Unit(n, k);
      up(k) = total(unit);
      down(k) = total(-unit);
      gradient(k) = (up(k) - down(k)) / (2.0 * step);
      hessian(k, k) = (up(k) - 2.0 * here + down(k)) / (step * step);
      for (Eigen::Index l = 0; l < k; ++l) {
        const Eigen::VectorXd both = unit + step * Eigen::VectorXd::Unit(n, l);
        hessian(k, l) = hessian(l, k) =
            (total(both) + total(-both) + 2.0 * here - up(k) - down(k) - up(l) - down(l)) /
            (2.0 * step * step);
      }
    }
    if (!gradient.allFinite() || !hessian.allFinite()) return 0.0;
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(hessian);
    const double widest = std::max(solver.eigenvalues().cwiseAbs().maxCoeff(), 1e-300);
    Eigen::VectorXd move =
        -(solver.eigenvectors() *
          (solver.eigenvectors().transpose() * gradient)
              .cwiseQuotient(solver.eigenvalues().cwiseAbs().cwiseMax(1e-6 * widest)));
    const double length = move.cwiseAbs().maxCoeff();
    if (length > longest) move *= longest / length;
    for (int half = 0; half < 6; ++half, move *= 0.5) {
      const double value = total(move);
      if (!(value < here)) continue;
      theta = moved(move);
      return move.cwiseAbs().maxCoeff();
    }
    return 0.0;
  }

  engine_host& host_;
  const population_model& model_;
  scratch_of_workers scratch_;
  coordinates scale_;
  std::vector<Eigen::MatrixXd> points_, predictions_;
};

bool iterate(engine_host& host, const participants& among, int most, start_result& at) {
  two_stage update(host);
  for (int k = 0; k < most; ++k) {
    const parameter_values now(at.theta, at.omega);
    if (!now.prior.is_definite() || !find_modes(host, among, now, false, at.modes, at.laplace))
      return !engine_host::stopped();
    if (update.step(at.modes, at.theta, at.omega) < settled) break;
  }
  return find_modes(host, among, parameter_values(at.theta, at.omega), false, at.modes, at.laplace);
}

// Second modes that hold more mass than the first, and what follows from them.
bool take_second_modes(engine_host& host, const participants& among, start_result& at) {
  std::vector<normal_posterior> others = at.modes;
  double laplace = 0.0;
  if (!find_modes(host, among, parameter_values(at.theta, at.omega), true, others, laplace))
    return false;
  bool changed = false;
  for (std::size_t i = 0; i < others.size(); ++i)
    if (others[i].usable && others[i].log_mass > at.modes[i].log_mass + 1e-3) changed = true;
  if (!changed) return true;
  at.modes = others;
  return iterate(host, among, iterations_after_new_modes, at);
}

}  // namespace

Eigen::VectorXd pooled_start(engine_host& host) {
  return screen(host, participants(host, true), host.theta()).front();
}

bool start_up(engine_host& host, std::vector<start_result>& found) {
  const participants few(host, true);
  const Eigen::VectorXd start = host.theta();
  std::vector<Eigen::VectorXd> beginnings = screen(host, few, start);
  beginnings.insert(beginnings.begin(), start);
  std::vector<start_result> ends;
  for (const Eigen::VectorXd& theta : beginnings) {
    start_result end{theta, host.omega(), {}, 0.0};
    if (!iterate(host, few, most_iterations, end)) return false;
    ends.push_back(std::move(end));
  }
  std::stable_sort(ends.begin(), ends.end(),
                   [](const start_result& one, const start_result& other) {
                     return one.laplace < other.laplace;
                   });
  found.clear();
  for (start_result& end : ends) {
    const bool is_new = std::all_of(found.begin(), found.end(), [&](const start_result& known) {
      return are_apart(host.model(), end.theta, known.theta);
    });
    if (!is_new) continue;
    if (!take_second_modes(host, few, end)) return false;
    found.push_back(std::move(end));
  }
  if (host.model().subjects() <= most_subjects) return true;
  // The others have no modes yet.
  for (start_result& end : found) {
    end.modes.clear();
    if (!find_modes(host, parameter_values(end.theta, end.omega), true, end.modes, end.laplace))
      return false;
  }
  return true;
}

}  // namespace varda
