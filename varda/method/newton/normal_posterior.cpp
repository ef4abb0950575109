// SPDX-License-Identifier: Apache-2.0
//
// Newton's method with the Hessian's eigenvalues made positive and a backtracking line search
// (J. Nocedal and S. J. Wright, "Numerical Optimization", 2nd ed., 2006, algorithm 3.2), on central
// differences in units of the prior's standard deviations.
#include "varda/method/newton/normal_posterior.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace varda {

namespace {

constexpr int most_steps = 40;
constexpr double difference = 1e-2;        // of the first steps, in prior deviations
constexpr double finer_difference = 0.02;  // later, in conditional deviations
constexpr double least_gain = 1e-6;
constexpr double longest_step = 3.0;
constexpr double least_curvature = 0.05;
// The log density of a normal distribution falls by 1/2 at one deviation, by 2 at two. Where it
// falls by less than `least_fall` at what its curvature makes a deviation, the curvature holds for
// a smaller neighbourhood than the mass does; it is then taken from where it has fallen by some 2.
constexpr double least_fall = 0.25;
constexpr double far_fall = 2.0;
constexpr double nearly = 0.75;
constexpr double most_widening = 4.0;
constexpr int most_widenings = 10;
// Of a mixed derivative, beside the geometric mean of the two others.
constexpr double negligible = 1e-3;
constexpr double minus_infinity = -std::numeric_limits<double>::infinity();

// Centre, one step either way in each coordinate, and both corners of each of the pairs.
Eigen::MatrixXd stencil(const Eigen::VectorXd& x, const Eigen::VectorXd& step,
                        const std::vector<effect_pair>& pairs) {
  const Eigen::Index n = x.size();
  Eigen::MatrixXd points = x.replicate(1, 1 + 2 * n + 2 * std::ssize(pairs));
  Eigen::Index at = 1;
  for (Eigen::Index k = 0; k < n; ++k) {
    points(k, at++) += step(k);
    points(k, at++) -= step(k);
  }
  for (const auto& [k, l] : pairs)
    for (const double sign : {1.0, -1.0}) {
      points(k, at) += sign * step(k);
      points(l, at++) += sign * step(l);
    }
  return points;
}

struct local_model {
  Eigen::VectorXd gradient;
  Eigen::MatrixXd hessian;
};

// Mixed derivatives of other pairs are 0.
local_model derivatives(const Eigen::VectorXd& f, const Eigen::VectorXd& step,
                        const std::vector<effect_pair>& pairs) {
  const Eigen::Index n = step.size();
  local_model result{Eigen::VectorXd(n), Eigen::MatrixXd::Zero(n, n)};
  for (Eigen::Index k = 0; k < n; ++k) {
    const double up = f(1 + 2 * k);
    const double down = f(2 + 2 * k);
    result.gradient(k) = (up - down) / (2.0 * step(k));
    result.hessian(k, k) = (up - 2.0 * f(0) + down) / (step(k) * step(k));
  }
  Eigen::Index at = 1 + 2 * n;
  for (const auto& [k, l] : pairs) {
    result.hessian(k, l) = result.hessian(l, k) = (f(at) + f(at + 1) + 2.0 * f(0) - f(1 + 2 * k) -
                                                   f(2 + 2 * k) - f(1 + 2 * l) - f(2 + 2 * l)) /
                                                  (2.0 * step(k) * step(l));
    at += 2;
  }
  return result;
}

}  // namespace

mode_finder::mode_finder(const density& joint) : joint_(joint), scratch_(joint.model()) {
  const Eigen::Index n = joint.model().random_effects();
  for (Eigen::Index k = 0; k < n; ++k)
    for (Eigen::Index l = 0; l < k; ++l) pairs_.emplace_back(k, l);
}

