// SPDX-License-Identifier: Apache-2.0
#include "varda/model/fixed_effect.h"

#include <cmath>

namespace varda {

namespace {

double inverse_logit(double x) {
  return 1.0 / (1.0 + std::exp(-x));
}

}  // namespace

double fixed_effect::natural(double theta) const {
  if (law != distribution::logit_normal) return theta;
  return range_lower + (range_upper - range_lower) * inverse_logit(theta);
}

double fixed_effect::natural_slope(double theta) const {
  if (law != distribution::logit_normal) return 1.0;
  const double share = inverse_logit(theta);
  return (range_upper - range_lower) * share * (1.0 - share);
}

double fixed_effect::regression(double theta) const {
  return law == distribution::log_normal ? std::log(theta) : theta;
}

double fixed_effect::from_regression(double beta) const {
  return law == distribution::log_normal ? std::exp(beta) : beta;
}

bool fixed_effect::is_positive() const {
  switch (role) {
    case theta_role::residual_deviation:
      return true;
    case theta_role::typical_value:
      return law == distribution::log_normal;
    case theta_role::flat_parameter:
      return start > 0.0 && !(std::isfinite(lower) && lower < 0.0);
    case theta_role::covariate_effect:
    case theta_role::direct_effect:
      break;
  }
  return false;
}

}  // namespace varda
