// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/data/dataset.h"
#include "varda/model/specification.h"

namespace varda {

// One coefficient of a covariate effect; a categorical effect has one for each level beyond the
// reference.
struct covariate_coefficient {
  std::string name;
  covariate_effect effect;
  double level = 0.0;
  int parameter = 0;
  int covariate = 0;       // position in a segment's covariates
  bool in_design = false;  // it adds beta times a constant of the subject to phi
  bool is_factor = false;  // it adds log(1 + beta x) instead of beta x

  // x of the above for a value of the covariate.
  double transformed(double value) const;
  // What the coefficient adds to phi at x.
  double change(double beta, double x) const;
};

// All coefficients of a model file, parameter by parameter. Throws bad_input where a subject's
// covariate cannot be transformed, or where a categorical covariate has no or too many levels.
std::vector<covariate_coefficient> covariate_coefficients(const model_specification& file,
                                                          const dataset& data);

}  // namespace varda
