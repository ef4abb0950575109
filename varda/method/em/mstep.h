// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/inference/e_step.h"
#include "varda/method/em/resampler.h"

namespace varda {

// The maximisation step: moves the parameters in the host to the maximum of the expected log
// density that an E-step implies, and the proposals' centres with them.
//
//   mu-referenced fixed effects   weighted least squares (the library's lrtheta) on C beta + mean
//   omega                         mean of covariance + squared distance from the new mean, in
//                                 blocks
//   one free residual deviation   closed form from the weighted squared residuals
//   otherwise                     numerical maximum over resampled individual parameters, jointly
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

  // What became of an update.
  struct outcome {
    std::vector<int> held_by_bounds;  // positions in theta
    bool omega_is_sound = true;  // false: it was not positive definite and the one before is kept
    template <class A>
    void visit(A& archive) {
      archive(held_by_bounds, omega_is_sound);
    }
  };

  // `drawn`: by subject of this process, where not every update has a closed form. Collective.
  outcome update(const e_step& found, const std::vector<resampled_points>& drawn, proposals& follow,
                 bool freeze_omega) const;

 private:
  Eigen::MatrixXd regress(const e_step& found, Eigen::VectorXd& theta,
                          std::vector<int>& held) const;
  Eigen::MatrixXd fixed_part(const std::vector<int>& free, const Eigen::VectorXd& theta) const;
  bool update_omega(const e_step& found, const Eigen::MatrixXd& moved) const;
  void update_residual(const e_step& found, Eigen::VectorXd& theta) const;

  engine_host& host_;
  std::vector<int> free_columns_;  // of the C matrix, whose coefficient is estimated
  std::vector<int> numerical_;     // positions in theta that have no closed form
};

}  // namespace varda
