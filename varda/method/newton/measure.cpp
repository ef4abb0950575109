// SPDX-License-Identifier: Apache-2.0
#include "varda/method/newton/measure.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "varda/inference/pareto_shape.h"
#include "varda/model/lanes/kernel.h"

namespace varda {

namespace {

constexpr double minus_infinity = -std::numeric_limits<double>::infinity();
// Of central differences by parameters that predictions depend on directly, on the scale of psi.
constexpr double difference = 2e-3;
// Weights whose sum lies below this have lost digits.
constexpr double least_total = 1e-290;

double log_sum(const Eigen::Ref<const Eigen::VectorXd>& x) {
  const double largest = x.maxCoeff();
  if (!std::isfinite(largest)) return minus_infinity;
  return largest + std::log((x.array() - largest).exp().sum());
}

// Share of the samples that failed, among those as near to the conditional mean as all but a few
// per cent of a normal distribution are: a failure far away costs nothing.
double failures_in_bulk(const sample_rows& centred, const Eigen::MatrixXd& covariance,
                        const Eigen::VectorXd& log_data) {
  const Eigen::LLT<Eigen::MatrixXd> factor(covariance);
  const auto d = static_cast<double>(covariance.rows());
  const double reach = d + 2.0 * std::sqrt(2.0 * d);
  int all = 0;
  int failed = 0;
  for (Eigen::Index j = 0; j < centred.rows(); ++j) {
    if (factor.info() == Eigen::Success &&
        factor.matrixL().solve(centred.row(j).transpose()).squaredNorm() > reach)
      continue;
    ++all;
    failed += log_data(j) == minus_infinity ? 1 : 0;
  }
  return all > 0 ? static_cast<double>(failed) / all : 1.0;
}

// The result is x m' of samples in rows, with few entries in m and most often only its diagonal.
template <class Matrix>
void times_transposed(const sample_rows& x, const Matrix& m, sample_rows& result) {
  for (Eigen::Index a = 0; a < m.rows(); ++a) {
    result.col(a) = m(a, a) * x.col(a);
    for (Eigen::Index b = 0; b < m.cols(); ++b)
      if (b != a && m(a, b) != 0.0) result.col(a) += m(a, b) * x.col(b);
  }
}

// The result is samples as rows, less the centre.
void rows_about(const Eigen::VectorXd& centre, const Eigen::MatrixXd& samples,
                sample_rows& result) {
  for (Eigen::Index a = 0; a < samples.rows(); ++a) {
    const double own = centre(a);
    const double* from = samples.data() + a;
    for (double& to : result.col(a)) {
      to = *from - own;
      from += samples.rows();
    }
  }
}

// x' diagonal(weights) y.
Eigen::MatrixXd weighed(const sample_rows& x, const Eigen::VectorXd& weights,
                        const sample_rows& y) {
  Eigen::MatrixXd result(x.cols(), y.cols());
  best_lane_kernel().weigh_products({{x.data(), static_cast<std::size_t>(x.cols())},
                                     {y.data(), static_cast<std::size_t>(y.cols())},
                                     static_cast<std::size_t>(x.rows()),
                                     weights.data(),
                                     static_cast<std::size_t>(x.rows()),
                                     result.data()});
  return result;
}

// Of the coordinates L^-1 x of samples in rows, L the lower Cholesky factor of the covariance: zero
// where there is none. `room` is as large as the samples.
Eigen::VectorXd third_moments(const sample_rows& centred, const Eigen::VectorXd& weights,
                              const Eigen::MatrixXd& covariance, sample_rows room) {
  const Eigen::LLT<Eigen::MatrixXd> llt(covariance);
  Eigen::VectorXd result = Eigen::VectorXd::Zero(centred.cols());
  if (llt.info() != Eigen::Success) return result;
  const Eigen::MatrixXd l = llt.matrixL();
  for (Eigen::Index a = 0; a < centred.cols(); ++a) {
    auto z = room.col(a);
    z = centred.col(a);
    z.noalias() -= room.leftCols(a) * l.row(a).head(a).transpose();
    z /= l(a, a);
    result(a) = (weights.array() * z.array().cube()).sum();
  }
  return result;
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
                                         detail wanted, subject_details& details,
                                         std::int64_t& evaluations) {
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

  // From here on samples are rows, so that a step is one loop over all of them.
  Eigen::VectorXd mu(effects);
  model.means(subject, at.theta.data(), mu.data());
  sample_rows eta = eta_.of(n, effects);
  rows_about(mu, drawn.phi, eta);
  sample_rows z = whitened_.of(n, effects);
  times_transposed(eta, at.prior.whitener(), z);
  const double prior_constant =
      at.prior.whitener().diagonal().array().log().sum() -
      0.5 * static_cast<double>(effects) * std::log(2.0 * std::numbers::pi);
  Eigen::VectorXd log_weight = prior_constant - drawn.log_proposal.array();
  for (Eigen::Index a = 0; a < effects; ++a) log_weight.array() -= 0.5 * z.col(a).array().square();
  int failed = 0;
  for (Eigen::Index j = 0; j < n; ++j) {
    log_data(j) = std::isfinite(log_data(j)) ? -log_data(j) : minus_infinity;
    failed += log_data(j) == minus_infinity ? 1 : 0;
    log_weight(j) += log_data(j);
    if (std::isnan(log_weight(j))) log_weight(j) = minus_infinity;
  }
  result.failed = static_cast<double>(failed) / static_cast<double>(n);
  const double largest = log_weight.maxCoeff();
  result.log_likelihood = minus_infinity;
  if (!std::isfinite(largest)) return result;
  Eigen::VectorXd weights = log_weight.array() - largest;
  best_lane_kernel().exponentials(weights.data(), weights.data(), static_cast<std::size_t>(n));
  const double total = weights.sum();
  result.log_likelihood = largest + std::log(total / static_cast<double>(n));
  // Of each group, before the weights are made to sum to 1.
  const Eigen::Index size = n / drawn.groups;
  const Eigen::VectorXd group_totals = weights.reshaped(size, drawn.groups).colwise().sum();
  const double groups = drawn.groups;
  const Eigen::ArrayXd off_mean = group_totals.array() * (groups / total) - 1.0;
  if (drawn.groups > 1) {
    const double variance = off_mean.square().sum() / (groups * (groups - 1.0));
    result.error = 2.0 * std::sqrt(variance);
    result.log_likelihood += 0.5 * variance;
  }
  weights /= total;
  result.effective_share = 1.0 / weights.squaredNorm() / static_cast<double>(n);
  if (wanted == detail::value) return result;

  result.largest_weight = weights.maxCoeff();
  result.shape = pareto_shape(weights);
  for (Eigen::Index j = 0; j < n; ++j)
    if (weights(j) > 0.0) result.scaled_squares += weights(j) * squares(j);
  result.scaled_squares /= std::max(model.observations(subject), 1);
  const Eigen::VectorXd first = eta.transpose() * weights;
  details.mean = mu + first;
  sample_rows& centred = eta;
  centred.rowwise() -= first.transpose();
  details.covariance = weighed(centred, weights, centred);
  if (failed > 0) result.failed = failures_in_bulk(centred, details.covariance, log_data);
  if (effects >= effects_with_skewness)
    details.skewness = third_moments(centred, weights, details.covariance, weighed_.of(n, effects));

  sample_rows scores = scores_.of(n, scale_.size());
  Eigen::MatrixXd hessian = Eigen::MatrixXd::Zero(scale_.size(), scale_.size());
  score_prior(subject, z, at, scores);
  hessian += curvature_of_prior(subject, first, details.covariance + first * first.transpose(), at);
  score_data(subject, drawn, f, {log_data, squares, weights}, at, scores, hessian, evaluations);

  if (moves_predictions()) details.shift = weighed(centred, weights, scores);
  details.group_log_likelihood.resize(drawn.groups);
  details.group_gradient.resize(scale_.size(), drawn.groups);
  for (int g = 0; g < drawn.groups; ++g) {
    const double group_total = group_totals(g) > least_total
                                   ? largest + std::log(group_totals(g))
                                   : log_sum(log_weight.segment(g * size, size));
    details.group_log_likelihood(g) = group_total - std::log(static_cast<double>(size));
    details.group_gradient.col(g).noalias() =
        scores.middleRows(g * size, size).transpose() * weights.segment(g * size, size);
  }
  details.gradient = details.group_gradient.rowwise().sum();
  details.group_gradient.array().rowwise() /=
      (group_totals / total).transpose().array().max(least_total);
  details.information =
      details.gradient * details.gradient.transpose() - hessian - weighed(scores, weights, scores);
  if (drawn.groups > 1) {
    const Eigen::VectorXd of_groups = off_mean * (1.0 + off_mean) / (groups * (groups - 1.0));
    details.gradient += (details.group_gradient.colwise() - details.gradient).eval() * of_groups;
  }
  return result;
}

// With z = L^-1 eta and u = L^-T z = omega^-1 eta: d/d beta_k is u'c_k, d/d L_ab is u_a z_b less
// 1 / L_aa on the diagonal.
void subject_sampler::score_prior(int subject, const sample_rows& z, const measure_point& at,
                                  sample_rows& scores) {
  const population_model& model = joint_.model();
  sample_rows u = weighed_.of(z.rows(), z.cols());
  times_transposed(z, at.prior.whitener().transpose(), u);
  for (int k = 0; k < scale_.size(); ++k) {
    const coordinates::entry& e = scale_.entries()[static_cast<std::size_t>(k)];
    auto own = scores.col(k).array();
    bool begun = false;
    const auto add = [&](const auto& term) {
      if (begun)
        own += term;
      else
        own = term;
      begun = true;
    };
    for (std::size_t c = 0; e.theta >= 0 && c < model.columns().size(); ++c)
      if (model.columns()[c].theta == e.theta)
        add(model.design(subject, static_cast<int>(c)) * u.col(model.columns()[c].eta).array());
    for (const auto& [a, b] : e.places) {
      const double scale = e.diagonal ? at.prior.factor()(a, a) : 1.0;
      add(scale * u.col(a).array() * z.col(b).array() - (e.diagonal ? 1.0 : 0.0));
    }
    if (!begun) own.setZero();
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
                                 const Eigen::MatrixXd& predictions, const sample_values& values,
                                 const measure_point& at, sample_rows& scores,
                                 Eigen::MatrixXd& hessian, std::int64_t& evaluations) {
  const population_model& model = joint_.model();
  const varda::subject& who = model.data().subjects[static_cast<std::size_t>(subject)];
  const Eigen::VectorXd& log_data = values.log_data;
  const Eigen::VectorXd& weights = values.weights;
  const auto position = [&](int k) { return scale_.entries()[static_cast<std::size_t>(k)].theta; };
  // With q the sum of squared scaled residuals one deviation has d/dlog = q - n, d2/dlog2 = -2 q.
  const auto of_residual = [&](const Eigen::MatrixXd& f, const Eigen::VectorXd& theta,
                               const Eigen::VectorXd& squares, Eigen::MatrixXd& gradient,
                               Eigen::MatrixXd& second) {
    if (!model.observed().has_one_scale()) {
      model.observed().derivatives(who, f, theta.data(), weights, gradient, second);
      return;
    }
    const auto used = weights.array() > 0.0;
    gradient = used.select(squares.array() - static_cast<double>(f.cols()), 0.0);
    second = Eigen::MatrixXd::Constant(
        1, 1, -2.0 * used.select(weights.array() * squares.array(), 0.0).sum());
  };
  Eigen::MatrixXd gradient;
  Eigen::MatrixXd second;
  if (!residual_.empty()) {
    of_residual(predictions, at.theta, values.squares, gradient, second);
    for (const int k : residual_) {
      const int own = position(k) - model.first_of_endpoints();
      scores.col(k) += gradient.col(own);
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
      of_residual(f, theta, squares, g, h);
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
        scores(j, k) += (above[i].value(j) - below[i].value(j)) / (2.0 * step[i]);
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
