// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/anderson.h"

#include <Eigen/Eigenvalues>
#include <Eigen/QR>

namespace varda {

namespace {

// Secants that depend on the others to this degree say nothing but rounding.
constexpr double dependence = 1e-6;

}  // namespace

Eigen::VectorXd anderson_acceleration::advance(const Eigen::VectorXd& x, const Eigen::VectorXd& g) {
  const Eigen::VectorXd f = g - x;
  if (last_x_.size() > 0 && x != last_x_) {
    if (static_cast<int>(secants_.size()) == memory_) secants_.erase(secants_.begin());
    secants_.push_back({x - last_x_, f - last_f_});
  }
  last_x_ = x;
  last_f_ = f;
  if (secants_.empty()) return g;

  const auto count = static_cast<Eigen::Index>(secants_.size());
  Eigen::MatrixXd df(x.size(), count);
  Eigen::MatrixXd dg(x.size(), count);
  for (Eigen::Index k = 0; k < count; ++k) {
    const secant& s = secants_[static_cast<std::size_t>(k)];
    const double scale = 1.0 / s.df.norm();
    df.col(k) = scale * s.df;
    dg.col(k) = scale * (s.dx + s.df);
  }
  Eigen::ColPivHouseholderQR<Eigen::MatrixXd> solver(df.rows(), df.cols());
  solver.setThreshold(dependence);
  solver.compute(df);
  return g - dg * solver.solve(f);
}

void anderson_acceleration::map_changed() {
  last_x_.resize(0);
  for (secant& s : secants_) s.of_this_map = false;
}

void anderson_acceleration::restart() {
  last_x_.resize(0);
  secants_.clear();
}

double anderson_acceleration::rate() const {
  std::vector<const secant*> own;
  for (const secant& s : secants_)
    if (s.of_this_map) own.push_back(&s);
  const auto count = static_cast<Eigen::Index>(own.size());
  if (count < 2) return 1.0;
  Eigen::MatrixXd dx(own[0]->dx.size(), count);
  Eigen::MatrixXd dg(dx.rows(), count);
  for (Eigen::Index k = 0; k < count; ++k) {
    const secant& s = *own[static_cast<std::size_t>(k)];
    const double scale = 1.0 / s.dx.norm();
    dx.col(k) = scale * s.dx;
    dg.col(k) = scale * (s.dx + s.df);
  }
  Eigen::ColPivHouseholderQR<Eigen::MatrixXd> solver(dx.rows(), dx.cols());
  solver.setThreshold(dependence);
  solver.compute(dx);
  const Eigen::MatrixXd derivative = solver.solve(dg);
  return Eigen::EigenSolver<Eigen::MatrixXd>(derivative, false).eigenvalues().cwiseAbs().maxCoeff();
}

}  // namespace varda
