// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "varda/model/density.h"

namespace varda {

// Theta and omega with what densities need of them.
struct parameter_values {
  parameter_values(const Eigen::VectorXd& at_theta, const Eigen::MatrixXd& at_omega)
      : theta(at_theta), omega(at_omega), prior(at_omega) {}
  Eigen::VectorXd theta;
  Eigen::MatrixXd omega;
  random_effect_density prior;
};

// A mode of log p(y | phi) p(phi) and the normal distribution about it.
struct normal_posterior {
  Eigen::VectorXd phi;
  Eigen::MatrixXd covariance;  // at most omega in every direction
  double log_density = 0.0;    // at the mode
  // log of the integral that the normal distribution stands for (Laplace).
  double log_mass = 0.0;
  bool usable = false;  // the density is finite there
};

// Two random effects, the later one first.
using effect_pair = std::pair<Eigen::Index, Eigen::Index>;

// Searches modes of subjects by damped Newton steps; all evaluations of a step are made at once.
class mode_finder {
 public:
  explicit mode_finder(const density& joint);

  // log p(y | phi) p(phi) at the columns of phi; minus infinity where it is not finite.
  Eigen::VectorXd log_density(int subject, const Eigen::MatrixXd& phi, const parameter_values& at);
  // log p(y | phi) alone.
  Eigen::VectorXd log_data(int subject, const Eigen::MatrixXd& phi, const parameter_values& at);

  normal_posterior search(int subject, const Eigen::VectorXd& from, const parameter_values& at) {
    return search(subject, from, at, nullptr);
  }
  // The same for another mode than the one about `centre`, a normal distribution with this lower
  // Cholesky factor: where a search comes within a deviation of it, it ends with nothing usable.
  normal_posterior search_beside(int subject, const Eigen::VectorXd& from,
                                 const parameter_values& at, const Eigen::VectorXd& centre,
                                 const Eigen::MatrixXd& factor);

  std::int64_t evaluations() const { return evaluations_; }

 private:
  bool are_apart(const effect_pair& pair, const Eigen::MatrixXd& hessian) const;
  // Puts a Hessian over longer differences in place of one that holds near the mode alone.
  void look_coarsely(int subject, const Eigen::VectorXd& phi, const parameter_values& at,
                     Eigen::MatrixXd& hessian);
  // `is_known` tells of a place whether it leads to a mode that is of no interest; may be null.
  normal_posterior search(int subject, const Eigen::VectorXd& from, const parameter_values& at,
                          const std::function<bool(const Eigen::VectorXd&)>& is_known);

  const density& joint_;
  density_workspace scratch_;
  std::vector<effect_pair> pairs_;  // all there are
  std::int64_t evaluations_ = 0;
};

}  // namespace varda
