// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <string>
#include <utility>
#include <vector>

#include "varda/host/engine_host.h"
#include "varda/support/finding.h"

namespace varda {

// Covariances of the estimates are over the free fixed effects in the order of theta, then the free
// elements of omega in the lower triangle row by row, all on the estimation scale: the regression
// scale for typical values and covariate effects, logarithms for residual deviations and positive
// flat parameters, omega itself.
struct covariance_estimate {
  bool known = false;
  std::string reason;  // why not
  Eigen::MatrixXd covariance;

  template <class A>
  void visit(A& archive) {
    archive(known, reason, covariance);
  }
};

// One estimated quantity with its errors on the scale that a user reads.
struct estimate_error {
  double se = 0.0;
  double rse_percent = 0.0;  // 100 se / |estimate|
  // 95 % interval, formed on the estimation scale (the logarithm for variances) and transformed
  // back, so that it keeps to the quantity's domain.
  double ci_lower = 0.0;
  double ci_upper = 0.0;
};

struct standard_errors {
  std::string reason;  // why there are none at all, e.g. a parameter at its bound
  standard_error_kind shown = standard_error_kind::information;

  std::vector<std::string> names;  // of the estimated quantities, in the order of the covariances
  std::vector<int> theta;          // position in theta, or -1 for an element of omega
  std::vector<std::pair<int, int>> omega;  // its row and column, or (-1, -1)

  // Whether a quantity has an error: the data may say nothing of one, while all others have theirs.
  // Its rows and columns of covariances and correlations are NaN.
  std::vector<char> known;

  // Position of a fixed effect or of an element of omega among the estimated quantities, or -1
  // where it has no error.
  int place_of_theta(int position) const;
  int place_of_omega(int row, int column) const;
  // Whether it is estimated, and the data say nothing of it.
  bool without_error_theta(int position) const;
  bool without_error_omega(int row, int column) const;

  covariance_estimate information;  // inverse of the observed information
  covariance_estimate score;        // inverse of the sum of outer products of the scores
  covariance_estimate sandwich;     // information^-1 score information^-1

  // Errors by each of the three, empty where it is not known; `chosen` is the one that is shown.
  std::vector<estimate_error> by_information, by_score, by_sandwich;
  const std::vector<estimate_error>& chosen() const;
  const covariance_estimate& chosen_covariance() const;

  // Of the correlation matrix of the shown estimates, those that have errors.
  Eigen::MatrixXd correlation;
  Eigen::VectorXd eigenvalues;  // ascending
  double condition_number = 0.0;
  // The direction that the data do not identify, in words, when the condition number says so.
  std::string unidentified;
  std::vector<std::string> from_scores;  // as in sampled_errors

  findings warnings;
};

// What weighted samples say of the errors of the estimates, on the estimation scale.
struct sampled_errors {
  // Inverse of the observed information, of the quantities that it knows anything of.
  covariance_estimate information;
  std::vector<char> known;  // by quantity
  Eigen::MatrixXd scores;   // sum of outer products of the subjects' scores
  // What moves along each direction in which the scores stand in for the information, whose
  // sampling error is too large.
  std::vector<std::string> from_scores;

  template <class A>
  void visit(A& archive) {
    archive(information, known, scores, from_scores);
  }
};

// Standard errors of all three kinds at the parameters in force.
standard_errors errors_from(engine_host& host, const sampled_errors& found);

}  // namespace varda
