// SPDX-License-Identifier: Apache-2.0
//
// varda's side of the library's host interface: it owns the storage of the shared arrays, answers
// the getters from the model file, and evaluates the model.
//
// The objective is the negative joint log density -log p(y_i | eta) - log N(eta; 0, omega) with
// every constant, so that the E-step's log-likelihood is the exact marginal one. Evaluations read
// the shared `theta` itself, which a routine may perturb without telling.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "statsubs/state/shared_types.h"
#include "varda/host/job.h"
#include "varda/host/points.h"
#include "varda/model/density.h"

namespace varda {

class engine_host {
 public:
  // Installs the callables and has the library set up the shared state; theta and omega take their
  // start values. One host at a time. `model` and `peers` outlive it.
  engine_host(const population_model& model, const job& peers);
  ~engine_host();
  engine_host(const engine_host&) = delete;
  engine_host& operator=(const engine_host&) = delete;

  const population_model& model() const { return density_.model(); }
  const density& joint() const { return density_; }
  const job& peers() const { return peers_; }
  // Whether an evaluation of the model takes so long that threads may share a few dozen.
  bool model_is_costly() const { return costly_; }

  // Fixed effects, in the shared state: theta, sigmalchol, sigmasq.
  void set_theta(const Eigen::VectorXd& theta);
  Eigen::Map<const Eigen::VectorXd> theta() const { return {theta_.data(), theta_.size()}; }

  // omega with its inverse and factors. False, and nothing changed, when it is not positive
  // definite.
  bool set_omega(const Eigen::MatrixXd& omega);
  const Eigen::MatrixXd& omega() const { return omega_; }

  // The columns that the C matrix has from now on, as positions in model().columns(); the library
  // sees them as columns 1, 2, ...
  void select_columns(const std::vector<int>& columns);
  void select_every_column();

  // Objective of subject `subject` (from 0) at eta, by the same path as the library's evaluations.
  double objective(int subject, const double* eta);

  // Before samples of a subject (from 0) are drawn: its points in a pass, Sobol points and
  // pseudo-random ones alike.
  void place_points(const point_pass& pass, int subject, int samples);

  // The points of all passes.
  const point_source& points() const { return *points_; }

  std::int64_t evaluations() const { return evaluations_; }
  // Evaluations that were made of the joint density itself.
  void count_evaluations(std::int64_t more) { evaluations_ += more; }

  // A stop was asked for (interrupt) and has been seen. In the middle of a pass over subjects that
  // is this process's own affair; at the end of each pass the processes agree.
  static bool stopped();
  // Has the processes agree whether one was; collective. The same as stopped() afterwards.
  static bool agree_on_stop();
  // Makes what each process has of its own subjects, a column each, known to all. The columns are
  // those of all subjects, or of the ones listed. Collective. False when a stop was asked for,
  // which the processes agree on here too.
  static bool share(Eigen::MatrixXd& by_subject);
  static bool share(Eigen::MatrixXd& by_subject, const std::vector<int>& subjects);
  // Whether this process alone has been asked.
  static bool stop_requested() noexcept;
  // To be called from a signal handler.
  static void request_stop() noexcept;

 private:
  void install();
  void allocate(int hessian_dimension);
  void evaluate(const double* eta, double& f);
  void evaluate_block(int n, const double* etas, double* f, double* scores);
  void evaluate_in_parts(int n);
  void refresh_means();
  int sigma_position() const;
  double uniform(int& state) const;

  static engine_host& current();
  static bool note_stop(bool asked);

  const density density_;
  const job& peers_;
  density_workspace scratch_;
  random_effect_density prior_;
  std::optional<point_source> points_;

  // Storage of the shared arrays.
  Eigen::VectorXd theta_, theta_lower_, theta_upper_;
  Eigen::MatrixXd omega_, omega_inverse_, omega_factor_, omega_factor_inverse_, omega_mask_;
  Eigen::VectorXd centre_, mean_, eta_deviations_, score_, expanded_score_, variances_;
  Eigen::MatrixXd proposal_factor_, covariance_, eta_table_, curvature_;
  std::vector<double> proposal_factors_, c_matrices_;
  std::vector<int> first_observation_, mu_map_, tight_, column_is_log_, column_theta_, theta_type_,
      theta_effect_;
  std::vector<int> selected_columns_;

  // The subject in work, and C beta for it at means_theta_.
  int subject_ = 0;
  int means_subject_ = -1;
  Eigen::VectorXd means_theta_, means_;
  Eigen::VectorXd eta_, phi_;

  // A block of random effects, and the part of one that a thread works on.
  struct block_part {
    explicit block_part(const population_model& model) : scratch(model) {}
    density_workspace scratch;
    Eigen::MatrixXd predictions;
    Eigen::VectorXd objective, score;
  };
  bool costly_;
  Eigen::MatrixXd block_phi_, block_predictions_;
  Eigen::VectorXd block_objective_, block_score_, block_prior_;
  std::vector<block_part> block_parts_;  // one for each thread, of a costly model

  std::uint64_t stream_ = 0;
  std::int64_t evaluations_ = 0;
};

}  // namespace varda
