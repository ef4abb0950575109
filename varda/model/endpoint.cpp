// SPDX-License-Identifier: Apache-2.0
#include "varda/model/endpoint.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace varda {

namespace {

const double log_2pi = std::log(2.0 * std::numbers::pi);

double sum_of_contributions(double squares, double log_variance, double n) {
  return 0.5 * (squares + log_variance + n * log_2pi);
}

}  // namespace

double log_normal_probability(double z) {
  // erfc underflows in the far tail; there Mills' ratio by its asymptotic series, whose first term
  // left out is below 1e-14.
  constexpr double far = -30.0;
  if (z > 0.0) return std::log1p(-0.5 * std::erfc(z / std::numbers::sqrt2));
  if (z > far) return std::log(0.5 * std::erfc(-z / std::numbers::sqrt2));
  const double w = 1.0 / (z * z);
  const double series = -w * (1.0 - w * (3.0 - w * (15.0 - w * (105.0 - w * 945.0))));
  return -0.5 * (z * z + log_2pi) - std::log(-z) + std::log1p(series);
}

double log_normal_probability(double lower, double upper) {
  // In the upper half the complements are the small numbers, whose difference keeps its digits.
  if (lower > 0.0) return log_normal_probability(-upper, -lower);
  const double whole = log_normal_probability(upper);
  return whole + std::log1p(-std::exp(log_normal_probability(lower) - whole));
}

endpoints::endpoints(const std::vector<endpoint>& described, int first_theta, const dataset& data)
    : first_theta_(first_theta) {
  const auto add = [&](const endpoint& of, const char* name, double start, bool fixed) {
    fixed_effect t;
    t.name = of.name.empty() ? name : of.name + "." + name;
    t.role = theta_role::residual_deviation;
    t.start = start;
    t.fixed = fixed;
    t.upper = std::numeric_limits<double>::infinity();
    parameters_.push_back(t);
    return first_theta + static_cast<int>(parameters_.size()) - 1;
  };
  for (const endpoint& of : described) {
    const residual_error& r = of.residual;
    entry e{.kind = r.kind};
    if (r.kind == error_kind::proportional || r.kind == error_kind::combined)
      e.proportional = add(of, "proportional", r.proportional, r.proportional_fixed);
    if (r.kind != error_kind::proportional)
      e.additive = add(of, r.kind == error_kind::log_normal ? "log_normal" : "additive", r.additive,
                       r.additive_fixed);
    endpoints_.push_back(e);
  }
  const auto nothing_censored = [](const subject& who) {
    return std::all_of(who.observations.begin(), who.observations.end(),
                       [](const observation& o) { return o.censored == censoring::none; });
  };
  plain_ = endpoints_.size() == 1 && endpoints_.front().kind != error_kind::log_normal &&
           std::all_of(data.subjects.begin(), data.subjects.end(), nothing_censored);
}

void endpoints::objectives(const subject& who, const double* f, std::size_t stride, std::size_t n,
                           const double* theta, double* objective, double* scaled_squares) const {
  if (plain_) return plain_objectives(who, f, stride, n, theta, objective, scaled_squares);
  std::fill_n(objective, n, 0.0);
  std::fill_n(scaled_squares, n, 0.0);
  for (const observation& at : who.observations) {
    for (std::size_t j = 0; j < n; ++j) {
      double square = 0.0;
      objective[j] += contribution(at, f[j], theta, square);
      scaled_squares[j] += square;
    }
    f += stride;
  }
}

