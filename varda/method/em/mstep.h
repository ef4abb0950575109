// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/host/engine_host.h"
#include "varda/host/integration.h"
#include "varda/host/proposals.h"

namespace varda {

// The maximisation step: moves the parameters in the host to the maximum of the expected log
// density that an E-step implies, and the proposals' centres with them.
//
//   mu-referenced fixed effects   weighted least squares (the library's lrtheta) on C beta + mean
//   omega                         mean of covariance + squared distance from the new mean, in
//   blocks one free residual deviation   closed form from the weighted squared residuals otherwise
//   numerical maximum over resampled individual parameters, jointly
//                                 for the residual deviations and the flat parameters
//
// All expectations are taken at the individual parameters C beta_old + eta at which the samples
// were drawn. A coefficient that would leave its bounds is held there and the others are solved
// again without it.
class maximisation_step {
 public:
  explicit maximisation_step(engine_host& host);

  // Every update has a closed form: the E-step need not resample.
  bool is_closed_form() const { return numerical_.empty(); }

  void update(const e_step& found, proposals& follow, bool freeze_omega);

  // Positions in theta that a bound held in the last update.
  const std::vector<int>& held_by_bounds() const { return held_; }
  // False when the last omega was not positive definite and the one before was kept.
  bool omega_is_sound() const { return omega_is_sound_; }

 private:
  Eigen::MatrixXd regress(const e_step& found, Eigen::VectorXd& theta);
  Eigen::VectorXd solve(const Eigen::MatrixXd& individual, const std::vector<int>& free,
                        const Eigen::VectorXd& theta) const;
  Eigen::VectorXd fixed_part(int subject, const std::vector<int>& free,
                             const Eigen::VectorXd& theta) const;
  void update_omega(const e_step& found, const Eigen::MatrixXd& moved);
  void update_residual(const e_step& found, Eigen::VectorXd& theta) const;

  engine_host& host_;
  std::vector<int> free_columns_;  // of the C matrix, whose coefficient is estimated
  std::vector<int> numerical_;     // positions in theta that have no closed form
  std::vector<int> held_;
  bool omega_is_sound_ = true;
};

}  // namespace varda
