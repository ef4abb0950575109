// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/convergence.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "statsubs/mstep/checkflat.h"

namespace varda {

namespace {

// Movement of -2 log-likelihood that is still ahead; estimates feel its square root.
constexpr double objective_tolerance = 1e-3;
// A slope is taken for a trend from this t statistic on.
constexpr double trend_threshold = 2.5;
constexpr double slowest_rate = 0.995;

}  // namespace

convergence_monitor::convergence_monitor(std::vector<std::string> names, double tolerance,
                                         bool noisy)
    : names_(std::move(names)), tolerance_(tolerance), noisy_(noisy) {}

void convergence_monitor::add(const Eigen::VectorXd& before, const Eigen::VectorXd& after,
                              double minus2ll, double rate) {
  history_.push_back(after);
  steps_.push_back(after - before);
  objective_.push_back(minus2ll);
  movements_.clear();
  const std::size_t least = noisy_ ? static_cast<std::size_t>(window) : 2;
  if (steps_.size() >= least) judge(noisy_ ? shrinkage() : rate);
}

// Of the steps per iteration, the geometric mean over the window.
double convergence_monitor::shrinkage() const {
  const double last = steps_.back().norm();
  const double first = steps_[steps_.size() - window].norm();
  return last == 0.0 ? 0.0 : std::pow(last / first, 1.0 / (window - 1));
}

bool convergence_monitor::flat(const std::vector<double>& series) const {
  double t = 0.0;
  statsubs::checkflat(series.data(), static_cast<int>(series.size()), t);
  return t < trend_threshold;
}

void convergence_monitor::judge(double rate) {
  const std::size_t n = history_.size();
  const double r = std::clamp(rate, 0.0, slowest_rate);
  const Eigen::VectorXd step = steps_.back().cwiseAbs();
  for (Eigen::Index k = 0; k < step.size(); ++k) {
    const double ahead = step(k) * std::max(r / (1.0 - r), 1.0);
    movements_.push_back({ahead, ahead < tolerance_});
  }
  // Near the maximum the objective moves with the square of the distance, hence at rate r^2.
  const double ahead =
      std::fabs(objective_[n - 1] - objective_[n - 2]) * std::max(r * r / (1.0 - r * r), 1.0);
  movements_.push_back({ahead, ahead < objective_tolerance});

  if (noisy_ && n >= noisy_window) {
    const std::size_t from = n - noisy_window;
    for (std::size_t k = 0; k < names_.size(); ++k) {
      std::vector<double> series;
      for (std::size_t t = from; t < n; ++t)
        series.push_back(history_[t](static_cast<Eigen::Index>(k)));
      movements_[k].at_rest = movements_[k].at_rest || flat(series);
    }
    const std::vector<double> series(objective_.begin() + static_cast<std::ptrdiff_t>(from),
                                     objective_.end());
    movements_.back().at_rest = movements_.back().at_rest || flat(series);
  }
  const bool calm = std::all_of(movements_.begin(), movements_.end(),
                                [](const movement& m) { return m.at_rest; });
  calm_ = calm ? calm_ + 1 : 0;
}

std::string convergence_monitor::slowest() const {
  if (movements_.empty()) return "";
  const auto most =
      std::max_element(movements_.begin(), movements_.end() - 1,
                       [](const movement& a, const movement& b) { return a.ahead < b.ahead; });
  return fmt::format("remaining change {1:.2g} ({0})",
                     names_[static_cast<std::size_t>(most - movements_.begin())], most->ahead);
}

verdict convergence_monitor::conclusion() const {
  if (movements_.empty()) return {false, "too few iterations to see a trend"};
  const auto quantities = movements_.end() - 1;
  const auto slowest =
      std::max_element(movements_.begin(), quantities,
                       [](const movement& a, const movement& b) { return a.ahead < b.ahead; });
  const std::string& name = names_[static_cast<std::size_t>(slowest - movements_.begin())];
  if (converged())
    return {true, fmt::format("{} for {} iterations: largest remaining change {:.2g} ({}), "
                              "-2 log-likelihood within {:.1g} of its limit",
                              noisy_ ? "no trend" : "stationary", calm_, slowest->ahead, name,
                              movements_.back().ahead)};
  std::string moving;
  for (std::size_t k = 0; k < names_.size(); ++k)
    if (!movements_[k].at_rest)
      moving += fmt::format("{}{} (remaining change {:.2g})", moving.empty() ? "" : ", ", names_[k],
                            movements_[k].ahead);
  if (!movements_.back().at_rest)
    moving += fmt::format("{}-2 log-likelihood (remaining change {:.2g})",
                          moving.empty() ? "" : ", ", movements_.back().ahead);
  if (moving.empty()) moving = "stationary for too few iterations";
  return {false, "not stationary: " + moving};
}

}  // namespace varda