void endpoints::plain_objectives(const subject& who, const double* f, std::size_t stride,
                                 std::size_t n, const double* theta, double* objective,
                                 double* scaled_squares) const {
  const entry& e = endpoints_.front();
  const double a2 = e.additive < 0 ? 0.0 : theta[e.additive] * theta[e.additive];
  const double b2 = e.proportional < 0 ? 0.0 : theta[e.proportional] * theta[e.proportional];
  const auto count = static_cast<double>(who.observations.size());
  std::fill_n(scaled_squares, n, 0.0);
  if (e.proportional < 0) {
    for (const observation& at : who.observations) {
      for (std::size_t j = 0; j < n; ++j) {
        const double r = at.value - f[j];
        scaled_squares[j] += r * r;
      }
      f += stride;
    }
    const double log_variance = count * std::log(a2);
    for (std::size_t j = 0; j < n; ++j) {
      scaled_squares[j] /= a2;
      objective[j] = sum_of_contributions(scaled_squares[j], log_variance, count);
    }
    return;
  }
  std::fill_n(objective, n, 0.0);
  for (const observation& at : who.observations) {
    for (std::size_t j = 0; j < n; ++j) {
      const double r = at.value - f[j];
      const double variance = a2 + b2 * f[j] * f[j];
      scaled_squares[j] += r * r / variance;
      objective[j] += std::log(variance);
    }
    f += stride;
  }
  for (std::size_t j = 0; j < n; ++j)
    objective[j] = sum_of_contributions(scaled_squares[j], objective[j], count);
}

// With v the variance of an observation, q = r^2 / v and l = -(q + log v) / 2:
// dl/dv = (q - 1) / 2v, d2l/dv2 = (1/2 - q) / v^2; and v moves with log a by 2 a^2, with log b by
// 2 b^2 f^2.
void endpoints::derivatives(const subject& who, const Eigen::MatrixXd& f, const double* theta,
                            const Eigen::VectorXd& weights, Eigen::MatrixXd& gradient,
                            Eigen::MatrixXd& hessian) const {
  const auto count = static_cast<Eigen::Index>(parameters_.size());
  gradient.setZero(f.rows(), count);
  hessian.setZero(count, count);
  Eigen::Index column = 0;
  for (const observation& at : who.observations) {
    const double* const fk = f.col(column++).data();
    if (at.censored != censoring::none) {
      add_differences(at, fk, theta, weights, gradient, hessian);
      continue;
    }
    const entry& e = of(at);
    const bool logarithmic = e.kind == error_kind::log_normal;
    const Eigen::Index a = e.additive < 0 ? -1 : e.additive - first_theta_;
    const Eigen::Index b = e.proportional < 0 ? -1 : e.proportional - first_theta_;
    const double a2 = a < 0 ? 0.0 : theta[e.additive] * theta[e.additive];
    const double b2 = b < 0 ? 0.0 : theta[e.proportional] * theta[e.proportional];
    double haa = 0.0;
    double hab = 0.0;
    double hbb = 0.0;
    for (Eigen::Index j = 0; j < f.rows(); ++j) {
      if (weights(j) == 0.0) continue;
      const double r = logarithmic ? std::log(at.value / fk[j]) : at.value - fk[j];
      const double vb = b < 0 ? 0.0 : b2 * fk[j] * fk[j];
      const double v = a2 + vb;
      const double q = r * r / v;
      const double first = 0.5 * (q - 1.0) / v;
      const double second = (0.5 - q) / (v * v);
      if (a >= 0) gradient(j, a) += first * 2.0 * a2;
      if (b >= 0) gradient(j, b) += first * 2.0 * vb;
      haa += weights(j) * 4.0 * a2 * (second * a2 + first);
      hab += weights(j) * 4.0 * second * a2 * vb;
      hbb += weights(j) * 4.0 * vb * (second * vb + first);
    }
    if (a >= 0) hessian(a, a) += haa;
    if (b >= 0) hessian(b, b) += hbb;
    if (a >= 0 && b >= 0) {
      hessian(a, b) += hab;
      hessian(b, a) += hab;
    }
  }
}

