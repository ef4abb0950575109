// SPDX-License-Identifier: Apache-2.0
//
// Everything that a run has to say, as plain values: the reports read nothing else.
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "varda/inference/likelihood.h"
#include "varda/inference/quadrature.h"
#include "varda/inference/standard_errors.h"
#include "varda/method/run_state.h"
#include "varda/model/population.h"
#include "varda/support/finding.h"

namespace varda {

enum class task { fit, evaluate };

// Seconds of wall-clock time.
struct timings {
  double start = 0.0;  // modes, curvatures, pilot passes
  double iterations = 0.0;
  double likelihood = 0.0;
  double quadrature = 0.0;
  double standard_errors = 0.0;
  double total = 0.0;
};

struct fit_result {
  task what = task::fit;
  bool converged = false;
  std::string reason;
  // What makes omega singular, by the names that the reason uses: "corr(CL,V)", "omega(V)". The
  // estimates are then where the trial of that ended, and there are no standard errors.
  std::vector<std::string> singular;
  std::vector<iteration_record> iterations;

  Eigen::VectorXd theta;
  Eigen::MatrixXd omega;
  std::vector<int> held_by_bounds;  // positions in theta

  likelihood_estimate likelihood;
  int likelihood_samples = 0;
  quadrature_estimate quadrature;
  standard_errors errors;        // of a fit
  Eigen::VectorXd shrinkage;     // per random effect: 1 - sqrt(mean of squared means) / omega
  double omega_condition = 0.0;  // of omega scaled to a correlation matrix
  int kept_factors = 0;          // proposals that could not follow their subject
  findings warnings;

  timings times;
  int processes = 1;
  long long evaluations = 0;  // of the model, by this process
};

}  // namespace varda
