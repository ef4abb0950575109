// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/method/newton/measure.h"
#include "varda/method/newton/startup.h"
#include "varda/method/run_state.h"

namespace varda {

// The sum over the subjects of what their samples say.
struct draw_measure {
  bool finite = false;
  double log_likelihood = 0.0;
  double error = 0.0;  // standard error of -2 log-likelihood, pooled over subjects
  Eigen::VectorXd gradient;
  Eigen::MatrixXd information;
  Eigen::MatrixXd scatter;                // covariance of the gradient's error
  std::vector<subject_measure> subjects;  // those of this process; the figures of all
  // What is still ahead in -2 log-likelihood and its noise, by this information.
  double gain = 0.0;
  double noise = 0.0;
  Eigen::VectorXd step;  // Newton's, towards the maximum
  bool definite = false;
};

// Whether a subject's samples are not to be trusted: few effective ones, or a heavy tail with not
// many.
bool is_sick(const subject_measure& m);

// All subjects' samples of one draw, those of this process.
struct whole_draw {
  std::vector<subject_draw> subjects;
  Eigen::VectorXd theta;  // where the predictions were made
};

// Maximum likelihood by Newton steps on the sampled log-likelihood, with fresh points for every
// draw. What is still to be gained at a draw's points before any step on them, and the noise of
// that figure, decide when the maximum is reached: docs/verdict.md.
class newton_method final : public estimation_method {
 public:
  explicit newton_method(engine_host& host);

  void begin(run_state& state) const override;
  bool step(run_state& state) const override;
  method_conclusion conclude(const run_state& state) const override;

  // Proposals for the parameters in force, which stay: modes, then draws that the proposals follow,
  // and a look for likelihood where they have no points. Collective. False when a stop was asked
  // for.
  bool settle(run_state& state) const;

  // For what comes after the steps: a draw at the state's parameters and proposals, and what it
  // says. Collective. False when a stop was asked for.
  bool draw(const run_state& state, const point_pass& pass, int samples, int groups,
            whole_draw& drawn) const;
  draw_measure measure(const whole_draw& drawn, const Eigen::VectorXd& psi, detail wanted) const;

  const coordinates& scale() const { return scale_; }

  // Looks for likelihood where the proposals have no points, and repairs the proposals of subjects
  // that are badly sampled. `changed` tells of any. Collective. False when a stop was asked for.
  bool look_widely(run_state& state, const draw_measure& found, bool& changed) const;

 private:
  struct ascent {
    Eigen::VectorXd psi;
    double gained = 0.0;  // in -2 log-likelihood
    draw_measure last;
  };
  bool advance(run_state& state) const;
  bool start(run_state& state) const;
  void propose_from(const std::vector<normal_posterior>& modes, run_state& state) const;
  ascent climb(const whole_draw& drawn, const Eigen::VectorXd& psi, const draw_measure& here,
               int most_steps) const;
  void judge_information(draw_measure& of, const Eigen::VectorXd& psi) const;
  Eigen::VectorXd limited(const Eigen::VectorXd& step, const Eigen::VectorXd& psi) const;
  void follow(const draw_measure& found, newton_state& state) const;
  bool take_force(run_state& state, const Eigen::VectorXd& psi) const;
  bool leap_to(run_state& state, const Eigen::VectorXd& psi) const;
  bool examine_boundary(run_state& state, const draw_measure& found, bool& moved) const;
  struct trial_end {
    double minus2ll = 0.0;
    double error = 0.0;
  };
  bool maximise(run_state& state, const std::vector<bool>& free, int draws, trial_end& end) const;
  std::vector<int> poorly_determined(const draw_measure& found, const Eigen::VectorXd& psi) const;
  std::string name_of_singular(const Eigen::MatrixXd& omega, int effect) const;
  Eigen::VectorXd psi_in_force() const;

  engine_host& host_;
  const estimation_settings& settings_;
  coordinates scale_;
};

}  // namespace varda
