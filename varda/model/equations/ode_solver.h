// SPDX-License-Identifier: Apache-2.0
//
// Initial value problems with steps under error control: the explicit 5(4) pair of Dormand and
// Prince (J. Comput. Appl. Math. 6, 1980) or, for stiff systems, the Rosenbrock method of order 4
// with an embedded 3 (Hairer and Wanner, Solving Ordinary Differential Equations II, IV.7).
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

#include "varda/model/specification.h"

namespace varda {

class ode_system {
 public:
  virtual ~ode_system() = default;
  virtual std::size_t size() const = 0;
  // dx/dt at (t, x), size() numbers each.
  virtual void derivative(double t, const double* x, double* dxdt) = 0;
  virtual bool depends_on_time() const = 0;
};

enum class ode_status { done, not_finite, too_many_steps, step_too_small };

class ode_solver {
 public:
  virtual ~ode_solver() = default;

  // The absolute tolerance is this times that of the settings.
  void set_scale(double scale) { scale_ = scale; }
  // The system has changed by a leap: the step is looked for anew.
  void restart() { step_ = 0.0; }

  // Takes x from time `from` to exactly `to`, the step limit counting anew. On failure x is what
  // it was at reached().
  ode_status advance(double from, double to, std::span<double> x);
  double reached() const { return reached_; }

 protected:
  ode_solver(ode_system& system, const solver_settings& settings)
      : system_(&system), settings_(settings), derivative_(system.size()) {}

  // Reads x at time t.
  virtual void begin(double t, std::span<const double> x) = 0;
  // Tries a step of length h from time t. Its error in units of the tolerance, above 1 or NaN where
  // it is not acceptable.
  virtual double try_step(double t, double h) = 0;
  // Makes the outcome of the last try the state.
  virtual void accept() = 0;
  virtual void write_state(std::span<double> x) const = 0;
  virtual int error_order() const = 0;

  // The largest error of a component in units of its tolerance; NaN where one is not finite.
  double scaled_error(const double* error, const double* before, const double* after) const;

  double scale() const { return scale_; }

  ode_system* system_;

 private:
  double first_step(double t, double span, std::span<const double> x);

  solver_settings settings_;
  std::vector<double> derivative_;
  double scale_ = 1.0;
  double step_ = 0.0;  // 0: none known
  double reached_ = 0.0;
};

// The system must outlive the solver.
std::unique_ptr<ode_solver> make_ode_solver(ode_system& system, const solver_settings& settings);

}  // namespace varda
