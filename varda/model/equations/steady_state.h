// SPDX-License-Identifier: Apache-2.0
//
// The state at which a system comes to rest, or repeats itself: the zero of a residual, by Newton's
// method with differences. The Jacobian is kept while the residual falls quickly, so that a linear
// system takes one. A search asks for residuals and is told them, so that many can be computed at
// once.
#pragma once

#include <Eigen/Core>
#include <Eigen/LU>
#include <cstddef>

namespace varda {

struct search_settings {
  double tolerance = 1e-8;   // of a last correction, in units of the sizes
  double difference = 1e-3;  // step of the differences, likewise
};

class steady_state_search {
 public:
  // From x; sizes tell what is small for each component.
  void begin(const Eigen::VectorXd& x, const Eigen::VectorXd& sizes,
             const search_settings& settings);

  void abandon() { phase_ = phase::failed; }

  // While it is open the search asks for wanted() residuals, those at state(k).
  bool open() const { return phase_ < phase::found; }
  bool found() const { return phase_ == phase::found; }
  std::size_t wanted() const {
    return phase_ == phase::differences ? static_cast<std::size_t>(x_.size()) : 1;
  }
  void state(std::size_t k, Eigen::VectorXd& at) const;
  // Residual k, `good` where it could be evaluated; the last of them takes the search on.
  void take(std::size_t k, const Eigen::VectorXd& residual, bool good);

  // Where found, the solution. One in which a state that was positive has become negative is not
  // taken: a system whose input exceeds its capacity has such a spurious one.
  const Eigen::VectorXd& solution() const { return x_; }

 private:
  enum class phase { first, differences, correction, found, failed };

  double moved(Eigen::Index k) const { return x_[k] + settings_.difference * sizes_[k]; }
  double norm(const Eigen::VectorXd& v) const;
  void correct();
  void try_part();
  void end_correction(bool good);

  search_settings settings_;
  phase phase_ = phase::failed;
  int corrections_ = 0;
  double part_ = 1.0;
  bool differences_good_ = true;
  Eigen::VectorXd sizes_;
  Eigen::VectorXd x_;
  Eigen::VectorXd next_x_;
  Eigen::VectorXd residual_;
  Eigen::VectorXd next_residual_;
  Eigen::VectorXd correction_;
  Eigen::MatrixXd jacobian_;
  Eigen::PartialPivLU<Eigen::MatrixXd> solver_;
};

}  // namespace varda