// Whether the effects belong to two occasions, and a Hessian says that their data are apart as
// well.
bool mode_finder::are_apart(const effect_pair& pair, const Eigen::MatrixXd& hessian) const {
  const auto occasion = [&](Eigen::Index k) {
    return joint_.model().effects()[static_cast<std::size_t>(k)].occasion;
  };
  const auto [k, l] = pair;
  if (occasion(k) < 0 || occasion(l) < 0 || occasion(k) == occasion(l)) return false;
  return hessian(k, l) * hessian(k, l) <=
         negligible * negligible * std::fabs(hessian(k, k) * hessian(l, l));
}

Eigen::VectorXd mode_finder::log_data(int subject, const Eigen::MatrixXd& phi,
                                      const parameter_values& at) {
  Eigen::MatrixXd f;
  Eigen::VectorXd result;
  Eigen::VectorXd squares;
  joint_.predict(subject, at.theta.data(), phi, f, scratch_);
  joint_.of_data(subject, at.theta.data(), f, result, squares);
  evaluations_ += phi.cols();
  for (double& value : result) value = std::isfinite(value) ? -value : minus_infinity;
  return result;
}

Eigen::VectorXd mode_finder::log_density(int subject, const Eigen::MatrixXd& phi,
                                         const parameter_values& at) {
  Eigen::VectorXd result = log_data(subject, phi, at);
  Eigen::VectorXd mu(phi.rows());
  joint_.model().means(subject, at.theta.data(), mu.data());
  Eigen::VectorXd of_effects;
  at.prior.negative_logs(phi.colwise() - mu, of_effects);
  result -= of_effects;
  return result;
}

// A prediction with a corner, such as the end of an infusion of random duration, puts corners into
// the log density wherever a sampling time is passed, and the mode often lies on one. Second
// differences with a small step h give such a corner the curvature of the jump of its slope divided
// by h, and the deviation from that a still smaller step. Differences over two deviations of the
// mass give what a normal density has to be like.
void mode_finder::look_coarsely(int subject, const Eigen::VectorXd& phi, const parameter_values& at,
                                Eigen::MatrixXd& hessian) {
  const Eigen::Index n = phi.size();
  if (!(hessian.diagonal().array() < 0.0).all()) return;
  const Eigen::ArrayXd most = 2.0 * at.omega.diagonal().cwiseSqrt().array();
  Eigen::ArrayXd step = (-hessian.diagonal()).cwiseSqrt().cwiseInverse().array().min(most);
  Eigen::ArrayXd goal = Eigen::ArrayXd::Constant(n, least_fall);
  for (int k = 0; k < most_widenings; ++k) {
    Eigen::MatrixXd points = phi.replicate(1, 1 + 2 * n);
    points.middleCols(1, n).diagonal() += step.matrix();
    points.rightCols(n).diagonal() -= step.matrix();
    const Eigen::VectorXd f = log_density(subject, points, at);
    if (!f.allFinite()) return;
    const Eigen::ArrayXd fall = f(0) - 0.5 * (f.segment(1, n) + f.tail(n)).array();
    const auto short_of = (fall < goal && step < most).eval();
    if (!short_of.any()) break;
    goal = short_of.select(nearly * far_fall, goal);
    const Eigen::ArrayXd wider = (far_fall / fall.max(1e-6)).sqrt().min(most_widening) * step;
    step = short_of.select(wider.min(most), step);
  }
  if ((goal == least_fall).all()) return;
  const Eigen::VectorXd f = log_density(subject, stencil(phi, step, pairs_), at);
  if (f.allFinite()) hessian = derivatives(f, step, pairs_).hessian;
}

normal_posterior mode_finder::search_beside(int subject, const Eigen::VectorXd& from,
                                            const parameter_values& at,
                                            const Eigen::VectorXd& centre,
                                            const Eigen::MatrixXd& factor) {
  return search(subject, from, at, [&](const Eigen::VectorXd& phi) {
    return factor.triangularView<Eigen::Lower>().solve(phi - centre).squaredNorm() < 1.0;
  });
}

