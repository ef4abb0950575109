// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/subjects.h"
#include "varda/method/em/resampler.h"

namespace varda {

// The update of what has no closed form: the residual deviations of a combined error and the
// parameters without a random effect. It maximises the weighted mean of log p(y_i | p) over the
// individual parameters that the E-step resampled, summed over the subjects. Where predictions have
// to be made anew it takes one Newton step instead, as soon as that is sound: the iterations have
// the same limit (K. Lange, J. R. Stat. Soc. B 57 (1995) 425-437). Each process works on its own
// subjects, by its threads; all see the same objective.
class conditional_maximum {
 public:
  // `host` and `drawn`, by subject, outlive this. `theta`: the parameters at which the points were
  // drawn. `positions`: the entries to move.
  conditional_maximum(engine_host& host, const std::vector<resampled_points>& drawn,
                      const Eigen::VectorXd& theta, const std::vector<int>& positions);

  // Moves the entries of theta; returns those that their bounds hold. Collective.
  std::vector<int> move(Eigen::VectorXd& theta);

 private:
  double objective(const Eigen::VectorXd& theta);
  bool predictions_hold(const Eigen::VectorXd& theta) const;

  engine_host& host_;
  scratch_of_workers scratch_;
  std::vector<int> positions_;
  std::vector<int> moving_;  // those that predictions depend on
  const std::vector<resampled_points>& drawn_;
  std::vector<Eigen::MatrixXd> predictions_;  // per own subject: points x observations
  Eigen::VectorXd predicted_at_;              // theta of the predictions
};

}  // namespace varda
