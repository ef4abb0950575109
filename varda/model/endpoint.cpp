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

endpoints::endpoints(const std::vector<endpoint>& described, int first_theta, const dataset& data) {
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
