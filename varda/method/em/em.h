// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "varda/host/integration.h"
#include "varda/host/points.h"
#include "varda/host/proposals.h"
#include "varda/inference/singularity.h"
#include "varda/method/em/anderson.h"
#include "varda/method/em/convergence.h"
#include "varda/method/em/iteration_scale.h"
#include "varda/method/em/mstep.h"
#include "varda/method/em/resampler.h"
#include "varda/run/fit_result.h"
#include "varda/support/progress.h"

namespace varda {

// The iterations of a fit, from the parameters in the host and the proposals as they stand.
//
// With common points they go in two parts. The approach takes a few points a subject and lets the
// proposals follow the subjects. The second part takes all points and, from its second iteration
// on, leaves the proposals where they are: the points then stand at the same individual parameters
// always, and an iteration is an exact EM step for the likelihood as those points see it, so that
// it can only rise. Both parts are accelerated; a step that lowers the likelihood is taken back.
// With fresh points every iteration takes all of them and nothing is accelerated.
class em_iterations {
 public:
  em_iterations(engine_host& host, point_source& points, proposals& adaptive,
                const progress_listener& progress);

  // Iterates until convergence, an omega that becomes singular, the most iterations or a stop.
  void run();

  bool stopped() const { return stopped_; }
  bool converged() const;
  std::string reason() const;
  // What makes omega singular; empty unless the iterations ended with that.
  const std::vector<std::string>& singular() const { return watched_.names(); }
  const std::vector<int>& held_by_bounds() const { return maximisation_.held_by_bounds(); }
  std::vector<iteration_record>& records() { return records_; }

 private:
  enum class stage { approach, first_of_all_points, settled };
  struct rest {              // of a subject's proposal
    double effective = 0.0;  // samples when it came to rest; 0 before
    int renewals = 0;        // since then
  };

  bool burning_in() const { return iteration_ <= burn_in_; }
  // Proposals come from the modes in this iteration.
  bool is_assisted() const;
  void iterate();
  void follow_subjects();
  bool worse(double minus2ll) const;
  void take_back();
  void accelerate(const Eigen::VectorXd& before, const Eigen::VectorXd& after);
  bool move_to(const Eigen::VectorXd& values);
  void judge_stage(const Eigen::VectorXd& step);
  void change_points();

  engine_host& host_;
  const estimation_settings& settings_;
  point_source& points_;
  proposals& adaptive_;
  const progress_listener& progress_;

  iteration_scale scale_;
  maximisation_step maximisation_;
  resampler resampling_;
  convergence_monitor monitor_;
  singularity_watch watched_;
  anderson_acceleration acceleration_;

  bool fresh_;
  int burn_in_;
  int samples_;
  stage stage_ = stage::approach;
  int iteration_ = 0;
  e_step found_;
  bool stopped_ = false;
  double best_ = 0.0;            // least -2 log-likelihood that the points have seen
  bool compared_ = false;        // best_ is known
  bool accelerated_ = false;     // the parameters in force are not an EM step's
  Eigen::VectorXd safe_;         // what the last EM step made of the best point
  std::vector<rest> following_;  // per subject
  std::vector<iteration_record> records_;
};

}  // namespace varda
