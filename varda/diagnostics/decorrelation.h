// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <optional>
#include <vector>

#include "varda/model/lanes/kernel.h"

namespace varda {

// What makes a vector of observations uncorrelated: with their mean m and the lower Cholesky factor
// L of their covariance, L^-1 (y - m).
//
// Given the random effects observations are independent, so that their covariance is that of their
// conditional means and, in the diagonal, the mean of their conditional variances. Conditional
// means depend on few random effects, smoothly, and their covariance is nearly of low rank r beside
// the diagonal. Then L is known by 2 r numbers for a row and the blocks on its diagonal, and
// L^-1 of a vector takes about 2 r multiplications for an observation (the innovations of a Kalman
// filter whose state are the r factors and stays as it is: Durbin and Koopman, Time Series Analysis
// by State Space Methods, 4.3). Where r is not small the block is L itself.
class decorrelation {
 public:
  // Of `means`, simulations x observations, at least two simulations: the covariance is of divisor
  // simulations - 1. `variances` has a number for each observation. None where the covariance is
  // not positive definite, not finite, or a variance is not above 0. Of the covariance, in units of
  // `variances`, what is left out has no eigenvalue above the tolerance, so that the variance of no
  // combination of observations is off by more than that share: beside the sampling error of a
  // variance from 1,000 simulations, 0.045, nothing. Takes r multiplications for each of `means`,
  // or about as many as there are observations.
  static std::optional<decorrelation> of(Eigen::MatrixXd means, const Eigen::VectorXd& variances,
                                         double tolerance = 1e-4);

  // Every row of `y`, as many as there are, becomes L^-1 (y - m).
  void apply(Eigen::MatrixXd& y, const lane_kernel& with = best_lane_kernel()) const;

  // Of one vector, whose entries are told one after another.
  class sequence {
   public:
    // `of` outlives it.
    explicit sequence(const decorrelation& of);
    // Of the next entry, given those before it: L^-1 (y - m) is (y - expected()) / deviation().
    double expected() const;
    double deviation() const;
    // The next entry's L^-1 (y - m).
    void append(double decorrelated);

   private:
    const decorrelation& of_;
    Eigen::Index next_ = 0;
    Eigen::VectorXd known_;  // of the entry's block
    Eigen::VectorXd state_;  // the factors' mean given the blocks before it
  };

 private:
  // Observations are centred and divided by the square roots of their variances. The covariance of
  // these is loadings_ loadings_' beside its diagonal, or in one block.
  Eigen::VectorXd means_;
  Eigen::VectorXd scales_;
  Eigen::Index block_ = 0;
  // observations x r. Left of its blocks L is the lower triangle of loadings_ gains_'.
  Eigen::MatrixXd loadings_;
  Eigen::MatrixXd gains_;
  std::vector<Eigen::MatrixXd> diagonal_;  // the blocks of L
};

}  // namespace varda
