// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/fit/estep.h"
#include "varda/model/population_model.h"

namespace varda {

// The update of what has no closed form: the residual deviations of a combined error and the
// parameters without a random effect. It maximises the weighted mean of log p(y_i | p) over the
// individual parameters that the E-step resampled, summed over the subjects.
class conditional_maximum {
 public:
  // `found` outlives this. `theta`: the parameters at which its points were drawn. `positions`: the
  // entries to move.
  conditional_maximum(const population_model& model, const e_step& found,
                      const Eigen::VectorXd& theta, const std::vector<int>& positions);

  // Moves the entries of theta; returns those that their bounds hold.
  std::vector<int> move(Eigen::VectorXd& theta);

 private:
  double objective(const Eigen::VectorXd& theta);
  void predict(int subject, const Eigen::VectorXd& theta);

  const population_model& model_;
  std::vector<int> positions_;
  bool predictions_move_ = false;             // some entry is a structural parameter
  const e_step& found_;                       // whose points these are
  std::vector<Eigen::MatrixXd> predictions_;  // per subject: observations x points
};

}  // namespace varda
