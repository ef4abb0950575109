// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <optional>

#include "varda/inference/standard_errors.h"
#include "varda/method/newton/measure.h"
#include "varda/method/newton/startup.h"
#include "varda/method/run_state.h"

namespace varda {

// The sum over the subjects of what their samples say.
struct draw_measure {
  bool finite = false;
  int samples = 0;  // a subject
  double log_likelihood = 0.0;
  double variance = 0.0;  // of the log-likelihood's error, pooled over subjects
  Eigen::VectorXd gradient;
  Eigen::MatrixXd information;
  Eigen::MatrixXd scatter;         // covariance of the gradient's error
  Eigen::MatrixXd outer_products;  // of the subjects' gradients with themselves
  std::vector<subject_measure> subjects;
  // Of the subjects of this process: mean and covariance of phi given the data, by columns.
  Eigen::MatrixXd moments;
  // Of the same, with many random effects: third moments as subject_details has them, by columns.
  Eigen::MatrixXd skewness;
  // Of the same, where parameters move predictions: the derivative of that mean by psi, by columns.
  Eigen::MatrixXd shifts;
  // Of every group of samples alone, groups x subjects.
  Eigen::MatrixXd group_log_likelihood;
  // What is still ahead in -2 log-likelihood and its noise, by this information.
  double gain = 0.0;
  double noise = 0.0;
  Eigen::VectorXd step;  // Newton's, towards the maximum
  bool definite = false;

  // Standard error of -2 log-likelihood.
  double error() const { return 2.0 * std::sqrt(variance); }
};

// Whether a subject's samples are not to be trusted: few effective ones, or a heavy tail with not
// many, where the error of its -2 log-likelihood shows it.
bool is_sick(const subject_measure& m);

// The greatest share of a subject's samples in the bulk of its conditional distribution that may
// fail before a verdict falls.
inline constexpr double most_failures = 0.2;

// Points that an integral needs beside those of up to four random effects: twice as many up to
// eight, four times up to sixteen, and so on.
int points_factor(int random_effects);

// Points a subject, the least for a verdict. What their correction leaves of the bias of the
// subjects' log-likelihoods adds up, to a gain that grows with the subjects and falls with the
// square of the points.
int verdict_points(int random_effects, int subjects);

// A direction of psi in which a sampled information does not differ from zero by more than its
// error.
struct weak_direction {
  static constexpr double stiff = 1e6;
  Eigen::VectorXd along;  // with a largest component of 1
  // Curvature to be added there to the information with unit diagonal: what the subjects' scores
  // say besides, or where these say nothing either so much that no step is taken along it and no
  // gain seen there.
  double added = stiff;

  bool is_flat() const { return added >= stiff; }
  // Whether the subjects' scores say more than the information.
  bool is_of_scores() const { return added > 0.0 && !is_flat(); }
};

// One draw of all subjects. The samples of as many as there is memory for are kept, in the order of
// the subjects of this process; every measurement draws those of the others again.
struct whole_draw {
  draw_plan plan;
  // As they were at the draw: theta, where the predictions are made, the lower Cholesky factor of
  // omega, and of every subject the proposal and the heaviest tail that weights had had.
  Eigen::VectorXd theta;
  Eigen::MatrixXd population;
  std::vector<draw_mixture> proposals;
  std::vector<double> tails;
  std::vector<subject_draw> kept;  // by subject; empty where nothing is kept
  std::vector<weak_direction> weak;
};

// What the samples of a subject come from: its proposal, and what defends it against a tail.
draw_mixture components_of(const population_model& model, const whole_draw& drawn, int subject);

// Maximum likelihood by Newton steps on the sampled log-likelihood, with fresh points for every
// draw. What is still to be gained at a draw's points before any step on them, and the noise of
// that figure, decide when the maximum is reached: docs/verdict.md.
class newton_method final : public estimation_method {
 public:
  // `draw_memory` is what the samples that a process keeps of a draw may take, in bytes: with more
  // subjects less time goes into drawing again, and results are the same. By default enough for
  // a model whose evaluations are dear, and little for one in closed form.
  explicit newton_method(engine_host& host);
  newton_method(engine_host& host, std::size_t draw_memory);

  void begin(run_state& state) const override;
  bool step(run_state& state) const override;
  method_conclusion conclude(const run_state& state) const override;
  std::string moving(const run_state& state) const override;

  // Proposals for the parameters in force, which stay: modes, then draws that the proposals follow,
  // and a look for likelihood where they have no points. Collective. False when a stop was asked
  // for.
  bool settle(run_state& state) const;
  // Lets a fit that had arrived go on where fresh points see a gain ahead (in -2 log-likelihood,
  // less its noise) that a fit may not leave: by `step`, after which it has arrived again, or,
  // where that is empty, on more points. False: the gain is not large enough, or the fit has had
  // its chances.
  bool go_on(run_state& state, double gain, const Eigen::VectorXd& step) const;
  // Whether a step is taken without measuring what is behind it: one of a small gain, where a
  // measurement takes long.
  bool trusts_step(const draw_measure& at) const;

