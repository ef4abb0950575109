// SPDX-License-Identifier: Apache-2.0
#include "varda/method/newton/measure.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "varda/inference/pareto_shape.h"

namespace varda {

namespace {

constexpr double minus_infinity = -std::numeric_limits<double>::infinity();
// Of central differences by parameters that predictions depend on directly, on the scale of psi.
constexpr double difference = 2e-3;

double log_sum(const Eigen::Ref<const Eigen::VectorXd>& x) {
  const double largest = x.maxCoeff();
  if (!std::isfinite(largest)) return minus_infinity;
  return largest + std::log((x.array() - largest).exp().sum());
}

// Share of the samples that failed, among those as near to the conditional mean as all but a few
// per cent of a normal distribution are: a failure far away costs nothing.
double failures_in_bulk(const Eigen::MatrixXd& centred, const Eigen::MatrixXd& covariance,
                        const Eigen::VectorXd& log_data) {
  const Eigen::LLT<Eigen::MatrixXd> factor(covariance);
  const auto d = static_cast<double>(covariance.rows());
  const double reach = d + 2.0 * std::sqrt(2.0 * d);
  int all = 0;
  int failed = 0;
  for (Eigen::Index j = 0; j < centred.cols(); ++j) {
    if (factor.info() == Eigen::Success &&
        factor.matrixL().solve(centred.col(j)).squaredNorm() > reach)
      continue;
    ++all;
    failed += log_data(j) == minus_infinity ? 1 : 0;
  }
  return all > 0 ? static_cast<double>(failed) / all : 1.0;
}

double step_of(const coordinates::entry& e, double psi) {
  return e.logarithm ? difference : difference * std::max(std::fabs(psi), 1.0);
}

}  // namespace

measure_point::measure_point(const coordinates& scale, const Eigen::VectorXd& at_psi,
                             const Eigen::VectorXd& from_theta, const Eigen::MatrixXd& from_omega)
    : psi(at_psi), theta(from_theta), omega(from_omega) {
  scale.put(psi, theta, omega);
  prior = random_effect_density(omega);
}

subject_sampler::subject_sampler(const density& joint, const coordinates& scale)
    : joint_(joint), scale_(scale), scratch_(joint.model()) {
  for (int k = 0; k < scale.size(); ++k) {
    const coordinates::entry& e = scale.entries()[static_cast<std::size_t>(k)];
    if (e.theta < 0) continue;
    const fixed_effect& t = joint.model().thetas()[static_cast<std::size_t>(e.theta)];
    if (t.role == theta_role::residual_deviation) residual_.push_back(k);
    if (t.moves_predictions()) moving_.push_back(k);
  }
}

subject_measure subject_sampler::measure(int subject, const subject_draw& drawn,
                                         const Eigen::VectorXd& drawn_at, const measure_point& at,
                                         detail wanted, std::int64_t& evaluations) {
  const population_model& model = joint_.model();
  const Eigen::Index n = drawn.phi.cols();
  const Eigen::Index effects = drawn.phi.rows();
  subject_measure result;

  const bool stand = std::all_of(moving_.begin(), moving_.end(), [&](int k) {
    const int position = scale_.entries()[static_cast<std::size_t>(k)].theta;
    return at.theta(position) == drawn_at(position);
  });
  Eigen::MatrixXd made;
  if (!stand) {
    joint_.predict(subject, at.theta.data(), drawn.phi, made, scratch_);
    evaluations += n;
  }
  const Eigen::MatrixXd& f = stand ? drawn.predictions : made;
  Eigen::VectorXd log_data;
  Eigen::VectorXd squares;
  joint_.of_data(subject, at.theta.data(), f, log_data, squares);

  Eigen::VectorXd mu(effects);
  model.means(subject, at.theta.data(), mu.data());
  const Eigen::MatrixXd z =
      at.prior.whitener().triangularView<Eigen::Lower>() * (drawn.phi.colwise() - mu);
  const double prior_constant =
      at.prior.whitener().diagonal().array().log().sum() -
      0.5 * static_cast<double>(effects) * std::log(2.0 * std::numbers::pi);
  Eigen::VectorXd log_weight(n);
  int failed = 0;
  for (Eigen::Index j = 0; j < n; ++j) {
    log_data(j) = std::isfinite(log_data(j)) ? -log_data(j) : minus_infinity;
    log_weight(j) =
        log_data(j) + prior_constant - 0.5 * z.col(j).squaredNorm() - drawn.log_proposal(j);
    failed += log_data(j) == minus_infinity ? 1 : 0;
    if (std::isnan(log_weight(j))) log_weight(j) = minus_infinity;
  }
  result.failed = static_cast<double>(failed) / static_cast<double>(n);
  const double total = log_sum(log_weight);
  result.log_likelihood = total - std::log(static_cast<double>(n));
  if (!std::isfinite(total)) return result;
  const Eigen::VectorXd weights = (log_weight.array() - total).exp();
  result.effective_share = 1.0 / weights.squaredNorm() / static_cast<double>(n);
  if (wanted == detail::value) return result;

  result.largest_weight = weights.maxCoeff();
  result.shape = pareto_shape(weights);
  for (Eigen::Index j = 0; j < n; ++j)
    if (weights(j) > 0.0) result.scaled_squares += weights(j) * squares(j);
  result.scaled_squares /= std::max(model.observations(subject), 1);
  result.mean = drawn.phi * weights;
  const Eigen::MatrixXd centred = drawn.phi.colwise() - result.mean;
  result.covariance = centred * weights.asDiagonal() * centred.transpose();
  if (failed > 0) result.failed = failures_in_bulk(centred, result.covariance, log_data);

  const Eigen::MatrixXd u = at.prior.whitener().transpose().triangularView<Eigen::Upper>() * z;
  Eigen::MatrixXd scores = Eigen::MatrixXd::Zero(scale_.size(), n);
  Eigen::MatrixXd hessian = Eigen::MatrixXd::Zero(scale_.size(), scale_.size());
  score_prior(subject, z, u, at, scores);
  const Eigen::VectorXd first = result.mean - mu;
  hessian += curvature_of_prior(subject, first, result.covariance + first * first.transpose(), at);
  score_data(subject, drawn, f, log_data, at, weights, scores, hessian, evaluations);

  result.gradient = scores * weights;
  const Eigen::VectorXd roots = weights.cwiseSqrt();
  const Eigen::MatrixXd weighted = scores * roots.asDiagonal();
  result.information =
      -(hessian + weighted * weighted.transpose() - result.gradient * result.gradient.transpose());
  const Eigen::Index size = n / drawn.groups;
  result.group_log_likelihood.resize(drawn.groups);
  result.group_gradient.resize(scale_.size(), drawn.groups);
  for (int g = 0; g < drawn.groups; ++g) {
    const double group_total = log_sum(log_weight.segment(g * size, size));
    result.group_log_likelihood(g) = group_total - std::log(static_cast<double>(size));
    const double sum = weights.segment(g * size, size).sum();
    result.group_gradient.col(g) =
        scores.middleCols(g * size, size) * weights.segment(g * size, size) / std::max(sum, 1e-300);
  }
  return result;
}

// With z = L^-1 eta and u = L^-T z = omega^-1 eta: d/d beta_k is u'c_k, d/d L_ab is u_a z_b less
// 1 / L_aa on the diagonal.
void subject_sampler::score_prior(int subject, const Eigen::MatrixXd& z, const Eigen::MatrixXd& u,
                                  const measure_point& at, Eigen::MatrixXd& scores) const {
  const population_model& model = joint_.model();
  // Sample by sample, as scores, z and u stand in memory.
  struct of_mean {
    Eigen::Index k, eta;
    double design;
  };
  struct of_factor {
    Eigen::Index k, a, b;
    double scale, less;
  };
  std::vector<of_mean> means;
  std::vector<of_factor> factors;
  for (int k = 0; k < scale_.size(); ++k) {
    const coordinates::entry& e = scale_.entries()[static_cast<std::size_t>(k)];
    if (e.theta >= 0) {
      for (std::size_t c = 0; c < model.columns().size(); ++c)
        if (model.columns()[c].theta == e.theta)
          means.push_back({k, model.columns()[c].eta, model.design(subject, static_cast<int>(c))});
      continue;
    }
    for (const auto& [a, b] : e.places)
      factors.push_back(
          {k, a, b, e.diagonal ? at.prior.factor()(a, a) : 1.0, e.diagonal ? 1.0 : 0.0});
  }
  for (Eigen::Index j = 0; j < z.cols(); ++j) {
    double* const own = scores.col(j).data();
    const double* const zj = z.col(j).data();
    const double* const uj = u.col(j).data();
    for (const of_mean& m : means) own[m.k] += m.design * uj[m.eta];
    for (const of_factor& f : factors) own[f.k] = own[f.k] + f.scale * uj[f.a] * zj[f.b] - f.less;
  }
}

// The expectation of the second derivatives from the first two moments of eta.
Eigen::MatrixXd subject_sampler::curvature_of_prior(int subject, const Eigen::VectorXd& first,
                                                    const Eigen::MatrixXd& second,
                                                    const measure_point& at) const {
  const population_model& model = joint_.model();
  const Eigen::MatrixXd& m = at.prior.whitener();
  const Eigen::MatrixXd& precision = at.prior.precision();
  const Eigen::VectorXd z = m * first;
  const Eigen::VectorXd u = m.transpose() * z;
  const Eigen::MatrixXd zz = m * second * m.transpose();
  const Eigen::MatrixXd uz = m.transpose() * zz;
  // Coordinates of the mean as vectors c_k.
  Eigen::MatrixXd design = Eigen::MatrixXd::Zero(first.size(), scale_.size());
  for (int k = 0; k < scale_.size(); ++k)
    for (std::size_t c = 0; c < model.columns().size(); ++c)
      if (model.columns()[c].theta == scale_.entries()[static_cast<std::size_t>(k)].theta)
        design(model.columns()[c].eta, k) += model.design(subject, static_cast<int>(c));
  const Eigen::MatrixXd whitened = m * design;
  const Eigen::MatrixXd weighted = m.transpose() * whitened;
  Eigen::MatrixXd result = -whitened.transpose() * whitened;
  for (int k = 0; k < scale_.size(); ++k) {
    const coordinates::entry& e = scale_.entries()[static_cast<std::size_t>(k)];
    if (e.theta >= 0) continue;
    for (const auto& [a, b] : e.places) {
      const double scale = e.diagonal ? at.prior.factor()(a, a) : 1.0;
      for (int l = 0; l < scale_.size(); ++l) {
        const coordinates::entry& other = scale_.entries()[static_cast<std::size_t>(l)];
        if (other.theta >= 0) {
          const double mixed = -scale * (weighted(a, l) * z(b) + u(a) * whitened(b, l));
          result(k, l) += mixed;
          result(l, k) += mixed;
          continue;
        }
        if (l > k) continue;
        double sum = 0.0;
        for (const auto& [c, d] : other.places) {
          const double factor = other.diagonal ? at.prior.factor()(c, c) : 1.0;
          sum -= factor * (m(d, a) * uz(c, b) + precision(a, c) * zz(b, d) + m(b, c) * uz(a, d));
        }
        result(k, l) += scale * sum;
        if (l != k) result(l, k) += scale * sum;
      }
      // L_aa stands behind its logarithm: the first derivative counts as well, its -1 and the +1 of
      // the second derivative of -log L_aa cancelling.
      if (e.diagonal) result(k, k) += scale * uz(a, b);
    }
  }
  return result;
}

void subject_sampler::score_data(int subject, const subject_draw& drawn,
                                 const Eigen::MatrixXd& predictions,
                                 const Eigen::VectorXd& log_data, const measure_point& at,
                                 const Eigen::VectorXd& weights, Eigen::MatrixXd& scores,
                                 Eigen::MatrixXd& hessian, std::int64_t& evaluations) {
  const population_model& model = joint_.model();
  const varda::subject& who = model.data().subjects[static_cast<std::size_t>(subject)];
  const auto position = [&](int k) { return scale_.entries()[static_cast<std::size_t>(k)].theta; };
  const auto of_residual = [&](const Eigen::MatrixXd& f, const Eigen::VectorXd& theta,
                               Eigen::MatrixXd& gradient, Eigen::MatrixXd& second) {
    model.observed().derivatives(who, f, theta.data(), weights, gradient, second);
  };
  Eigen::MatrixXd gradient;
  Eigen::MatrixXd second;
  if (!residual_.empty()) {
    of_residual(predictions, at.theta, gradient, second);
    for (const int k : residual_) {
      const int own = position(k) - model.first_of_endpoints();
      scores.row(k) += gradient.col(own).transpose();
      for (const int l : residual_)
        hessian(k, l) += second(own, position(l) - model.first_of_endpoints());
    }
  }
  if (moving_.empty()) return;

  // Samples that failed, here or beside, weigh nothing.
  const auto usable = [](double value, double otherwise) {
    return std::isfinite(value) ? value : otherwise;
  };
  struct side {
    Eigen::VectorXd value;     // log p(y | f)
    Eigen::VectorXd residual;  // weighted gradient by the residual coordinates
  };
  const auto evaluate = [&](const std::vector<std::pair<int, double>>& moves) {
    Eigen::VectorXd psi = at.psi;
    for (const auto& [k, by] : moves) psi(k) += by;
    Eigen::VectorXd theta = at.theta;
    Eigen::MatrixXd omega = at.omega;
    scale_.put(psi, theta, omega);
    Eigen::MatrixXd f;
    joint_.predict(subject, theta.data(), drawn.phi, f, scratch_);
    evaluations += drawn.phi.cols();
    side result;
    Eigen::VectorXd squares;
    joint_.of_data(subject, theta.data(), f, result.value, squares);
    for (Eigen::Index j = 0; j < result.value.size(); ++j)
      result.value(j) = usable(-result.value(j), log_data(j));
    if (!residual_.empty()) {
      Eigen::MatrixXd g;
      Eigen::MatrixXd h;
      of_residual(f, theta, g, h);
      result.residual = Eigen::VectorXd::Zero(g.cols());
      for (Eigen::Index j = 0; j < g.rows(); ++j)
        if (weights(j) > 0.0 && g.row(j).allFinite())
          result.residual += weights(j) * g.row(j).transpose();
    }
    return result;
  };
  // Sums over samples that weigh something: what failed is minus infinity on all sides.
  const auto expected = [&](const auto& of) {
    double sum = 0.0;
    for (Eigen::Index j = 0; j < weights.size(); ++j)
      if (weights(j) > 0.0) sum += weights(j) * of(j);
    return sum;
  };
  std::vector<side> above, below;
  std::vector<double> step;
  for (const int k : moving_) {
    step.push_back(step_of(scale_.entries()[static_cast<std::size_t>(k)], at.psi(k)));
    above.push_back(evaluate({{k, step.back()}}));
    below.push_back(evaluate({{k, -step.back()}}));
  }
  for (std::size_t i = 0; i < moving_.size(); ++i) {
    const int k = moving_[i];
    for (Eigen::Index j = 0; j < weights.size(); ++j)
      if (weights(j) > 0.0)
        scores(k, j) += (above[i].value(j) - below[i].value(j)) / (2.0 * step[i]);
    hessian(k, k) += expected([&](Eigen::Index j) {
                       return above[i].value(j) - 2.0 * log_data(j) + below[i].value(j);
                     }) /
                     (step[i] * step[i]);
    for (const int l : residual_) {
      const int own = position(l) - model.first_of_endpoints();
      const double mixed = (above[i].residual(own) - below[i].residual(own)) / (2.0 * step[i]);
      hessian(k, l) += mixed;
      hessian(l, k) += mixed;
    }
    for (std::size_t o = 0; o < i; ++o) {
      const side up = evaluate({{k, step[i]}, {moving_[o], step[o]}});
      const side down = evaluate({{k, -step[i]}, {moving_[o], -step[o]}});
      const double mixed = expected([&](Eigen::Index j) {
                             return up.value(j) + down.value(j) + 2.0 * log_data(j) -
                                    above[i].value(j) - below[i].value(j) - above[o].value(j) -
                                    below[o].value(j);
                           }) /
                           (2.0 * step[i] * step[o]);
      hessian(k, moving_[o]) += mixed;
      hessian(moving_[o], k) += mixed;
    }
  }
}

}  // namespace varda
