// SPDX-License-Identifier: Apache-2.0
//
// Everything that a run has to say, as plain values: the reports read nothing else.
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "varda/diagnostics/objective.h"
#include "varda/diagnostics/predictions.h"
#include "varda/diagnostics/random_effects.h"
#include "varda/diagnostics/sampler_health.h"
#include "varda/inference/likelihood.h"
#include "varda/inference/quadrature.h"
#include "varda/inference/standard_errors.h"
#include "varda/method/run_state.h"
#include "varda/model/population.h"
#include "varda/support/finding.h"

namespace varda {

enum class task { fit, evaluate };

// An iteration on the scales that a user reads.
struct natural_iteration {
  double minus2ll = 0.0;  // without the constant N log(2 pi)
  Eigen::VectorXd theta;
};

// Seconds of wall-clock time.
struct timings {
  double start = 0.0;  // modes, curvatures, pilot passes
  double iterations = 0.0;
  double likelihood = 0.0;
  double quadrature = 0.0;
  double standard_errors = 0.0;
  double diagnostics = 0.0;  // predictions, residuals, NPDE
  double total = 0.0;        // of the run, reading included

  template <class A>
  void visit(A& archive) {
    archive(start, iterations, likelihood, quadrature, standard_errors, diagnostics, total);
  }
};

// How the fit from one of several start values ended.
struct start_record {
  int number = 0;  // 0 for the stated values
  bool converged = false;
  std::vector<std::string> singular;
  std::string reason;
  double minus2ll = 0.0;  // NaN where it could not be computed, and so its error
  double mc_se = 0.0;
  Eigen::VectorXd theta;
  Eigen::MatrixXd omega;
  bool kept = false;

  template <class A>
  void visit(A& archive) {
    archive(number, converged, singular, reason, minus2ll, mc_se, theta, omega, kept);
  }
};

// Where a result comes from, as SHA-256.
struct provenance {
  std::string model_sha256;
  std::string data_sha256;
  std::string observations_sha256;  // of what was used of the data (varda/data/fingerprint.h)
  std::string doses_sha256;
};

struct fit_result {
  provenance source;
  task what = task::fit;
  bool converged = false;
  std::string reason;
  // What makes omega singular, by the names that the reason uses: "corr(CL,V)", "omega(V)". The
  // estimates are then where the trial of that ended, and there are no standard errors.
  std::vector<std::string> singular;
  // Parameters that the data tell together and not apart, an entry for each direction: "V, S".
  std::vector<std::string> unidentified;
  std::vector<iteration_record> iterations;
  std::vector<start_record> starts;  // in their order, where a fit had several

  Eigen::VectorXd theta;
  Eigen::MatrixXd omega;
  std::vector<int> held_by_bounds;  // positions in theta

  likelihood_estimate likelihood;
  int likelihood_samples = 0;
  // Of every subject at the points of the verdict; empty where there was none.
  std::vector<subject_health> health;
  quadrature_estimate quadrature;
  double omega_condition = 0.0;  // of omega scaled to a correlation matrix
  standard_errors errors;        // of a fit
  int kept_factors = 0;          // proposals that could not follow their subject
  findings warnings;

  // What follows from the above (diagnose.h).
  Eigen::VectorXd natural_theta;
  std::vector<natural_iteration> natural_iterations;
  Eigen::MatrixXd natural_covariance;  // of the estimates; empty without standard errors
  objective_figures objective;
  random_effect_figures effects;
  sampler_health sampler;
  // Empty where the likelihood is not known, or a stop came first.
  std::vector<subject_predictions> predictions;
  // Of every subject's observations; empty as well where none were wanted.
  std::vector<Eigen::VectorXd> npde;

  timings times;
  int processes = 1;
  int threads = 1;             // of each
  std::string why_one_thread;  // empty where there are more
  int sessions = 1;            // more than one where the run was taken up
  long long evaluations = 0;   // of the model, by this process

  // What a fit has found before its standard errors and diagnostics, which follow from it.
  template <class A>
  void visit(A& archive) {
    archive(what, converged, reason, singular, unidentified, iterations, starts, theta, omega,
            held_by_bounds, likelihood, likelihood_samples, health, quadrature, omega_condition,
            kept_factors, warnings, times);
  }
};

}  // namespace varda