  // For what comes after the steps: a draw at the state's parameters and proposals, and what it
  // says. Collective. False when a stop was asked for.
  bool draw(const run_state& state, const point_pass& pass, int samples, int groups,
            whole_draw& drawn) const;
  // One that will be measured once: it is kept where evaluations are dear.
  bool draw_once(const run_state& state, const point_pass& pass, int samples, int groups,
                 whole_draw& drawn) const;
  // Not finite after a stop request.
  draw_measure measure(const whole_draw& drawn, const Eigen::VectorXd& psi, detail wanted) const;

  const coordinates& scale() const { return scale_; }

  // Of the information that a draw found. Collective.
  std::vector<weak_direction> weak_directions(const whole_draw& drawn, const Eigen::VectorXd& psi,
                                              const draw_measure& found) const;
  // What is ahead by a draw, with the steps that weak directions of its information allow.
  void stiffen(const std::vector<weak_direction>& weak, whole_draw& drawn,
               const Eigen::VectorXd& psi, draw_measure& here) const;
  // The information with what is to be added in weak directions that are not flat.
  static Eigen::MatrixXd strengthened(const Eigen::MatrixXd& information,
                                      const std::vector<weak_direction>& weak);
  // The inverse of an information, with nothing along the directions that it says nothing of: those
  // that `flat` names, and coordinates of variances whose error would be absurd, which are added.
  // Not known where there is no maximum in all other directions.
  covariance_estimate invert(const Eigen::MatrixXd& all_information,
                             std::vector<Eigen::VectorXd>& flat) const;
  // Whether a direction moves fixed effects in the first place, and not the variances.
  bool is_of_fixed_effects(const Eigen::VectorXd& direction) const;
  // The names of the parameters that a direction moves: "V, S".
  std::string names_along(const Eigen::VectorXd& direction) const;

  // Looks for likelihood where the proposals have no points, and repairs the proposals of subjects
  // that are badly sampled: those of `repaired`. Collective. False when a stop was asked for.
  bool look_widely(run_state& state, const draw_measure& found, std::vector<int>& repaired) const;
  // The same, after which these subjects are drawn again and `found`, what the draw said at psi, is
  // what it says then. New points for all would find others that are badly sampled where there are
  // many subjects.
  bool mend(run_state& state, const Eigen::VectorXd& psi, whole_draw& drawn, draw_measure& found,
            bool& changed) const;

 private:
  struct ascent {
    Eigen::VectorXd psi;
    double gained = 0.0;               // in -2 log-likelihood
    std::optional<draw_measure> last;  // behind the last step that was measured, if any was
    const draw_measure& end(const draw_measure& here) const { return last ? *last : here; }
  };
  bool advance(run_state& state) const;
  bool start(run_state& state) const;
  void propose_from(const std::vector<normal_posterior>& modes, run_state& state) const;
  ascent climb(whole_draw& drawn, const Eigen::VectorXd& psi, const draw_measure& here,
               int most_steps) const;
  bool starves(const draw_measure& before, const draw_measure& behind) const;
  void carry(const draw_measure& from, const Eigen::VectorXd& by, const measure_point& to,
             whole_draw& drawn) const;
  void draw_again(whole_draw& drawn) const;
  void judge_information(draw_measure& of, const Eigen::VectorXd& psi,
                         const std::vector<weak_direction>& weak) const;
  Eigen::VectorXd limited(const Eigen::VectorXd& step, const Eigen::VectorXd& psi) const;
  void follow(const draw_measure& found, newton_state& state) const;
  void note(const draw_measure& here, newton_state& state) const;
  bool take_force(run_state& state, const Eigen::VectorXd& psi) const;
  bool leap_to(run_state& state, const Eigen::VectorXd& psi) const;
  bool examine_boundary(run_state& state, const draw_measure& found, bool& moved) const;
  // Newton steps at the points of a trial until at rest, coordinate `held` (or none: -1) staying;
  // the last draw, on the points of index 0, only measures. Ends early where the value cannot come
  // below `hopeless`.
  bool maximise(run_state& state, int held, double hopeless, draw_measure& end) const;
  std::vector<int> poorly_determined(const draw_measure& found, const Eigen::VectorXd& psi) const;
  std::string name_of_singular(const Eigen::MatrixXd& omega, int effect) const;
  Eigen::VectorXd psi_in_force() const;
  bool draw(const run_state& state, const draw_plan& plan, std::size_t memory,
            whole_draw& drawn) const;
  bool add(const whole_draw& drawn, const measure_point& at, detail wanted,
           const std::vector<int>& subjects, double sign, draw_measure& sum) const;
  void draw_kept(const std::vector<int>& subjects, whole_draw& drawn) const;

  engine_host& host_;
  const estimation_settings& settings_;
  coordinates scale_;
  int points_factor_;
  int verdict_points_;
  bool moves_predictions_;  // some parameter without a random effect does
  std::size_t draw_memory_;
};

}  // namespace varda
