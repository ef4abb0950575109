// SPDX-License-Identifier: Apache-2.0
#include <Eigen/Core>
#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <boost/numeric/odeint/stepper/rosenbrock4.hpp>
#include <cmath>
#include <limits>

#include "varda/model/equations/ode_steppers.h"

namespace varda {

namespace {

namespace odeint = boost::numeric::odeint;

constexpr double epsilon = std::numeric_limits<double>::epsilon();

// Odeint gives the coefficients. Its own stepper stands on a matrix library that, as Debian 12 has
// it, does not compile as C++20; the stages below are its stages with Eigen's matrices.
class rosenbrock final : public ode_solver {
 public:
  rosenbrock(ode_system& system, const solver_settings& settings)
      : ode_solver(system, settings), size_(static_cast<Eigen::Index>(system.size())) {
    for (vector* v : {&x_, &next_x_, &error_, &stage_x_, &dxdt_, &moved_dxdt_, &dfdt_})
      v->setZero(size_);
    for (vector& g : g_) g.setZero(size_);
    jacobian_.setZero(size_, size_);
    matrix_.setZero(size_, size_);
    solver_ = Eigen::PartialPivLU<Eigen::MatrixXd>(size_);
  }

 private:
  using vector = Eigen::VectorXd;

  void begin(double, std::span<const double> x) override {
    std::copy(x.begin(), x.end(), x_.begin());
    differentiated_ = false;
  }

  double try_step(double t, double h) override {
    if (!differentiated_) differentiate(t, h);
    matrix_ = -jacobian_;
    matrix_.diagonal().array() += 1.0 / (c.gamma * h);
    solver_.compute(matrix_);

    // With stage sums over g / h as in Hairer and Wanner's equation (7.25).
    solve(dxdt_ + h * c.d1 * dfdt_, g_[0]);
    stage(t + c.c2 * h, x_ + c.a21 * g_[0]);
    solve(moved_dxdt_ + h * c.d2 * dfdt_ + c.c21 * g_[0] / h, g_[1]);
    stage(t + c.c3 * h, x_ + c.a31 * g_[0] + c.a32 * g_[1]);
    solve(moved_dxdt_ + h * c.d3 * dfdt_ + (c.c31 * g_[0] + c.c32 * g_[1]) / h, g_[2]);
    stage(t + c.c4 * h, x_ + c.a41 * g_[0] + c.a42 * g_[1] + c.a43 * g_[2]);
    solve(moved_dxdt_ + h * c.d4 * dfdt_ + (c.c41 * g_[0] + c.c42 * g_[1] + c.c43 * g_[2]) / h,
          g_[3]);
    stage(t + h, x_ + c.a51 * g_[0] + c.a52 * g_[1] + c.a53 * g_[2] + c.a54 * g_[3]);
    solve(moved_dxdt_ + (c.c51 * g_[0] + c.c52 * g_[1] + c.c53 * g_[2] + c.c54 * g_[3]) / h, g_[4]);
    stage(t + h, stage_x_ + g_[4]);
    solve(moved_dxdt_ +
              (c.c61 * g_[0] + c.c62 * g_[1] + c.c63 * g_[2] + c.c64 * g_[3] + c.c65 * g_[4]) / h,
          error_);
    next_x_ = stage_x_ + error_;
    return scaled_error(error_.data(), x_.data(), next_x_.data());
  }

  void accept() override {
    x_.swap(next_x_);
    differentiated_ = false;
  }
  void write_state(std::span<double> x) const override {
    std::copy(x_.begin(), x_.end(), x.begin());
  }
  int error_order() const override { return 4; }

  template <class Expression>
  void stage(double t, const Expression& x) {
    stage_x_ = x;
    system_->derivative(t, stage_x_.data(), moved_dxdt_.data());
  }
  template <class Expression>
  void solve(const Expression& right, vector& g) {
    right_ = right;
    g = solver_.solve(right_);
  }

  // Derivatives by forward differences, at the beginning of a step. A state near 0 is moved by a
  // share of the system's scale: less would drown in the rounding of the larger states.
  void differentiate(double t, double h) {
    system_->derivative(t, x_.data(), dxdt_.data());
    stage_x_ = x_;
    for (Eigen::Index k = 0; k < size_; ++k) {
      const double size = std::max(std::fabs(x_[k]), 1e-3 * scale());
      stage_x_[k] = x_[k] + std::sqrt(epsilon) * size;
      system_->derivative(t, stage_x_.data(), moved_dxdt_.data());
      jacobian_.col(k) = (moved_dxdt_ - dxdt_) / (stage_x_[k] - x_[k]);
      stage_x_[k] = x_[k];
    }
    differentiated_ = true;
    if (!system_->depends_on_time()) return;
    const double later = t + std::sqrt(epsilon) * std::max(std::fabs(t), h);
    system_->derivative(later, x_.data(), moved_dxdt_.data());
    dfdt_ = (moved_dxdt_ - dxdt_) / (later - t);
  }

  const odeint::default_rosenbrock_coefficients<double> c{};
  Eigen::Index size_;
  vector x_;
  vector next_x_;
  vector error_;
  vector stage_x_;
  vector dxdt_;
  vector moved_dxdt_;
  vector dfdt_;
  vector right_;
  std::array<vector, 5> g_;
  Eigen::MatrixXd jacobian_;
  Eigen::MatrixXd matrix_;
  Eigen::PartialPivLU<Eigen::MatrixXd> solver_;
  bool differentiated_ = false;
};

}  // namespace

std::unique_ptr<ode_solver> make_rosenbrock(ode_system& system, const solver_settings& settings) {
  return std::make_unique<rosenbrock>(system, settings);
}

}  // namespace varda