// What is known of a censored observation is a probability; central differences serve.
void endpoints::add_differences(const observation& at, const double* f, const double* theta,
                                const Eigen::VectorXd& weights, Eigen::MatrixXd& gradient,
                                Eigen::MatrixXd& hessian) const {
  constexpr double step = 1e-3;
  const double up = std::exp(step);
  std::vector<double> moved(theta, theta + first_theta_ + static_cast<int>(parameters_.size()));
  std::vector<int> own;
  for (const int position : {of(at).additive, of(at).proportional})
    if (position >= 0) own.push_back(position);
  const auto value = [&](double prediction) {
    double square = 0.0;
    return -contribution(at, prediction, moved.data(), square);
  };
  const auto with = [&](int position, double factor, double prediction) {
    const double kept = moved[static_cast<std::size_t>(position)];
    moved[static_cast<std::size_t>(position)] = kept * factor;
    const double result = value(prediction);
    moved[static_cast<std::size_t>(position)] = kept;
    return result;
  };
  for (Eigen::Index j = 0; j < gradient.rows(); ++j) {
    if (weights(j) == 0.0) continue;
    const double here = value(f[j]);
    for (const int p : own) {
      const Eigen::Index k = p - first_theta_;
      const double above = with(p, up, f[j]);
      const double below = with(p, 1.0 / up, f[j]);
      gradient(j, k) += (above - below) / (2.0 * step);
      hessian(k, k) += weights(j) * (above - 2.0 * here + below) / (step * step);
    }
    if (own.size() < 2) continue;
    // (++ and -- less what each alone does), as in difference stencils of seven points.
    double mixed = 2.0 * here;
    for (const double factor : {up, 1.0 / up}) {
      mixed -= with(own[0], factor, f[j]) + with(own[1], factor, f[j]);
      const auto first = static_cast<std::size_t>(own[0]);
      moved[first] *= factor;
      mixed += with(own[1], factor, f[j]);
      moved[first] = theta[own[0]];
    }
    const double both = weights(j) * mixed / (2.0 * step * step);
    hessian(own[0] - first_theta_, own[1] - first_theta_) += both;
    hessian(own[1] - first_theta_, own[0] - first_theta_) += both;
  }
}

double endpoints::deviation(const observation& at, double f, const double* theta) const {
  const entry& e = of(at);
  switch (e.kind) {
    case error_kind::additive:
    case error_kind::log_normal:
      return theta[e.additive];
    case error_kind::proportional:
      return std::fabs(theta[e.proportional] * f);
    case error_kind::combined:
      break;
  }
  return std::hypot(theta[e.additive], theta[e.proportional] * f);
}

double endpoints::scaled_residual(const observation& at, double f, const double* theta) const {
  const double s = deviation(at, f, theta);
  return (of(at).kind == error_kind::log_normal ? std::log(at.value / f) : at.value - f) / s;
}

double endpoints::simulated(const observation& at, double f, double e, const double* theta) const {
  const double s = deviation(at, f, theta);
  return of(at).kind == error_kind::log_normal ? f * std::exp(s * e) : f + s * e;
}

double endpoints::contribution(const observation& at, double f, const double* theta,
                               double& square) const {
  const bool logarithmic = of(at).kind == error_kind::log_normal;
  const double s = deviation(at, f, theta);
  if (!(s > 0.0)) return std::numeric_limits<double>::quiet_NaN();
  const double z = scaled_residual(at, f, theta);
  switch (at.censored) {
    case censoring::left:
      return -log_normal_probability(z);
    case censoring::right:
      return -log_normal_probability(-z);
    case censoring::interval: {
      const double lower = logarithmic ? std::log(std::max(at.limit, 0.0) / f) : at.limit - f;
      return -log_normal_probability(lower / s, z);
    }
    case censoring::none:
      break;
  }
  square = z * z;
  const double jacobian = logarithmic ? 2.0 * std::log(at.value) : 0.0;
  return sum_of_contributions(square, 2.0 * std::log(s) + jacobian, 1.0);
}

int endpoints::first_failure(const subject& who, const double* f, const double* theta) const {
  for (std::size_t k = 0; k < who.observations.size(); ++k) {
    double square = 0.0;
    if (!std::isfinite(f[k]) ||
        !std::isfinite(contribution(who.observations[k], f[k], theta, square)))
      return static_cast<int>(k);
  }
  return -1;
}

}  // namespace varda