normal_posterior mode_finder::search(int subject, const Eigen::VectorXd& from,
                                     const parameter_values& at,
                                     const std::function<bool(const Eigen::VectorXd&)>& is_known) {
  const Eigen::Index n = from.size();
  const Eigen::VectorXd unit = at.omega.diagonal().cwiseSqrt();
  Eigen::VectorXd phi = from;
  Eigen::VectorXd step = difference * unit;
  Eigen::MatrixXd hessian = -at.prior.precision();
  std::vector<effect_pair> pairs = pairs_;
  normal_posterior result;
  result.log_density = minus_infinity;
  for (int k = 0; k < most_steps; ++k) {
    const Eigen::VectorXd f = log_density(subject, stencil(phi, step, pairs), at);
    result.log_density = f(0);
    if (!f.allFinite()) break;
    const local_model local = derivatives(f, step, pairs);
    // With many occasions most pairs of effects have nothing to do with each other.
    if (k == 0)
      std::erase_if(pairs, [&](const effect_pair& p) { return are_apart(p, local.hessian); });
    // In units of the prior, where its own curvature is 1 in the uncorrelated case.
    const Eigen::MatrixXd scaled = unit.asDiagonal() * local.hessian * unit.asDiagonal();
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(-scaled);
    if (solver.info() != Eigen::Success) break;
    hessian = local.hessian;
    const Eigen::VectorXd curvature = solver.eigenvalues().cwiseAbs().cwiseMax(least_curvature);
    const Eigen::VectorXd along =
        solver.eigenvectors().transpose() * unit.asDiagonal() * local.gradient;
    Eigen::VectorXd move = solver.eigenvectors() * along.cwiseQuotient(curvature);
    const double length = move.cwiseAbs().maxCoeff();
    if (length > longest_step) move *= longest_step / length;
    const double expected = 0.5 * along.cwiseProduct(along.cwiseQuotient(curvature)).sum();
    const bool definite = solver.eigenvalues()(0) > 0.0;
    if (definite) {
      const Eigen::MatrixXd inverse = solver.eigenvectors() *
                                      curvature.cwiseInverse().asDiagonal() *
                                      solver.eigenvectors().transpose();
      step = finer_difference * unit.cwiseProduct(inverse.diagonal().cwiseSqrt());
    }
    if (expected < least_gain && definite) break;
    // All halvings at once.
    constexpr int halvings = 6;
    Eigen::MatrixXd tries(n, halvings);
    for (int h = 0; h < halvings; ++h)
      tries.col(h) = phi + std::pow(0.25, h) * unit.cwiseProduct(move);
    Eigen::VectorXd first = log_density(subject, tries.leftCols(1), at);
    Eigen::Index best = 0;
    double value = first(0);
    if (!(value > f(0))) {
      const Eigen::VectorXd rest = log_density(subject, tries.rightCols(halvings - 1), at);
      value = rest.maxCoeff(&best);
      ++best;
    }
    if (!(value > f(0))) break;
    phi = tries.col(best);
    if (is_known && is_known(phi)) return {};
    result.log_density = value;
  }
  result.phi = phi;
  result.usable = std::isfinite(result.log_density);
  if (result.usable) look_coarsely(subject, phi, at, hessian);
  // No direction is wider than the prior: eigenvalues of L^-1 V L^-T at most 1.
  const Eigen::MatrixXd& l = at.prior.factor();
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(l.transpose() * -hessian * l);
  const Eigen::VectorXd curvature = solver.eigenvalues().cwiseMax(1.0);
  const Eigen::MatrixXd root = l * solver.eigenvectors();
  result.covariance = root * curvature.cwiseInverse().asDiagonal() * root.transpose();
  double log_determinant = -curvature.array().log().sum() + 2.0 * l.diagonal().array().log().sum();
  result.log_mass = result.log_density +
                    0.5 * static_cast<double>(n) * std::log(2.0 * std::numbers::pi) +
                    0.5 * log_determinant;
  return result;
}

}  // namespace varda
