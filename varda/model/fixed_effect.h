// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "varda/model/specification.h"

namespace varda {

// What an entry of theta is:
//   typical_value       of a parameter with a random effect; in the mean through the C matrix
//   flat_parameter      a parameter without a random effect
//   covariate_effect    a coefficient in the mean through the C matrix
//   direct_effect       a coefficient that cannot stand there: its covariate changes in time, its
//                       form is not linear in it, or its parameter has no random effect
//   residual_deviation  of an endpoint
enum class theta_role {
  typical_value,
  flat_parameter,
  covariate_effect,
  direct_effect,
  residual_deviation
};

struct fixed_effect {
  std::string name;
  theta_role role = theta_role::typical_value;
  distribution law = distribution::none;  // of the parameter that the typical value belongs to
  double range_lower = 0.0;               // of a logit-normal parameter
  double range_upper = 1.0;
  double start = 0.0;  // on the scale of theta, like the bounds
  double lower = 0.0;
  double upper = 0.0;
  bool fixed = false;
  bool is_scale = true;  // of a residual deviation: residuals are in proportion to it

  // From theta to the scale that a user reads, and from theta to the regression scale and back.
  double natural(double theta) const;
  double natural_slope(double theta) const;  // derivative of the same
  double regression(double theta) const;
  double from_regression(double beta) const;

  // Whether a search or an interval for it runs over its logarithm: it is above 0 by its nature, or
  // by its start and bounds.
  bool is_positive() const;

  // Predictions depend on it directly, not only through the means of the random effects.
  bool moves_predictions() const {
    return role == theta_role::flat_parameter || role == theta_role::direct_effect;
  }
};

}  // namespace varda
