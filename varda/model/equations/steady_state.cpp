// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/steady_state.h"

#include <cmath>

namespace varda {

namespace {

constexpr int most_corrections = 60;
constexpr double least_part = 1e-3;

}  // namespace

void steady_state_search::begin(const Eigen::VectorXd& x, const Eigen::VectorXd& sizes,
                                const search_settings& settings) {
  settings_ = settings;
  phase_ = phase::first;
  corrections_ = 0;
  x_ = x;
  sizes_ = sizes;
  jacobian_.resize(x.size(), x.size());
}

void steady_state_search::state(std::size_t k, Eigen::VectorXd& at) const {
  if (phase_ == phase::correction) {
    at = next_x_;
    return;
  }
  at = x_;
  const auto column = static_cast<Eigen::Index>(k);
  if (phase_ == phase::differences) at[column] = moved(column);
}

void steady_state_search::take(std::size_t k, const Eigen::VectorXd& residual, bool good) {
  switch (phase_) {
    case phase::first:
      residual_ = residual;
      phase_ = good ? phase::differences : phase::failed;
      differences_good_ = true;
      break;
    case phase::differences: {
      const auto column = static_cast<Eigen::Index>(k);
      jacobian_.col(column) = (residual - residual_) / (moved(column) - x_[column]);
      differences_good_ = differences_good_ && good;
      if (column + 1 < x_.size()) break;
      if (!differences_good_) {
        phase_ = phase::failed;
        break;
      }
      solver_.compute(jacobian_);
      correct();
      break;
    }
    case phase::correction:
      next_residual_ = residual;
      end_correction(good);
      break;
    case phase::found:
    case phase::failed:
      break;
  }
}

double steady_state_search::norm(const Eigen::VectorXd& v) const {
  double largest = 0.0;
  for (Eigen::Index k = 0; k < v.size(); ++k)
    largest = std::fmax(largest, std::fabs(v[k]) / sizes_[k]);
  return largest;
}

void steady_state_search::correct() {
  if (++corrections_ > most_corrections) {
    phase_ = phase::failed;
    return;
  }
  correction_ = -solver_.solve(residual_);
  phase_ = correction_.allFinite() ? phase::correction : phase::failed;
  part_ = 1.0;
  if (phase_ == phase::correction) try_part();
}

// Half the correction while it would turn a sign.
void steady_state_search::try_part() {
  const auto turns_a_sign = [&] {
    for (Eigen::Index k = 0; k < x_.size(); ++k) {
      const double small = settings_.tolerance * sizes_[k];
      if (x_[k] > small && next_x_[k] < -small) return true;
    }
    return false;
  };
  for (;; part_ *= 0.5) {
    if (part_ < least_part) {
      phase_ = phase::failed;
      return;
    }
    next_x_ = x_ + part_ * correction_;
    if (!turns_a_sign()) return;
  }
}

void steady_state_search::end_correction(bool good) {
  if (!good) {
    part_ *= 0.5;
    return try_part();
  }
  const bool known = part_ == 1.0 && norm(next_residual_) <= 0.1 * norm(residual_);
  x_ = next_x_;
  residual_ = next_residual_;
  if (part_ == 1.0 && norm(correction_) <= settings_.tolerance) {
    phase_ = phase::found;
  } else if (known) {
    correct();
  } else {
    phase_ = phase::differences;
    differences_good_ = true;
  }
}

}  // namespace varda
