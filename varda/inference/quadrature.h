// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "varda/host/engine_host.h"
#include "varda/support/progress.h"

namespace varda {

// The -2 log-likelihood at the parameters in force by adaptive Gauss-Hermite quadrature.
struct quadrature_estimate {
  bool complete = false;                // false: it was not asked for, or a stop came first
  int nodes = 0;                        // per random effect
  int points = 0;                       // per subject
  double minus2ll = 0.0;                // every constant included
  std::vector<double> log_likelihoods;  // of the subjects; 0 without observations
  // Subjects (from 0) whose curvature at the mode was of no use and whose grid omega places.
  std::vector<int> placed_by_omega;

  // One node per random effect is Laplace's approximation.
  bool is_laplace() const { return nodes == 1; }

  template <class A>
  void visit(A& archive) {
    archive(complete, nodes, points, minus2ll, log_likelihoods, placed_by_omega);
  }
};

// The most nodes per random effect whose product grid over `effects` of them has a number of points
// that 32 bits count.
int most_agq_nodes(int effects);

// Throws bad_input when the quadrature is wanted on a grid that is too large.
void check_grid(const population_model& model);

// Searches every subject's mode, takes the exact Hessian there and integrates over the grid of
// `nodes` per random effect that they place. Leaves the proposals alone. Collective.
quadrature_estimate integrate_by_quadrature(engine_host& host, int nodes,
                                            const progress_listener& progress);

}  // namespace varda
