// SPDX-License-Identifier: Apache-2.0
//
// The joint density of a subject's data and random effects, for many vectors of random effects at
// once: phi -> individual parameters p -> predictions f -> log p(y | f), and the normal prior of
// the random effects. Everything that needs a likelihood asks here.
//
// Matrices hold an individual a row or a column as stated; quantities of individuals that are
// computed together are contiguous.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <string>
#include <vector>

#include "varda/model/population.h"

namespace varda {

// The scratch of one caller; every thread has its own.
class density_workspace {
 public:
  explicit density_workspace(const population_model& model)
      : structure_(model.structure().make_workspace()) {}

  // Why the last prediction gave NaN, or empty.
  std::string last_failure(const population_model& model) const {
    return model.structure().last_failure(*structure_);
  }

 private:
  friend class density;
  std::unique_ptr<structural_model::workspace> structure_;
  Eigen::MatrixXd parameters_;   // individuals x (parameters x sets)
  Eigen::MatrixXd predictions_;  // individuals x observations
};

class density {
 public:
  // `model` outlives it. Const members may be called from several threads.
  explicit density(const population_model& model) : model_(model) {}

  const population_model& model() const { return model_; }

  // Predictions at phi = C beta + eta (random effects x individuals) of subject `subject` (from 0):
  // f becomes individuals x observations. Those of endpoints that are not normal have the logarithm
  // of their density there.
  void predict(int subject, const double* theta, const Eigen::Ref<const Eigen::MatrixXd>& phi,
               Eigen::MatrixXd& f, density_workspace& scratch) const;
  // The same into a part of a matrix, which has that size.
  void predict(int subject, const double* theta, const Eigen::Ref<const Eigen::MatrixXd>& phi,
               Eigen::Ref<Eigen::MatrixXd> f, density_workspace& scratch) const {
    fill(subject, model_.data().subjects[static_cast<std::size_t>(subject)], theta, phi, f,
         scratch);
  }

  // The same for a subject whose observations are others than those of the data.
  void predict(int subject, const varda::subject& who, const double* theta,
               const Eigen::Ref<const Eigen::MatrixXd>& phi, Eigen::MatrixXd& f,
               density_workspace& scratch) const;
  // What is expected of the subject's observations: predict, but for endpoints that are not normal,
  // of which it gives the mean; NaN where the model does not tell one.
  void expect(int subject, const double* theta, const Eigen::Ref<const Eigen::MatrixXd>& phi,
              Eigen::MatrixXd& f, density_workspace& scratch) const {
    predict(subject, model_.as_expected(subject), theta, phi, f, scratch);
  }

  // -log p(y | f) of every individual, every constant included, and the sums of squared scaled
  // residuals. Not finite where a prediction or its error is of no use.
  void of_data(int subject, const double* theta, const Eigen::MatrixXd& f,
               Eigen::VectorXd& objective, Eigen::VectorXd& scaled_squares) const;

  // Both at once for a single individual, without memory of its own.
  double of_data(int subject, const double* theta, const Eigen::VectorXd& phi,
                 double& scaled_squares, density_workspace& scratch) const;

 private:
  void fill(int subject, const varda::subject& who, const double* theta,
            const Eigen::Ref<const Eigen::MatrixXd>& phi, Eigen::Ref<Eigen::MatrixXd> f,
            density_workspace& scratch) const;

  const population_model& model_;
};

// The normal density of the random effects, mean 0 and covariance omega.
class random_effect_density {
 public:
  random_effect_density() = default;
  explicit random_effect_density(const Eigen::MatrixXd& omega);

  // Whether omega is positive definite; nothing else may be asked otherwise.
  bool is_definite() const { return definite_; }
  const Eigen::MatrixXd& factor() const { return factor_; }      // lower Cholesky factor of omega
  const Eigen::MatrixXd& whitener() const { return whitener_; }  // its inverse
  const Eigen::MatrixXd& precision() const { return precision_; }

  // -log N(eta; 0, omega), every constant included.
  double negative_log(const double* eta) const;
  // The same numbers for the columns of `eta`.
  void negative_logs(const Eigen::Ref<const Eigen::MatrixXd>& eta, Eigen::VectorXd& result) const;

 private:
  bool definite_ = false;
  Eigen::MatrixXd factor_, whitener_, precision_;
  double constant_ = 0.0;
};

}  // namespace varda
