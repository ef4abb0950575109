// SPDX-License-Identifier: Apache-2.0
//
// How observations scatter about their predictions. With prediction f and a standard normal e, by
// the endpoint's kind of error:
//
//   additive       y = f + a e
//   proportional   y = f + b f e
//   combined       variance a^2 + b^2 f^2
//   combined-sd    y = f + (a + b |f|) e
//   power          y = f + b |f|^c e
//   log-normal     log y = log f + a e; the density is that of y itself
//   box-cox        h(y) = h(f) + a e with h(y) = (y^lambda - 1) / lambda; the density is that of y
//
// e may have Student's t distribution with so many degrees of freedom instead; what is called a
// deviation here is then its scale.
//
// Of an endpoint that is not normal f is the logarithm of the density already, and the endpoint has
// no parameters here.
//
// A censored observation counts with the probability of what is known of it: that y lies below or
// above a limit, or between two.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <vector>

#include "varda/data/dataset.h"
#include "varda/model/fixed_effect.h"
#include "varda/model/specification.h"

namespace varda {

struct lane_kernel;

class endpoints {
 public:
  // The parameters of the endpoints stand in theta from `first_theta` on, endpoint by endpoint, the
  // proportional deviation before the additive one and the exponent.
  endpoints(const std::vector<endpoint>& described, int first_theta, const dataset& data);

  const std::vector<fixed_effect>& parameters() const { return parameters_; }

  bool is_normal(const observation& at) const { return !of(at).known; }

  // One deviation scales all residuals, so that its update has a closed form.
  bool has_one_scale() const { return plain_ && parameters_.size() == 1; }

  // For individuals j below n, with prediction k of individual j at f[k * stride + j]:
  // -log p(y | f), every constant included, and the sum of squared scaled residuals of the
  // observations that are not censored. A value that is not finite marks a prediction that the
  // error model cannot take.
  void objectives(const subject& who, const double* f, std::size_t stride, std::size_t n,
                  const double* theta, double* objective, double* scaled_squares) const;
  // With another kernel than the best one: results are the same.
  void objectives(const subject& who, const double* f, std::size_t stride, std::size_t n,
                  const double* theta, double* objective, double* scaled_squares,
                  const lane_kernel& with) const;

  // The derivatives of log p(y | f) by the logarithms of the endpoints' parameters. f: individuals
  // x observations. `gradient` becomes individuals x parameters(); `hessian` the sum of the
  // individuals' second derivatives, each times its weight.
  void derivatives(const subject& who, const Eigen::MatrixXd& f, const double* theta,
                   const Eigen::VectorXd& weights, Eigen::MatrixXd& gradient,
                   Eigen::MatrixXd& hessian) const;

  // Of an observation that is normal: standard deviation about the prediction f (of its logarithm
  // for log-normal error, transformed for Box-Cox error), and its scaled residual; of a censored
  // observation that of its limit.
  double deviation(const observation& at, double f, const double* theta) const;
  double scaled_residual(const observation& at, double f, const double* theta) const;

  // An observation's value y on the scale on which e adds to the prediction: its logarithm for
  // log-normal error, transformed for Box-Cox error; -infinity where that is not above 0 and has no
  // such value.
  double transformed(const observation& at, double y) const;
  // Of `n` predictions f of the observation: the transformed predictions and the deviations.
  void scatter(const observation& at, const double* f, std::size_t n, const double* theta,
               double* transformed_f, double* deviations) const;

  // Of the distribution of e; 0 where it is standard normal.
  double degrees_of_freedom(const observation& at) const { return of(at).degrees_of_freedom; }
  double variance_of_e(const observation& at) const {
    const double nu = degrees_of_freedom(at);
    return nu > 0.0 ? nu / (nu - 2.0) : 1.0;
  }

  // The observation as it would have come out at the scaled residual e. With Box-Cox error an e so
  // far out that nothing is transformed to it gives the end of the range, 0 or infinity.
  double simulated(const observation& at, double f, double e, const double* theta) const;

  // The first observation whose contribution is not finite, or -1. `f` has one entry for each
  // observation of `who`.
  int first_failure(const subject& who, const double* f, const double* theta) const;

 private:
  struct entry {
    error_kind kind = error_kind::additive;
    bool known = false;  // not normal
    int additive = -1;   // positions in theta, -1 for none
    int proportional = -1;
    int exponent = -1;
    double degrees_of_freedom = 0.0;
    double log_beta = 0.0;
    double lambda = 0.0;
  };
  const entry& of(const observation& at) const {
    return endpoints_[static_cast<std::size_t>(at.endpoint)];
  }
  void objectives(const observation* observed, std::size_t count, const double* f,
                  std::size_t stride, std::size_t n, const double* theta, double* objective,
                  double* scaled_squares, const lane_kernel& with) const;
  double difference(const entry& e, double y, double f) const;
  void add_derivatives_of_deviation(const observation& at, const double* f, const double* theta,
                                    const Eigen::VectorXd& weights, Eigen::MatrixXd& gradient,
                                    Eigen::MatrixXd& hessian) const;
  void add_differences(const observation& at, const double* f, const double* theta,
                       const Eigen::VectorXd& weights, Eigen::MatrixXd& gradient,
                       Eigen::MatrixXd& hessian) const;

  int first_theta_ = 0;
  std::vector<entry> endpoints_;
  std::vector<fixed_effect> parameters_;
  bool plain_ = false;  // one endpoint, nothing censored, nothing transformed, normal
};

}  // namespace varda
