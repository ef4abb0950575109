// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/method/em/iteration_scale.h"
#include "varda/method/run_state.h"

namespace varda {

// The EM algorithm.
//
// With common points it goes in two parts. The approach takes a few points a subject and lets the
// proposals follow the subjects. The second part takes all points and, from its second iteration
// on, leaves the proposals where they are: the points then stand at the same individual parameters
// always, and an iteration is an exact EM step for the likelihood as those points see it, so that
// it can only rise. Both parts are accelerated; a step that lowers the likelihood is taken back.
// With fresh points every iteration takes all of them and nothing is accelerated.
class em_method final : public estimation_method {
 public:
  explicit em_method(engine_host& host);

  void begin(run_state& state) const override;
  // An iteration. Ends with convergence, an omega that becomes singular or the most iterations.
  bool step(run_state& state) const override;
  method_conclusion conclude(const run_state& state) const override;
  std::string moving(const run_state& state) const override;

 private:
  bool burning_in(const em_state& em) const { return em.iteration <= settings_.burn_in; }
  // Proposals come from the modes in this iteration.
  bool is_assisted(const em_state& em) const;
  bool iterate(run_state& state, e_step& found) const;
  void follow_subjects(run_state& state, const e_step& found) const;
  bool worse(const em_state& em, double minus2ll) const;
  void take_back(run_state& state) const;
  void accelerate(run_state& state, const Eigen::VectorXd& before,
                  const Eigen::VectorXd& after) const;
  bool move_to(const Eigen::VectorXd& values, proposals& adaptive) const;
  void judge_stage(em_state& em, const Eigen::VectorXd& step) const;

  engine_host& host_;
  const estimation_settings& settings_;
  iteration_scale scale_;
  maximisation_step maximisation_;
};

}  // namespace varda
