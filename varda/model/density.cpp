// SPDX-License-Identifier: Apache-2.0
#include "varda/model/density.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace varda {

void density::predict(int subject, const double* theta,
                      const Eigen::Ref<const Eigen::MatrixXd>& phi, Eigen::MatrixXd& f,
                      density_workspace& scratch) const {
  predict(subject, model_.data().subjects[static_cast<std::size_t>(subject)], theta, phi, f,
          scratch);
}

void density::predict(int subject, const varda::subject& who, const double* theta,
                      const Eigen::Ref<const Eigen::MatrixXd>& phi, Eigen::MatrixXd& f,
                      density_workspace& scratch) const {
  f.resize(phi.cols(), static_cast<Eigen::Index>(who.observations.size()));
  fill(subject, who, theta, phi, f, scratch);
}

void density::fill(int subject, const varda::subject& who, const double* theta,
                   const Eigen::Ref<const Eigen::MatrixXd>& phi, Eigen::Ref<Eigen::MatrixXd> f,
                   density_workspace& scratch) const {
  model_.individual_parameters(subject, theta, phi, scratch.parameters_);
  const auto individuals = static_cast<std::size_t>(phi.cols());
  model_.structure().predict(
      who,
      {.values = scratch.parameters_.data(),
       .parameters = static_cast<std::size_t>(model_.structural_parameters()),
       .sets = static_cast<std::size_t>(model_.parameter_sets(subject)),
       .individuals = individuals,
       .stride = individuals},
      {f.data(), who.observations.size(), static_cast<std::size_t>(f.outerStride())},
      *scratch.structure_);
}

void density::of_data(int subject, const double* theta, const Eigen::MatrixXd& f,
                      Eigen::VectorXd& objective, Eigen::VectorXd& scaled_squares) const {
  objective.resize(f.rows());
  scaled_squares.resize(f.rows());
  const auto n = static_cast<std::size_t>(f.rows());
  model_.observed().objectives(model_.data().subjects[static_cast<std::size_t>(subject)], f.data(),
                               n, n, theta, objective.data(), scaled_squares.data());
}

double density::of_data(int subject, const double* theta, const Eigen::VectorXd& phi,
                        double& scaled_squares, density_workspace& scratch) const {
  predict(subject, theta, phi, scratch.predictions_, scratch);
  double objective = 0.0;
  model_.observed().objectives(model_.data().subjects[static_cast<std::size_t>(subject)],
                               scratch.predictions_.data(), 1, 1, theta, &objective,
                               &scaled_squares);
  return objective;
}

random_effect_density::random_effect_density(const Eigen::MatrixXd& omega) {
  const Eigen::LLT<Eigen::MatrixXd> llt(omega);
  definite_ = llt.info() == Eigen::Success;
  if (!definite_) return;
  const Eigen::MatrixXd identity = Eigen::MatrixXd::Identity(omega.rows(), omega.cols());
  factor_ = llt.matrixL();
  precision_ = llt.solve(identity);
  whitener_ = llt.matrixL().solve(identity);
  constant_ = factor_.diagonal().array().log().sum() +
              0.5 * static_cast<double>(omega.rows()) * std::log(2.0 * std::numbers::pi);
}

double random_effect_density::negative_log(const double* eta) const {
  const Eigen::Index n = whitener_.rows();
  double squares = 0.0;
  for (Eigen::Index i = 0; i < n; ++i) {
    double z = 0.0;
    for (Eigen::Index j = 0; j <= i; ++j) z += whitener_(i, j) * eta[j];
    squares += z * z;
  }
  return 0.5 * squares + constant_;
}

// A few at once, of which vector instructions are made.
void random_effect_density::negative_logs(const Eigen::Ref<const Eigen::MatrixXd>& eta,
                                          Eigen::VectorXd& result) const {
  constexpr Eigen::Index together = 4;
  const Eigen::Index n = whitener_.rows();
  result.resize(eta.cols());
  std::array<Eigen::Array4d, most_random_effects> effects;
  for (Eigen::Index first = 0; first < eta.cols(); first += together) {
    const Eigen::Index count = std::min(together, eta.cols() - first);
    for (Eigen::Index k = 0; k < together; ++k) {
      const double* const from = eta.col(first + std::min(k, count - 1)).data();
      for (Eigen::Index j = 0; j < n; ++j) effects[static_cast<std::size_t>(j)](k) = from[j];
    }
    Eigen::Array4d squares = Eigen::Array4d::Zero();
    for (Eigen::Index i = 0; i < n; ++i) {
      Eigen::Array4d z = Eigen::Array4d::Zero();
      for (Eigen::Index j = 0; j <= i; ++j)
        z += whitener_(i, j) * effects[static_cast<std::size_t>(j)];
      squares += z * z;
    }
    result.segment(first, count) = (0.5 * squares + constant_).head(count);
  }
}

}  // namespace varda
