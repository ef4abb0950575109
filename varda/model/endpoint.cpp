// SPDX-License-Identifier: Apache-2.0
#include "varda/model/endpoint.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <vector>

#include "varda/model/lanes/kernel.h"

namespace varda {

namespace {

// Whether the one deviation is that of a transformed value.
bool is_transformed(error_kind kind) {
  return kind == error_kind::log_normal || kind == error_kind::box_cox;
}

// The laws of the endpoints at theta: memory of the caller's for the usual number.
class law_list {
 public:
  explicit law_list(std::size_t count) {
    if (count > few_.size()) many_.resize(count);
    first_ = count > few_.size() ? many_.data() : few_.data();
  }
  law_list(const law_list&) = delete;
  law_list& operator=(const law_list&) = delete;
  residual_law* data() { return first_; }

 private:
  std::array<residual_law, 4> few_;
  std::vector<residual_law> many_;
  residual_law* first_;
};

// log B(a, 1/2). Large terms cancel.
double log_beta_with_half(long double a) {
  return static_cast<double>(std::lgamma(a) + 0.5L * std::log(std::numbers::pi_v<long double>) -
                             std::lgamma(a + 0.5L));
}

}  // namespace

endpoints::endpoints(const std::vector<endpoint>& described, int first_theta, const dataset& data)
    : first_theta_(first_theta) {
  const auto add = [&](const endpoint& of, const char* name, double start, bool fixed) {
    fixed_effect t;
    t.is_scale = name != std::string("exponent");
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
    entry e{.kind = r.kind, .known = !of.is_normal()};
    if (e.known) {
      endpoints_.push_back(e);
      continue;
    }
    e.degrees_of_freedom = r.degrees_of_freedom;
    if (r.degrees_of_freedom > 0.0) e.log_beta = log_beta_with_half(0.5 * r.degrees_of_freedom);
    e.lambda = r.lambda;
    if (r.kind != error_kind::additive && !is_transformed(r.kind))
      e.proportional = add(of, "proportional", r.proportional, r.proportional_fixed);
    if (r.kind == error_kind::power)
      e.exponent = add(of, "exponent", r.exponent, r.exponent_fixed);
    else if (r.kind != error_kind::proportional)
      e.additive = add(of, r.kind == error_kind::log_normal ? "log_normal" : "additive", r.additive,
                       r.additive_fixed);
    endpoints_.push_back(e);
  }
  const auto nothing_censored = [](const subject& who) {
    return std::all_of(who.observations.begin(), who.observations.end(),
                       [](const observation& o) { return o.censored == censoring::none; });
  };
  plain_ = endpoints_.size() == 1 && !endpoints_.front().known &&
           !is_transformed(endpoints_.front().kind) &&
           !(endpoints_.front().degrees_of_freedom > 0.0) &&
           std::all_of(data.subjects.begin(), data.subjects.end(), nothing_censored);
}

void endpoints::objectives(const subject& who, const double* f, std::size_t stride, std::size_t n,
                           const double* theta, double* objective, double* scaled_squares) const {
  objectives(who, f, stride, n, theta, objective, scaled_squares, best_lane_kernel());
}

void endpoints::objectives(const subject& who, const double* f, std::size_t stride, std::size_t n,
                           const double* theta, double* objective, double* scaled_squares,
                           const lane_kernel& with) const {
  objectives(who.observations.data(), who.observations.size(), f, stride, n, theta, objective,
             scaled_squares, with);
}

void endpoints::objectives(const observation* observed, std::size_t count, const double* f,
                           std::size_t stride, std::size_t n, const double* theta,
                           double* objective, double* scaled_squares,
                           const lane_kernel& with) const {
  law_list laws(endpoints_.size());
  for (std::size_t k = 0; k < endpoints_.size(); ++k) {
    const entry& e = endpoints_[k];
    const double a = e.additive < 0 ? 0.0 : theta[e.additive];
    const double b = e.proportional < 0 ? 0.0 : theta[e.proportional];
    laws.data()[k] = {.kind = e.kind,
                      .known = e.known,
                      .additive = a,
                      .proportional = b,
                      .exponent = e.exponent < 0 ? 0.0 : theta[e.exponent],
                      .degrees_of_freedom = e.degrees_of_freedom,
                      .log_beta = e.log_beta,
                      .lambda = e.lambda,
                      .per_additive_square = 1.0 / (a * a),
                      .per_proportional_square = 1.0 / (b * b)};
  }
  with.residuals({.observed = observed,
                  .observations = count,
                  .laws = laws.data(),
                  .endpoints = endpoints_.size(),
                  .individuals = n,
                  .f = f,
                  .stride = stride,
                  .objective = objective,
                  .squares = scaled_squares});
}

namespace {

// What an observation's residuals say of its deviations, summed with the individuals' weights.
struct curvatures {
  double additive = 0.0;
  double mixed = 0.0;
  double proportional = 0.0;
};

// By blocks of a length that compilers make vector instructions of; the sums go from individual to
// individual.
template <bool Additive, bool Proportional>
curvatures add_derivatives(const double* residuals, const double* f, const double* weights,
                           std::size_t n, double a2, double b2, double* by_additive,
                           double* by_proportional) {
  constexpr std::size_t block = 64;
  curvatures sum;
  for (std::size_t begin = 0; begin < n; begin += block) {
    const std::size_t count = std::min(block, n - begin);
    double fk[block];
    double r[block];
    for (std::size_t j = 0; j < block; ++j) fk[j] = r[j] = 1.0;
    std::copy_n(f + begin, count, fk);
    std::copy_n(residuals + begin, count, r);
    double relative[block];
    double first[block];
    double second[block];
    for (std::size_t j = 0; j < block; ++j) {
      const double vb = Proportional ? b2 * fk[j] * fk[j] : 0.0;
      const double v = Additive ? (Proportional ? a2 + vb : a2) : vb;
      const double q = r[j] * r[j] / v;
      relative[j] = vb;
      first[j] = 0.5 * (q - 1.0) / v;
      second[j] = (0.5 - q) / (v * v);
    }
    for (std::size_t j = 0; j < count; ++j) {
      const double weight = weights[begin + j];
      if (weight == 0.0) continue;
      const double vb = relative[j];
      if constexpr (Additive) {
        by_additive[begin + j] += first[j] * 2.0 * a2;
        sum.additive += weight * 4.0 * a2 * (second[j] * a2 + first[j]);
      }
      if constexpr (Additive && Proportional) sum.mixed += weight * 4.0 * second[j] * a2 * vb;
      if constexpr (Proportional) {
        by_proportional[begin + j] += first[j] * 2.0 * vb;
        sum.proportional += weight * 4.0 * vb * (second[j] * vb + first[j]);
      }
    }
  }
  return sum;
}

}  // namespace

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
  Eigen::VectorXd residual(f.rows());
  const auto n = static_cast<std::size_t>(f.rows());
  for (const observation& at : who.observations) {
    const double* const fk = f.col(column++).data();
    if (!is_normal(at)) continue;
    if (at.censored != censoring::none) {
      add_differences(at, fk, theta, weights, gradient, hessian);
      continue;
    }
    const entry& e = of(at);
    if (e.kind == error_kind::combined_sd || e.kind == error_kind::power ||
        e.degrees_of_freedom > 0.0) {
      add_derivatives_of_deviation(at, fk, theta, weights, gradient, hessian);
      continue;
    }
    const bool transformed = is_transformed(e.kind);
    const Eigen::Index a = e.additive < 0 ? -1 : e.additive - first_theta_;
    const Eigen::Index b = e.proportional < 0 ? -1 : e.proportional - first_theta_;
    const double a2 = a < 0 ? 0.0 : theta[e.additive] * theta[e.additive];
    const double b2 = b < 0 ? 0.0 : theta[e.proportional] * theta[e.proportional];
    for (Eigen::Index j = 0; j < f.rows(); ++j)
      residual(j) = transformed ? difference(e, at.value, fk[j]) : at.value - fk[j];
    double* const by_additive = a < 0 ? nullptr : gradient.col(a).data();
    double* const by_proportional = b < 0 ? nullptr : gradient.col(b).data();
    const auto add = b < 0   ? add_derivatives<true, false>
                     : a < 0 ? add_derivatives<false, true>
                             : add_derivatives<true, true>;
    const curvatures sum =
        add(residual.data(), fk, weights.data(), n, a2, b2, by_additive, by_proportional);
    if (a >= 0) hessian(a, a) += sum.additive;
    if (b >= 0) hessian(b, b) += sum.proportional;
    if (a >= 0 && b >= 0) {
      hessian(a, b) += sum.mixed;
      hessian(b, a) += sum.mixed;
    }
  }
}

