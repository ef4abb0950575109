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
#include <span>
#include <vector>

#include "statsubs/state/shared_types.h"
#include "varda/host/job.h"
#include "varda/model/population.h"

namespace varda {

class engine_host {
 public:
  // Installs the callables and has the library set up the shared state; theta and omega take their
  // start values. One host at a time. `model` and `peers` outlive it.
  engine_host(const population_model& model, const job& peers);
  ~engine_host();
  engine_host(const engine_host&) = delete;
  engine_host& operator=(const engine_host&) = delete;

  const population_model& model() const { return model_; }
  const job& peers() const { return peers_; }

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

  // Pseudo-random points are drawn from a stream of their own per subject and `stream`.
  void set_random_stream(std::uint64_t stream) { stream_ = stream; }

  std::int64_t evaluations() const { return evaluations_; }

  // A stop was asked for (interrupt) and every process knows it.
  static bool stopped();
  // To be called from a signal handler.
  static void request_stop() noexcept;

 private:
  void install();
  void allocate(int hessian_dimension);
  void evaluate(const double* eta, double& f);
  void refresh_means();
  double negative_log_prior(const double* eta) const;
  double uniform(int& state) const;

  static engine_host& current();

  const population_model& model_;
  const job& peers_;

  // Storage of the shared arrays.
  Eigen::VectorXd theta_, theta_lower_, theta_upper_;
  Eigen::MatrixXd omega_, omega_inverse_, omega_factor_, omega_factor_inverse_, omega_mask_;
  Eigen::MatrixXd whitener_;  // inverse of omega's factor; the library keeps a copy of its own
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
  Eigen::VectorXd eta_, phi_, individual_;
  std::vector<double> prediction_;
  double log_prior_constant_ = 0.0;

  std::uint64_t stream_ = 0;
  std::int64_t evaluations_ = 0;
};

}  // namespace varda
