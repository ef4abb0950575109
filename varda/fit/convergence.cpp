// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/convergence.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "statsubs/mstep/checkflat.h"

namespace varda {

namespace {

// Movement of -2 log-likelihood that is still ahead; estimates feel its square root.
constexpr double objective_tolerance = 1e-3;
// A slope is taken for a trend from this t statistic on.
constexpr double trend_threshold = 2.5;
constexpr double slowest_rate = 0.995;
// Coefficients on an additive scale are measured against at least this size.
constexpr double smallest_scale = 0.05;

}  // namespace

convergence_monitor::convergence_monitor(const population_model& model, double tolerance,
                                         bool noisy)
    : model_(model), tolerance_(tolerance), noisy_(noisy) {
  for (const fixed_effect& t : model.thetas())
    if (!t.fixed) names_.push_back(t.name);
  for (const omega_element& e : model.omega_elements()) {
    if (e.fixed) continue;
    const std::string& row = model.effects()[static_cast<std::size_t>(e.row())].name;
    const std::string& column = model.effects()[static_cast<std::size_t>(e.column())].name;
    names_.push_back(e.is_variance() ? fmt::format("omega({})", row)
                                     : fmt::format("corr({},{})", column, row));
  }
}

Eigen::VectorXd convergence_monitor::watched(const Eigen::VectorXd& theta,
                                             const Eigen::MatrixXd& omega) const {
  std::vector<double> values;
  for (std::size_t k = 0; k < model_.thetas().size(); ++k) {
    const fixed_effect& t = model_.thetas()[k];
    const double value = theta(static_cast<Eigen::Index>(k));
    if (t.fixed) continue;
    if (t.role == theta_role::residual_deviation || t.law == distribution::log_normal)
      values.push_back(std::log(value));
    else
      values.push_back(value / std::max(std::fabs(t.start), smallest_scale));
  }
  for (const omega_element& e : model_.omega_elements()) {
    if (e.fixed) continue;
    const int i = e.row();
    const int j = e.column();
    values.push_back(e.is_variance() ? std::log(omega(i, i))
                                     : omega(i, j) / std::sqrt(omega(i, i) * omega(j, j)));
  }
  return Eigen::Map<const Eigen::VectorXd>(values.data(), static_cast<Eigen::Index>(values.size()));
}

void convergence_monitor::add(const Eigen::VectorXd& theta, const Eigen::MatrixXd& omega,
                              double minus2ll) {
  history_.push_back(watched(theta, omega));
  objective_.push_back(minus2ll);
  judge();
}

// Shrinkage of the steps per iteration, the geometric mean over the window.
double convergence_monitor::rate() const {
  const std::size_t n = history_.size();
  const double last = (history_[n - 1] - history_[n - 2]).norm();
  const double first = (history_[n - window] - history_[n - window - 1]).norm();
  if (last == 0.0) return 0.0;
  return std::clamp(std::pow(last / first, 1.0 / (window - 1)), 0.0, slowest_rate);
}

bool convergence_monitor::flat(const std::vector<double>& series) const {
  double t = 0.0;
  statsubs::checkflat(series.data(), static_cast<int>(series.size()), t);
  return t < trend_threshold;
}

void convergence_monitor::judge() {
  const std::size_t n = history_.size();
  movements_.clear();
  if (n < static_cast<std::size_t>(window) + 1) return;
  const double r = rate();
  const Eigen::VectorXd step = (history_[n - 1] - history_[n - 2]).cwiseAbs();
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

verdict convergence_monitor::conclusion() const {
  if (movements_.empty()) return {false, "too few iterations to see a trend"};
  const auto quantities = movements_.end() - 1;
  const auto slowest =
      std::max_element(movements_.begin(), quantities,
                       [](const movement& a, const movement& b) { return a.ahead < b.ahead; });
  const std::string& name = names_[static_cast<std::size_t>(slowest - movements_.begin())];
  if (converged())
    return {true, fmt::format("{} for {} iterations: at most {:.2g} still ahead ({}), "
                              "-2 log-likelihood within {:.1g} of its limit",
                              noisy_ ? "no trend" : "at rest", calm_, slowest->ahead, name,
                              movements_.back().ahead)};
  std::string moving;
  for (std::size_t k = 0; k < names_.size(); ++k)
    if (!movements_[k].at_rest)
      moving += fmt::format("{}{} ({:.2g} ahead)", moving.empty() ? "" : ", ", names_[k],
                            movements_[k].ahead);
  if (!movements_.back().at_rest)
    moving += fmt::format("{}-2 log-likelihood ({:.2g} ahead)", moving.empty() ? "" : ", ",
                          movements_.back().ahead);
  if (moving.empty()) moving = "at rest for fewer iterations than it takes";
  return {false, "still moving: " + moving};
}

}  // namespace varda
