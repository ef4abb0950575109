// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/inference/singularity.h"
#include "varda/method/em/anderson.h"
#include "varda/method/em/convergence.h"
#include "varda/method/em/mstep.h"
#include "varda/method/em/resampler.h"

namespace varda {

enum class em_stage { approach, first_of_all_points, settled };

// What an EM iteration needs from the last one, beside the parameters and the proposals.
struct em_state {
  struct rest {              // of a subject's proposal
    double effective = 0.0;  // samples when it came to rest; 0 before
    int renewals = 0;        // since then
    template <class A>
    void visit(A& archive) {
      archive(effective, renewals);
    }
  };

  int iteration = 0;
  int samples = 0;
  em_stage stage = em_stage::approach;
  double best = 0.0;         // least -2 log-likelihood that the points have seen
  bool compared = false;     // best is known
  bool accelerated = false;  // the parameters in force are not an EM step's
  Eigen::VectorXd safe;      // what the last EM step made of the best point
  std::vector<rest> following;
  maximisation_step::outcome last;
  resampler resampling;
  convergence_monitor monitor;
  singularity_watch watched;
  anderson_acceleration acceleration;

  template <class A>
  void visit(A& archive) {
    archive(iteration, samples, stage, best, compared, accelerated, safe, following, last,
            resampling, monitor, watched, acceleration);
  }
};

}  // namespace varda
