// SPDX-License-Identifier: Apache-2.0
#include "varda/simulation/predict.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "varda/inference/minimise.h"
#include "varda/simulation/threads.h"

namespace varda {

namespace {

// Degrees of freedom of the proposals: their tails must be heavier than those of a posterior.
constexpr int degrees_of_freedom = 5;

struct weighted_draw {
  Eigen::MatrixXd etas;     // random effects x samples
  Eigen::VectorXd weights;  // sum to one
  double effective() const { return 1.0 / weights.squaredNorm(); }
};

class conditional_sampler {
 public:
  conditional_sampler(const population_model& model, int subject, const drawn_parameters& at)
      : subject_(subject),
        at_(at),
        joint_(model),
        prior_(at.omega),
        scratch_(model),
        mu_(model.random_effects()) {
    model.means(subject, at.theta.data(), mu_.data());
  }

  // Negative log joint density of data and random effects.
  double objective(const Eigen::VectorXd& eta) {
    double squares = 0.0;
    const double of_data = joint_.of_data(subject_, at_.theta.data(), mu_ + eta, squares, scratch_);
    return of_data + prior_.negative_log(eta.data());
  }

  // Mode and curvature; omega where the curvature is of no use.
  conditional_moments approximate() {
    const Eigen::VectorXd deviations = at_.omega.diagonal().cwiseSqrt();
    const auto f = [this](const Eigen::VectorXd& eta) { return objective(eta); };
    conditional_moments result;
    result.mean = minimise(f, Eigen::VectorXd::Zero(deviations.size()), 0.3 * deviations, 1e-4).x;
    const Eigen::LLT<Eigen::MatrixXd> llt(hessian(f, result.mean, 0.01 * deviations));
    const Eigen::MatrixXd identity =
        Eigen::MatrixXd::Identity(deviations.size(), deviations.size());
    result.covariance = llt.info() == Eigen::Success ? llt.solve(identity).eval() : at_.omega;
    return result;
  }

  weighted_draw draw(const conditional_moments& from, int samples, deviates& deviate) {
    const Eigen::Index effects = mu_.size();
    const Eigen::MatrixXd factor = factor_of(from.covariance);
    weighted_draw result;
    result.etas.resize(effects, samples);
    Eigen::VectorXd log_weights(samples);
    Eigen::VectorXd z(effects);
    for (int k = 0; k < samples; ++k) {
      for (double& value : z) value = deviate.normal();
      double chi_square = 0.0;
      for (int d = 0; d < degrees_of_freedom; ++d) chi_square += std::pow(deviate.normal(), 2);
      z /= std::sqrt(chi_square / degrees_of_freedom);
      result.etas.col(k) = from.mean + factor * z;
      const double log_proposal = -0.5 * static_cast<double>(degrees_of_freedom + effects) *
                                  std::log1p(z.squaredNorm() / degrees_of_freedom);
      const double log_joint = -objective(result.etas.col(k));
      log_weights(k) = std::isfinite(log_joint) ? log_joint - log_proposal
                                                : -std::numeric_limits<double>::infinity();
    }
    result.weights = (log_weights.array() - log_weights.maxCoeff()).exp();
    result.weights /= result.weights.sum();
    return result;
  }

