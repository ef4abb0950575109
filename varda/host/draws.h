// SPDX-License-Identifier: Apache-2.0
//
// Samples of one subject's individual parameters with all that an estimation needs of them: where
// they stand, the density they were drawn from, and the predictions there. While no parameter is
// moved on which predictions depend directly, nothing of the model has to be evaluated again,
// however the other parameters move.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/engine_host.h"

namespace varda {

// A normal density that samples are drawn from.
struct draw_component {
  double share = 1.0;      // of the samples; the shares sum to one
  Eigen::VectorXd centre;  // in phi = C beta + eta
  Eigen::MatrixXd factor;  // lower Cholesky factor of its covariance

  template <class A>
  void visit(A& archive) {
    archive(share, centre, factor);
  }
};

struct subject_draw {
  Eigen::MatrixXd phi;           // random effects x samples
  Eigen::VectorXd log_proposal;  // of the mixture of all components, at each sample
  Eigen::MatrixXd predictions;   // samples x observations
  // Samples come in `groups` of equal size, one after the other, each a randomisation of its own.
  int groups = 1;
};

// Draws `samples` of a subject (from 0) with observations through the library, at the parameters in
// force, in `groups` randomisations (both powers of two, samples at least 16 a group). The samples
// of every component are weighed by the density of the whole mixture: A. Owen and Y. Zhou, "Safe
// and effective importance sampling", J. Am. Stat. Assoc. 95 (2000) 135-143. This process alone.
// False when a stop was asked for.
bool draw_subject(engine_host& host, int subject, const std::vector<draw_component>& from,
                  const point_pass& pass, int samples, int groups, subject_draw& drawn);

}  // namespace varda
