// SPDX-License-Identifier: Apache-2.0
//
// From start values to parameters and proposals that a Newton method can begin with: the start
// values are screened by a naive pooled fit, then improved by iterated two-stage steps (modes and
// their curvature; L. Steimer, A. Mallet, J.-L. Golmard and J.-F. Boisvieux, "Alternative
// approaches to estimation of population pharmacokinetic parameters", Drug Metab. Rev. 15 (1984)
// 265-292) in which no variance may collapse.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/engine_host.h"
#include "varda/method/newton/normal_posterior.h"

namespace varda {

struct start_result {
  Eigen::VectorXd theta;
  Eigen::MatrixXd omega;
  std::vector<normal_posterior> modes;  // of every subject
  double laplace = 0.0;                 // -2 log-likelihood by Laplace's method
};

// The parameters at the best maximum of the naive pooled fit that is reached from those in force,
// which stay, and from many about them; variances have no part in it. Collective.
Eigen::VectorXd pooled_start(engine_host& host);

// From the parameters in force, which stay: the ends that are far from each other, the lowest first
// by Laplace's method. Collective. False when a stop was asked for.
bool start_up(engine_host& host, std::vector<start_result>& found);

// The modes of every subject at given parameters, from `from` (random effects x subjects) or from
// the population's means, whichever is better; second modes that hold more mass are looked for
// among samples of the population where `widely`. The -2 log-likelihood by Laplace's method.
// Collective. False when a stop was asked for.
bool find_modes(engine_host& host, const parameter_values& at, bool widely,
                std::vector<normal_posterior>& modes, double& laplace);

// Samples of the population about a subject's mean, the same for every call with the same
// arguments: random effects x count.
Eigen::MatrixXd population_samples(const engine_host& host, int subject, int count,
                                   const parameter_values& at);

}  // namespace varda
