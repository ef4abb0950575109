// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/steady_state.h"

#include <algorithm>
#include <cmath>

namespace varda {

namespace {

constexpr int most_corrections = 60;

std::span<double> numbers(Eigen::VectorXd& v) {
  return {v.data(), static_cast<std::size_t>(v.size())};
}

}  // namespace

steady_state_search::steady_state_search(std::size_t size)
    : solver_(static_cast<Eigen::Index>(size)) {
  const auto n = static_cast<Eigen::Index>(size);
  for (Eigen::VectorXd* v : {&x_, &next_x_, &residual_, &moved_residual_, &correction_})
    v->setZero(n);
  jacobian_.setZero(n, n);
}

bool steady_state_search::differentiate(const steady_state_problem& problem) {
  next_x_ = x_;
  for (Eigen::Index k = 0; k < x_.size(); ++k) {
    next_x_[k] = x_[k] + problem.difference * problem.sizes[static_cast<std::size_t>(k)];
    if (!problem.residual(numbers(next_x_), numbers(moved_residual_))) return false;
    jacobian_.col(k) = (moved_residual_ - residual_) / (next_x_[k] - x_[k]);
    next_x_[k] = x_[k];
  }
  solver_.compute(jacobian_);
  return true;
}

bool steady_state_search::find(const steady_state_problem& problem, std::span<double> x) {
  std::copy(x.begin(), x.end(), x_.begin());
  const auto size = [&](Eigen::Index k) { return problem.sizes[static_cast<std::size_t>(k)]; };
  const auto norm = [&](const Eigen::VectorXd& v) {
    double largest = 0.0;
    for (Eigen::Index k = 0; k < v.size(); ++k)
      largest = std::fmax(largest, std::fabs(v[k]) / size(k));
    return largest;
  };
  if (!problem.residual(numbers(x_), numbers(residual_))) return false;
  bool known = false;
  for (int corrections = 0; corrections < most_corrections; ++corrections) {
    if (!known && !differentiate(problem)) return false;
    correction_ = -solver_.solve(residual_);
    if (!correction_.allFinite()) return false;

    // Half the correction while it would turn a sign or cannot be evaluated.
    double part = 1.0;
    const auto acceptable = [&] {
      next_x_ = x_ + part * correction_;
      for (Eigen::Index k = 0; k < x_.size(); ++k)
        if (x_[k] > problem.tolerance * size(k) && next_x_[k] < -problem.tolerance * size(k))
          return false;
      return problem.residual(numbers(next_x_), numbers(moved_residual_));
    };
    while (!acceptable())
      if ((part *= 0.5) < 1e-3) return false;

    known = part == 1.0 && norm(moved_residual_) <= 0.1 * norm(residual_);
    x_ = next_x_;
    residual_ = moved_residual_;
    if (part == 1.0 && norm(correction_) <= problem.tolerance) {
      std::copy(x_.begin(), x_.end(), x.begin());
      return true;
    }
  }
  return false;
}

}  // namespace varda
