// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <boost/numeric/odeint/stepper/runge_kutta_dopri5.hpp>

#include "varda/model/equations/ode_steppers.h"

namespace varda {

namespace {

namespace odeint = boost::numeric::odeint;

// Keeps the derivative at the end of a step for the next one.
class dormand_prince final : public ode_solver {
 public:
  dormand_prince(ode_system& system, const solver_settings& settings)
      : ode_solver(system, settings),
        x_(system.size()),
        dxdt_(system.size()),
        next_x_(system.size()),
        next_dxdt_(system.size()),
        error_(system.size()) {}

 private:
  using state = std::vector<double>;

  void begin(double t, std::span<const double> x) override {
    std::copy(x.begin(), x.end(), x_.begin());
    system_->derivative(t, x_.data(), dxdt_.data());
  }
  double try_step(double t, double h) override {
    const auto rhs = [this](const state& x, state& dxdt, double at) {
      system_->derivative(at, x.data(), dxdt.data());
    };
    stepper_.do_step(rhs, x_, dxdt_, t, next_x_, next_dxdt_, h, error_);
    return scaled_error(error_.data(), x_.data(), next_x_.data());
  }
  void accept() override {
    x_.swap(next_x_);
    dxdt_.swap(next_dxdt_);
  }
  void write_state(std::span<double> x) const override {
    std::copy(x_.begin(), x_.end(), x.begin());
  }
  int error_order() const override { return 5; }

  odeint::runge_kutta_dopri5<state> stepper_;
  state x_;
  state dxdt_;
  state next_x_;
  state next_dxdt_;
  state error_;
};

}  // namespace

std::unique_ptr<ode_solver> make_dormand_prince(ode_system& system,
                                                const solver_settings& settings) {
  return std::make_unique<dormand_prince>(system, settings);
}

}  // namespace varda
