// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/ode_solver.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "varda/model/equations/ode_steppers.h"

namespace varda {

namespace {

constexpr double epsilon = std::numeric_limits<double>::epsilon();

}  // namespace

double ode_solver::scaled_error(const double* error, const double* before,
                                const double* after) const {
  double largest = 0.0;
  for (std::size_t i = 0; i < derivative_.size(); ++i) {
    const double size = std::max(std::fabs(before[i]), std::fabs(after[i]));
    const double ratio =
        std::fabs(error[i]) / (settings_.absolute * scale_ + settings_.relative * size);
    // An infinite state has an infinite tolerance, which would accept anything.
    if (!std::isfinite(ratio) || !std::isfinite(after[i]))
      return std::numeric_limits<double>::quiet_NaN();
    largest = std::max(largest, ratio);
  }
  return largest;
}

// A hundredth of the time in which the state would change by its own size, in units of the
// tolerances (Hairer, Norsett and Wanner, Solving Ordinary Differential Equations I, II.4).
double ode_solver::first_step(double t, double span, std::span<const double> x) {
  system_->derivative(t, x.data(), derivative_.data());
  double state = 0.0;
  double slope = 0.0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    const double tolerance = settings_.absolute * scale_ + settings_.relative * std::fabs(x[i]);
    state = std::max(state, std::fabs(x[i]) / tolerance);
    slope = std::max(slope, std::fabs(derivative_[i]) / tolerance);
  }
  const double step = state > 0.0 && slope > 0.0 ? 0.01 * state / slope : 1e-3 * span;
  return std::isfinite(step) ? std::min(step, span) : span;
}

ode_status ode_solver::advance(double from, double to, std::span<double> x) {
  reached_ = from;
  if (!(to > from)) return ode_status::done;
  if (step_ == 0.0) step_ = first_step(from, to - from, x);
  begin(from, x);
  double t = from;
  const auto stop = [&](ode_status why) {
    write_state(x);
    reached_ = t;
    return why;
  };
  for (int steps = 0; t < to; ++steps) {
    if (steps == settings_.max_steps) return stop(ode_status::too_many_steps);
    const double left = to - t;
    // A step that would leave next to nothing is stretched; rounding could not tell it apart.
    const bool last = left <= 1.01 * step_;
    const double h = last ? left : step_;
    const double error = try_step(t, h);
    const double factor =
        std::isnan(error) ? 0.2 : std::clamp(0.9 * std::pow(error, -1.0 / error_order()), 0.2, 5.0);
    if (error <= 1.0) {
      accept();
      t = last ? to : t + h;
      // A step cut short by the end says little about the length that would do.
      step_ = last ? std::max(step_, h * factor) : h * factor;
      continue;
    }
    step_ = h * factor;
    if (step_ <= 4.0 * epsilon * std::max(std::fabs(t), std::fabs(to)))
      return stop(std::isnan(error) ? ode_status::not_finite : ode_status::step_too_small);
  }
  return stop(ode_status::done);
}

std::unique_ptr<ode_solver> make_ode_solver(ode_system& system, const solver_settings& settings) {
  if (settings.stiff) return make_rosenbrock(system, settings);
  return make_dormand_prince(system, settings);
}

}  // namespace varda