// With s the deviation, q the squared residual over s^2 and l = -q / 2 - log s: dl/dlog s = q - 1
// and d2l/d(log s)^2 = -2 q; for Student's t with l = -(nu + 1) / 2 log(1 + q / nu) - log s they
// are (nu + 1) q / (nu + q) - 1 and -2 q (nu + 1) nu / (nu + q)^2. log s moves with log a by a / s
// (combined-sd) or a^2 / s^2 (combined), with log b by the rest where there is an a, and with log c
// by c log |f|. A deviation that stands alone moves it by 1.
void endpoints::add_derivatives_of_deviation(const observation& at, const double* f,
                                             const double* theta, const Eigen::VectorXd& weights,
                                             Eigen::MatrixXd& gradient,
                                             Eigen::MatrixXd& hessian) const {
  const entry& e = of(at);
  const bool is_power = e.kind == error_kind::power;
  const bool is_pair = e.proportional >= 0 && (is_power || e.additive >= 0);
  const Eigen::Index one = (e.proportional < 0 ? e.additive : e.proportional) - first_theta_;
  const Eigen::Index other = (is_power ? e.exponent : e.additive) - first_theta_;
  const double nu = e.degrees_of_freedom;
  for (Eigen::Index j = 0; j < gradient.rows(); ++j) {
    if (weights(j) == 0.0) continue;
    const double s = deviation(at, f[j], theta);
    const double q = std::pow(difference(e, at.value, f[j]) / s, 2);
    const double slope = nu > 0.0 ? (nu + 1.0) * q / (nu + q) - 1.0 : q - 1.0;
    const double curvature =
        nu > 0.0 ? -2.0 * q * (nu + 1.0) * nu / ((nu + q) * (nu + q)) : -2.0 * q;
    // First and second derivatives of log s.
    double by_one = 1.0;
    double by_other = 0.0;
    double one_one = 0.0;
    double one_other = 0.0;
    double other_other = 0.0;
    if (is_power) {
      by_other = other_other = theta[e.exponent] * std::log(std::fabs(f[j]));
    } else if (is_pair) {
      const bool by_variance = e.kind == error_kind::combined;
      by_other = theta[e.additive] / s;
      if (by_variance) by_other *= by_other;
      by_one = 1.0 - by_other;
      one_one = other_other = (by_variance ? 2.0 : 1.0) * by_one * by_other;
      one_other = -one_one;
    }
    gradient(j, one) += slope * by_one;
    const double w = weights(j);
    hessian(one, one) += w * (curvature * by_one * by_one + slope * one_one);
    if (!is_pair) continue;
    gradient(j, other) += slope * by_other;
    hessian(other, other) += w * (curvature * by_other * by_other + slope * other_other);
    const double mixed = w * (curvature * by_one * by_other + slope * one_other);
    hessian(one, other) += mixed;
    hessian(other, one) += mixed;
  }
}

