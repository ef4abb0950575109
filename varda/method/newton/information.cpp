// SPDX-License-Identifier: Apache-2.0
//
// What a sampled information says of steps, of gains, and of directions that it knows nothing of.
#include <fmt/format.h>

#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>

#include "varda/method/newton/limits.h"
#include "varda/method/newton/newton.h"

namespace varda {

using namespace newton_limits;

namespace {

// Eigenvalues of the information with unit diagonal that are looked at, and the number of their
// errors below which they count as nothing.
constexpr double small_eigenvalue = 0.05;
constexpr double errors_of_nothing = 3.0;
// Eigenvalues below this are rounding.
constexpr double rounding = 1e-9;
// Of the logarithm of a deviation: an error of a variance that says nothing.
constexpr double absurd_error = 3.0;
constexpr double noticeable_share = 0.3;  // of a direction's largest component
// Of a direction's square, in which no subject's score says anything.
constexpr double empty_share = 0.25;

Eigen::VectorXd units_of(const Eigen::MatrixXd& information) {
  return information.diagonal().cwiseAbs().cwiseMax(1e-12).cwiseSqrt();
}

Eigen::MatrixXd scaled_by(const Eigen::VectorXd& unit, const Eigen::MatrixXd& information) {
  return unit.cwiseInverse().asDiagonal() * information * unit.cwiseInverse().asDiagonal();
}

// The curvature that the scores of the subjects show along a direction, less their sampling error,
// or zero. Where the data say nothing every subject's score vanishes but for that error; the
// sampled information has the error of a difference of far larger terms, and may not show what they
// do say.
double curvature_of_scores(const Eigen::VectorXd& along, const Eigen::MatrixXd& outer_products,
                           const Eigen::MatrixXd& scatter) {
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(outer_products);
  double empty = 0.0;
  for (Eigen::Index k = 0; k < along.size(); ++k) {
    const auto axis = solver.eigenvectors().col(k);
    const double share = axis.dot(along);
    if (solver.eigenvalues()(k) <= errors_of_nothing * axis.dot(scatter * axis) + rounding)
      empty += share * share;
  }
  if (empty > empty_share) return 0.0;
  return std::max(along.dot((outer_products - scatter) * along), 0.0);
}

// One group of a draw by itself.
whole_draw group_of(const whole_draw& drawn, int group) {
  whole_draw result;
  result.plan = drawn.plan.alone(group);
  result.theta = drawn.theta;
  result.population = drawn.population;
  result.proposals = drawn.proposals;
  result.tails = drawn.tails;
  for (const subject_draw& s : drawn.kept) {
    subject_draw& part = result.kept.emplace_back();
    if (s.phi.size() == 0) continue;
    const Eigen::Index size = s.phi.cols() / s.groups;
    part.phi = s.phi.middleCols(group * size, size);
    part.log_proposal = s.log_proposal.segment(group * size, size);
    part.predictions = s.predictions.middleRows(group * size, size);
  }
  return result;
}

}  // namespace

// The Newton step, the gain it promises and the noise of that. A coordinate that a bound holds, the
// gradient pushing outwards, takes no part; weak directions are made stiffer.
void newton_method::judge_information(draw_measure& of, const Eigen::VectorXd& psi,
                                      const std::vector<weak_direction>& weak) const {
  const Eigen::Index p = psi.size();
  std::vector<Eigen::Index> free;
  for (Eigen::Index k = 0; k < p; ++k) {
    const coordinates::entry& e = scale_.entries()[static_cast<std::size_t>(k)];
    const bool held =
        (psi(k) <= e.lower && of.gradient(k) < 0.0) || (psi(k) >= e.upper && of.gradient(k) > 0.0);
    if (!held) free.push_back(k);
  }
  // Near a singular omega gradient g and curvature by a deviation's logarithm vanish, and what the
  // samples show of both is error: a curvature that is not above that of the gradient is no
  // divisor. Where the likelihood rises with a deviation and more steeply the larger its logarithm,
  // what is ahead follows from the curvature by the variance, I + 2 g.
  Eigen::MatrixXd information = of.information(free, free);
  bool concave = true;
  for (std::size_t i = 0; i < free.size(); ++i) {
    const Eigen::Index k = free[i];
    double& own = information(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(i));
    const double least = errors_of_nothing * std::sqrt(std::max(of.scatter(k, k), 0.0));
    if (scale_.entries()[static_cast<std::size_t>(k)].diagonal && own < 0.0 &&
        of.gradient(k) > 0.0) {
      own = std::max(own + 2.0 * of.gradient(k), least);
      concave = false;
    }
    if (std::fabs(own) < least) own = least;
  }
  const Eigen::VectorXd unit = units_of(information);
  Eigen::MatrixXd scaled = scaled_by(unit, information);
  for (const weak_direction& w : weak) {
    const Eigen::VectorXd along = w.along(free).cwiseProduct(unit).normalized();
    scaled += w.added * along * along.transpose();
  }
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(scaled);
  of.definite = concave && (free.empty() || solver.eigenvalues()(0) > 0.0);
  const Eigen::VectorXd curvature = solver.eigenvalues().cwiseAbs().cwiseMax(least_eigenvalue);
  const Eigen::MatrixXd basis = unit.cwiseInverse().asDiagonal() * solver.eigenvectors();
  const Eigen::VectorXd along = basis.transpose() * of.gradient(free);
  const Eigen::VectorXd step = basis * along.cwiseQuotient(curvature);
  of.step = Eigen::VectorXd::Zero(p);
  of.step(free) = step;
  of.gain = along.cwiseProduct(along.cwiseQuotient(curvature)).sum();
  const Eigen::MatrixXd noise = basis.transpose() * of.scatter(free, free) * basis;
  of.noise = noise.diagonal().cwiseQuotient(curvature).sum();
}

std::vector<weak_direction> newton_method::weak_directions(const whole_draw& drawn,
                                                           const Eigen::VectorXd& psi,
                                                           const draw_measure& found) const {
  std::vector<weak_direction> result;
  const Eigen::VectorXd unit = units_of(found.information);
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(scaled_by(unit, found.information));
  std::vector<Eigen::Index> small;
  for (Eigen::Index k = 0; k < psi.size(); ++k)
    if (solver.eigenvalues()(k) < small_eigenvalue) small.push_back(k);
  if (small.empty() || drawn.plan.groups < 2) return result;
  // What every group of the samples says of these directions alone.
  Eigen::MatrixXd of_groups(small.size(), drawn.plan.groups);
  for (int g = 0; g < drawn.plan.groups; ++g) {
    const draw_measure own = measure(group_of(drawn, g), psi, detail::derivatives);
    const Eigen::MatrixXd scaled = scaled_by(unit, own.information);
    for (std::size_t s = 0; s < small.size(); ++s) {
      const auto direction = solver.eigenvectors().col(small[s]);
      of_groups(static_cast<Eigen::Index>(s), g) = direction.dot(scaled * direction);
    }
  }
  for (std::size_t s = 0; s < small.size(); ++s) {
    const auto row = of_groups.row(static_cast<Eigen::Index>(s));
    const double error = std::sqrt((row.array() - row.mean()).square().sum() /
                                   (drawn.plan.groups - 1.0) / drawn.plan.groups);
    const double eigenvalue = solver.eigenvalues()(small[s]);
    if (eigenvalue > errors_of_nothing * error && eigenvalue > rounding) continue;
    const Eigen::VectorXd along = solver.eigenvectors().col(small[s]);
    const Eigen::VectorXd direction = along.cwiseQuotient(unit);
    Eigen::Index largest = 0;
    direction.cwiseAbs().maxCoeff(&largest);
    weak_direction& weak = result.emplace_back();
    weak.along = direction / direction(largest);
    if (const double shown = curvature_of_scores(along, scaled_by(unit, found.outer_products),
                                                 scaled_by(unit, found.scatter));
        shown > 0.0)
      weak.added = std::max(shown - eigenvalue, 0.0);
  }
  return result;
}

Eigen::MatrixXd newton_method::strengthened(const Eigen::MatrixXd& information,
                                            const std::vector<weak_direction>& weak) {
  Eigen::MatrixXd result = information;
  const Eigen::VectorXd unit = units_of(information);
  for (const weak_direction& w : weak) {
    if (w.is_flat()) continue;
    const Eigen::VectorXd along = w.along.cwiseProduct(unit).normalized().cwiseProduct(unit);
    result += w.added * along * along.transpose();
  }
  return result;
}

covariance_estimate newton_method::invert(const Eigen::MatrixXd& all_information,
                                          std::vector<Eigen::VectorXd>& flat) const {
  const Eigen::Index p = all_information.rows();
  std::vector<char> dropped(static_cast<std::size_t>(p), 0);
  const auto is_variance = [&](Eigen::Index k) {
    return scale_.entries()[static_cast<std::size_t>(k)].diagonal;
  };
  const auto drop = [&](Eigen::Index k) {
    dropped[static_cast<std::size_t>(k)] = 1;
    flat.push_back(Eigen::VectorXd::Unit(p, k));
  };
  constexpr double most = absurd_error * absurd_error;
  const std::vector<Eigen::VectorXd> named = flat;
  for (Eigen::Index k = 0; k < p; ++k)
    if (is_variance(k) && all_information(k, k) * most <= 1.0) drop(k);
  for (;;) {
    std::vector<Eigen::Index> kept;
    for (Eigen::Index k = 0; k < p; ++k)
      if (dropped[static_cast<std::size_t>(k)] == 0) kept.push_back(k);
    const Eigen::MatrixXd information = all_information(kept, kept);
    const Eigen::VectorXd unit = units_of(information);
    // Orthonormal directions with nothing in them.
    Eigen::MatrixXd empty(kept.size(), 0);
    for (const Eigen::VectorXd& direction : named) {
      Eigen::VectorXd own = direction(kept).cwiseProduct(unit);
      if (own.norm() == 0.0) continue;
      own.normalize();
      own -= empty * (empty.transpose() * own);
      if (own.norm() < 1e-6) continue;
      empty.conservativeResize(Eigen::NoChange, empty.cols() + 1);
      empty.rightCols(1) = own.normalized();
    }
    const Eigen::MatrixXd none = empty * empty.transpose();
    const Eigen::MatrixXd identity = Eigen::MatrixXd::Identity(none.rows(), none.cols());
    const Eigen::LLT<Eigen::MatrixXd> factor(
        (identity - none) * scaled_by(unit, information) * (identity - none) + none);
    if (factor.info() != Eigen::Success) {
      // A variance that stands near zero: its logarithm has no curvature there.
      Eigen::Index worst = -1;
      for (std::size_t k = 0; k < kept.size(); ++k)
        if (is_variance(kept[k]) &&
            (worst < 0 || information(static_cast<Eigen::Index>(k), static_cast<Eigen::Index>(k)) <
                              all_information(worst, worst)))
          worst = kept[k];
      if (worst < 0 ||
          all_information(worst, worst) * undetermined_error * undetermined_error > 1.0)
        return {false,
                "the observed information is not positive definite: the estimates are not at a "
                "maximum",
                {}};
      drop(worst);
      continue;
    }
    const Eigen::MatrixXd inverse = unit.cwiseInverse().asDiagonal() *
                                    (factor.solve(identity) - none) *
                                    unit.cwiseInverse().asDiagonal();
    bool again = false;
    for (std::size_t k = 0; k < kept.size(); ++k)
      if (is_variance(kept[k]) &&
          inverse(static_cast<Eigen::Index>(k), static_cast<Eigen::Index>(k)) > most) {
        drop(kept[k]);
        again = true;
      }
    if (again) continue;
    covariance_estimate result{true, "", Eigen::MatrixXd::Zero(p, p)};
    result.covariance(kept, kept) = inverse;
    return result;
  }
}

bool newton_method::is_of_fixed_effects(const Eigen::VectorXd& direction) const {
  double own = 0.0;
  for (Eigen::Index k = 0; k < direction.size(); ++k)
    if (scale_.entries()[static_cast<std::size_t>(k)].theta >= 0)
      own += direction(k) * direction(k);
  return own > 0.5 * direction.squaredNorm();
}

std::string newton_method::names_along(const Eigen::VectorXd& direction) const {
  std::string names;
  for (Eigen::Index k = 0; k < direction.size(); ++k)
    if (std::fabs(direction(k)) > noticeable_share)
      names += (names.empty() ? "" : ", ") + scale_.entries()[static_cast<std::size_t>(k)].name;
  return names;
}

// Fixed effects run away along a direction in which neither slope nor curvature is more than noise.
// Near a singular omega scores and curvature differ, so that variances have what the samples say.
void newton_method::stiffen(const std::vector<weak_direction>& weak, whole_draw& drawn,
                            const Eigen::VectorXd& psi, draw_measure& here) const {
  for (const weak_direction& w : weak) {
    const double slope = w.along.dot(here.gradient);
    const double error = std::sqrt(w.along.dot(here.scatter * w.along));
    if (is_of_fixed_effects(w.along) &&
        (!w.is_flat() || std::fabs(slope) <= errors_of_nothing * error))
      drawn.weak.push_back(w);
  }
  if (!drawn.weak.empty()) judge_information(here, psi, drawn.weak);
}

}  // namespace varda