 private:
  int subject_;
  const drawn_parameters& at_;
  density joint_;
  random_effect_density prior_;
  density_workspace scratch_;
  Eigen::VectorXd mu_;
};

conditional_moments moments_of(const weighted_draw& drawn) {
  conditional_moments result;
  result.mean = drawn.etas * drawn.weights;
  const Eigen::MatrixXd centred = drawn.etas.colwise() - result.mean;
  result.covariance = centred * drawn.weights.asDiagonal() * centred.transpose();
  return result;
}

// The least value whose cumulative weight reaches the probability.
double weighted_quantile(const Eigen::VectorXd& values, const Eigen::VectorXd& weights,
                         const std::vector<Eigen::Index>& order, double probability) {
  double sum = 0.0;
  for (const Eigen::Index k : order) {
    sum += weights(k);
    if (sum >= probability) return values(k);
  }
  return values(order.back());
}

weighted_draw sample(const population_model& given, int subject, const drawn_parameters& at,
                     const conditional_moments* known, const prediction_plan& plan,
                     Eigen::VectorXd& mean) {
  deviates draw({plan.seed, static_cast<int>(stream::conditional), subject});
  weighted_draw result;
  if (given.observations(subject) == 0) {
    const Eigen::MatrixXd factor = factor_of(at.omega);
    result.etas.resize(factor.rows(), plan.samples);
    Eigen::VectorXd z(factor.rows());
    for (int k = 0; k < plan.samples; ++k) {
      for (double& value : z) value = draw.normal();
      result.etas.col(k) = factor * z;
    }
    result.weights.setConstant(plan.samples, 1.0 / plan.samples);
    mean = Eigen::VectorXd::Zero(factor.rows());
    return result;
  }
  conditional_sampler sampler(given, subject, at);
  if (known != nullptr) {
    result = sampler.draw(*known, plan.samples, draw);
    mean = known->mean;
    return result;
  }
  // Twice: the second proposals know the moments that the first samples found.
  conditional_moments from = sampler.approximate();
  result = sampler.draw(from, plan.samples, draw);
  if (result.effective() > 2.0 * static_cast<double>(from.mean.size()) + 10.0)
    result = sampler.draw(moments_of(result), plan.samples, draw);
  mean = moments_of(result).mean;
  return result;
}

}  // namespace

std::vector<predicted_subject> predict(const population_model& given,
                                       const population_model& wanted, const drawn_parameters& at,
                                       const std::vector<conditional_moments>& moments,
                                       const prediction_plan& plan) {
  std::vector<predicted_subject> result(static_cast<std::size_t>(wanted.subjects()));
  for_each_subject(wanted.subjects(), plan.threads, [&](int i) {
    const Eigen::Index n = wanted.observations(i);
    if (n == 0) return;
    predicted_subject& to = result[static_cast<std::size_t>(i)];
    Eigen::VectorXd mu(wanted.random_effects());
    wanted.means(i, at.theta.data(), mu.data());
    const conditional_moments* known =
        moments.empty() ? nullptr : &moments[static_cast<std::size_t>(i)];
    Eigen::VectorXd mean;
    const weighted_draw drawn = sample(given, i, at, known, plan, mean);
    to.effective_samples = drawn.effective();
    to.population = population_predictions(wanted, i, at.theta);
    const density joint(wanted);
    density_workspace scratch(wanted);
    Eigen::MatrixXd f;
    joint.expect(i, at.theta.data(), mu + mean, f, scratch);
    to.individual = f.transpose();
    joint.expect(i, at.theta.data(), drawn.etas.colwise() + mu, f, scratch);
    to.lower.resize(n);
    to.upper.resize(n);
    std::vector<Eigen::Index> order(static_cast<std::size_t>(f.rows()));
    for (Eigen::Index j = 0; j < n; ++j) {
      const Eigen::VectorXd values = f.col(j);
      std::iota(order.begin(), order.end(), Eigen::Index{0});
      // A sample that cannot be evaluated has no place in the order; none of its weight counts.
      std::erase_if(order, [&](Eigen::Index k) { return !std::isfinite(values(k)); });
      if (order.empty()) {
        to.lower(j) = to.upper(j) = std::numeric_limits<double>::quiet_NaN();
        continue;
      }
      std::sort(order.begin(), order.end(), [&](Eigen::Index a, Eigen::Index b) {
        return values(a) != values(b) ? values(a) < values(b) : a < b;
      });
      to.lower(j) = weighted_quantile(values, drawn.weights, order, plan.lower);
      to.upper(j) = weighted_quantile(values, drawn.weights, order, plan.upper);
    }
  });
  return result;
}

}  // namespace varda
