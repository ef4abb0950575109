// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/job.h"
#include "varda/model/density.h"
#include "varda/support/progress.h"

namespace varda {

// Normalised prediction distribution errors of a subject's observations at theta (its scale in
// population_model) and omega: standard normal and independent when the model is true. Brendel,
// Comets, Laffont, Laveille and Mentre (2006), Pharm. Res. 23, 2036-2049.
//
// The subject's observations are simulated `simulations` times. With their mean m and lower
// Cholesky factor L of their covariance, observed and simulated vectors are decorrelated,
// L^-1 (y - m). The covariance is that of the simulated conditional means, given the random
// effects, and the mean of the conditional variances in the diagonal. (That of the simulated values
// would know their residuals, and not those observed, whose row j would come out with a variance of
// about (K - 1) / (K - j - 2) for K simulations.) The error of an observation is the normal
// quantile of the share of simulated values below it; a share of 0 or 1 counts as half a
// simulation. The share of a censored observation is drawn uniformly from those that its limits
// leave given the observations before it (randomised as in Dunn and Smyth, 1996, J. Comput. Graph.
// Stat. 5, 236-244), and those after it are decorrelated with the value that has this share.
//
// Values with log-normal and Box-Cox error are transformed, observed and simulated
// (endpoints::transformed).
// Values of counts, binary and ordinal endpoints, observed and simulated, count as their ranks plus
// numbers drawn uniformly between 0 and 1. Endpoints of events and such that tell a log-likelihood
// have no errors: NaN.
//
// Draws follow from `seed` and the subject's position alone. Simulations that the model cannot be
// evaluated for are left out. NaN where fewer than two are left, or one of the residuals has no
// variance.
Eigen::VectorXd npde(const population_model& model, int subject, const Eigen::VectorXd& theta,
                     const Eigen::MatrixXd& omega, int simulations, int seed);

// Those of every subject, by the settings of the model file; empty when they ask for none. Subjects
// are shared among the processes; every one ends with the same, of no use after a stop request.
// Collective.
std::vector<Eigen::VectorXd> npde(const population_model& model, const Eigen::VectorXd& theta,
                                  const Eigen::MatrixXd& omega, const job& peers,
                                  const progress_listener& progress);

}  // namespace varda