// What is known of a censored observation is a probability; central differences serve.
void endpoints::add_differences(const observation& at, const double* f, const double* theta,
                                const Eigen::VectorXd& weights, Eigen::MatrixXd& gradient,
                                Eigen::MatrixXd& hessian) const {
  constexpr double step = 1e-3;
  const Eigen::Index n = gradient.rows();
  std::vector<double> moved(theta, theta + first_theta_ + static_cast<int>(parameters_.size()));
  std::vector<int> own;
  for (const int position : {of(at).additive, of(at).proportional, of(at).exponent})
    if (position >= 0) own.push_back(position);
  Eigen::VectorXd squares(n);
  // log p with the logarithms of one parameter or both moved by so many steps.
  const auto value = [&](double first, double second) {
    const double by[] = {first, second};
    for (std::size_t k = 0; k < own.size(); ++k) {
      const auto p = static_cast<std::size_t>(own[k]);
      moved[p] = theta[p] * std::exp(by[k] * step);
    }
    Eigen::VectorXd result(n);
    objectives(&at, 1, f, static_cast<std::size_t>(n), static_cast<std::size_t>(n), moved.data(),
               result.data(), squares.data(), best_lane_kernel());
    return Eigen::VectorXd(-result);
  };
  // A weight of 0 stands for a sample that is of no use, whose density may not be finite.
  const auto add = [&](auto to, const Eigen::VectorXd& slope) {
    for (Eigen::Index j = 0; j < n; ++j)
      if (weights(j) != 0.0) to(j) += slope(j);
  };
  const auto weighted = [&](const Eigen::VectorXd& curvature) {
    double sum = 0.0;
    for (Eigen::Index j = 0; j < n; ++j)
      if (weights(j) != 0.0) sum += weights(j) * curvature(j);
    return sum;
  };
  const Eigen::VectorXd here = value(0.0, 0.0);
  Eigen::VectorXd alone = Eigen::VectorXd::Zero(n);  // what each does alone
  for (std::size_t k = 0; k < own.size(); ++k) {
    const Eigen::VectorXd above = k == 0 ? value(1.0, 0.0) : value(0.0, 1.0);
    const Eigen::VectorXd below = k == 0 ? value(-1.0, 0.0) : value(0.0, -1.0);
    const Eigen::Index place = own[k] - first_theta_;
    add(gradient.col(place), (above - below) / (2.0 * step));
    hessian(place, place) += weighted((above - 2.0 * here + below) / (step * step));
    alone += above + below;
  }
  if (own.size() < 2) return;
  // (++ and -- less that), as in difference stencils of seven points.
  const Eigen::VectorXd mixed = value(1.0, 1.0) + value(-1.0, -1.0) + 2.0 * here - alone;
  const double both = weighted(mixed / (2.0 * step * step));
  hessian(own[0] - first_theta_, own[1] - first_theta_) += both;
  hessian(own[1] - first_theta_, own[0] - first_theta_) += both;
}

