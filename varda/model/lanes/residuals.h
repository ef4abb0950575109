// SPDX-License-Identifier: Apache-2.0
//
// The density of a subject's observations as the loops over lanes take it.
#pragma once

#include <cstddef>

#include "varda/data/observation.h"
#include "varda/model/specification.h"

namespace varda {

// The error of an endpoint: deviations (scales of Student's t), 0 where there is none. The additive
// one is that of the logarithm for log-normal error, of the transformed value for Box-Cox error.
struct residual_law {
  error_kind kind = error_kind::additive;
  bool known = false;  // a prediction is the logarithm of the density already
  double additive = 0.0;
  double proportional = 0.0;
  double exponent = 0.0;
  double degrees_of_freedom = 0.0;   // of Student's t; 0 for a normal law
  double log_beta = 0.0;             // of half of them and 1/2
  double lambda = 0.0;               // of the Box-Cox transformation
  double per_additive_square = 0.0;  // 1 over the squares
  double per_proportional_square = 0.0;
};

struct residual_problem {
  const observation* observed = nullptr;
  std::size_t observations = 0;
  const residual_law* laws = nullptr;  // by endpoint
  std::size_t endpoints = 0;
  std::size_t individuals = 0;
  const double* f = nullptr;  // of observation k: individuals from f + k stride on
  std::size_t stride = 0;
  // One number for each individual: -log of the density, every constant included, and the sum of
  // squared scaled residuals of what is not censored.
  double* objective = nullptr;
  double* squares = nullptr;
};

}  // namespace varda
