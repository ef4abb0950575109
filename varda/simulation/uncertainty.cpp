// SPDX-License-Identifier: Apache-2.0
#include "varda/simulation/uncertainty.h"

#include <Eigen/Cholesky>

#include "varda/inference/estimation_scale.h"

namespace varda {

namespace {

bad_input refused(const std::string& why) {
  return bad_input({.code = "E-SIM-UNCERTAINTY",
                    .message = "the uncertainty of the estimates cannot be simulated: " + why,
                    .remedy = "fit with standard errors, or omit --uncertainty"});
}

}  // namespace

std::vector<drawn_parameters> draw_parameters(const population_model& model,
                                              const drawn_parameters& estimates,
                                              const std::vector<std::string>& names,
                                              const Eigen::MatrixXd& covariance, int replicates,
                                              int seed, int& again) {
  constexpr int most_trials = 100;
  const estimation_scale scale(model, estimates.theta, estimates.omega);
  if (names.empty()) throw refused("the fit has no standard errors");
  std::vector<std::string> own;
  for (const estimation_scale::entry& e : scale.entries()) own.push_back(e.name);
  if (own != names) throw refused("with these data the model has other parameters than the fit");
  const Eigen::LLT<Eigen::MatrixXd> llt(covariance);
  if (llt.info() != Eigen::Success) throw refused("their covariance is not positive definite");
  const Eigen::MatrixXd factor = llt.matrixL();

  std::vector<drawn_parameters> result;
  Eigen::VectorXd z(scale.size());
  for (int r = 0; r < replicates; ++r) {
    deviates draw({seed, static_cast<int>(stream::parameters), r});
    for (int trial = 0;; ++trial) {
      if (trial == most_trials) throw refused("hardly any draw leaves omega positive definite");
      for (double& value : z) value = draw.normal();
      const Eigen::VectorXd psi = scale.estimates() + factor * z;
      const Eigen::MatrixXd omega = scale.omega_at(psi);
      if (omega.llt().info() == Eigen::Success) {
        result.push_back({scale.theta_at(psi), omega});
        break;
      }
      ++again;
    }
  }
  return result;
}

}  // namespace varda