// Of an observation and its prediction, transformed.
double endpoints::difference(const entry& e, double y, double f) const {
  if (!is_transformed(e.kind)) return y - f;
  const double ratio = std::log(y / f);
  if (e.kind == error_kind::log_normal || e.lambda == 0.0) return ratio;
  const double power = e.lambda * ratio;
  // About the larger of the two powers: the other may underflow.
  return power > 0.0 ? -std::pow(y, e.lambda) * std::expm1(-power) / e.lambda
                     : std::pow(f, e.lambda) * std::expm1(power) / e.lambda;
}

double endpoints::deviation(const observation& at, double f, const double* theta) const {
  const entry& e = of(at);
  switch (e.kind) {
    case error_kind::additive:
    case error_kind::log_normal:
    case error_kind::box_cox:
      return theta[e.additive];
    case error_kind::proportional:
      return std::fabs(theta[e.proportional] * f);
    case error_kind::combined_sd:
      return theta[e.additive] + std::fabs(theta[e.proportional] * f);
    case error_kind::power:
      return theta[e.proportional] * std::pow(std::fabs(f), theta[e.exponent]);
    case error_kind::combined:
      break;
  }
  return std::hypot(theta[e.additive], theta[e.proportional] * f);
}

double endpoints::scaled_residual(const observation& at, double f, const double* theta) const {
  const double s = deviation(at, f, theta);
  return difference(of(at), at.value, f) / s;
}

double endpoints::transformed(const observation& at, double y) const {
  const entry& e = of(at);
  if (!is_transformed(e.kind)) return y;
  const bool is_logarithm = e.kind == error_kind::log_normal || e.lambda == 0.0;
  if (y < 0.0 || (y == 0.0 && (is_logarithm || e.lambda < 0.0)))
    return -std::numeric_limits<double>::infinity();
  return is_logarithm ? std::log(y) : (std::pow(y, e.lambda) - 1.0) / e.lambda;
}

void endpoints::scatter(const observation& at, const double* f, std::size_t n, const double* theta,
                        double* transformed_f, double* deviations) const {
  const error_kind kind = of(at).kind;
  if (is_transformed(kind))
    for (std::size_t k = 0; k < n; ++k) transformed_f[k] = transformed(at, f[k]);
  else
    std::copy_n(f, n, transformed_f);
  if (is_transformed(kind) || kind == error_kind::additive)
    std::fill_n(deviations, n, theta[of(at).additive]);
  else
    for (std::size_t k = 0; k < n; ++k) deviations[k] = deviation(at, f[k], theta);
}

double endpoints::simulated(const observation& at, double f, double e, const double* theta) const {
  const double s = deviation(at, f, theta);
  const entry& law = of(at);
  if (!is_transformed(law.kind)) return f + s * e;
  if (law.kind == error_kind::log_normal || law.lambda == 0.0) return f * std::exp(s * e);
  if (!(f > 0.0)) return std::numeric_limits<double>::quiet_NaN();
  const double power = std::pow(f, law.lambda) + law.lambda * s * e;
  return std::pow(std::max(power, 0.0), 1.0 / law.lambda);
}

int endpoints::first_failure(const subject& who, const double* f, const double* theta) const {
  for (std::size_t k = 0; k < who.observations.size(); ++k) {
    double objective = 0.0;
    double square = 0.0;
    objectives(&who.observations[k], 1, &f[k], 1, 1, theta, &objective, &square,
               best_lane_kernel());
    if (!std::isfinite(f[k]) || !std::isfinite(objective)) return static_cast<int>(k);
  }
  return -1;
}

}  // namespace varda
