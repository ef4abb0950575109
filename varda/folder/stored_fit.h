// SPDX-License-Identifier: Apache-2.0
//
// The results of a run as its folder keeps them, for what is done with them later.
#pragma once

#include <Eigen/Core>
#include <optional>
#include <string>
#include <vector>

#include "varda/folder/manifest.h"

#include "varda/support/files.h"

namespace varda {

// One fixed effect, residual deviation or element of omega, on the scale that a user reads.
struct stored_quantity {
  std::string name;
  double estimate = 0.0;
  bool fixed = false;
  std::optional<double> rse;  // per cent
};

struct stored_subject {
  std::string id;
  int observations = 0;
  std::vector<double> minus2ll_replicates;  // every constant included
  Eigen::VectorXd eta_mean;                 // of the random effects given the data
  Eigen::MatrixXd eta_covariance;
};

struct stored_fit {
  std::string folder;  // as the user wrote it
  manifest about;
  std::string title;
  int subjects = 0;
  int observations = 0;
  bool converged = false;
  std::string reason;
  std::vector<std::string> singular;

  std::optional<double> minus2ll;  // nothing where the run was stopped before it was known
  double mc_se = 0.0;
  int estimated = 0;
  double aic = 0.0, bic_observations = 0.0, bic_subjects = 0.0;
  std::vector<stored_subject> by_subject;

  std::vector<stored_quantity> quantities;
  // The estimates as the engine holds them: theta on its own scale, elements of omega, by name.
  std::vector<std::string> theta_names;
  Eigen::VectorXd theta;
  std::vector<std::string> omega_names;
  Eigen::VectorXd omega;
  // The covariance that the standard errors are from, on the estimation scale; empty without any.
  std::vector<std::string> covariance_names;
  Eigen::MatrixXd covariance;
};

// The bytes of one of a run's files. Throws bad_input where it is missing, or not as the run wrote
// it.
std::string read_result(const std::string& folder, const manifest& about, const std::string& name,
                        const file_access& files = read_from_disk);

// Reads the results of a fit or an evaluation. Throws bad_input where the folder holds none, or
// where they are not as the run wrote them.
stored_fit read_stored_fit(const std::string& folder, const file_access& files = read_from_disk);

}  // namespace varda
