// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/run/fit_result.h"

namespace varda {

// An exact figure: an estimate on the natural scale, or an element of omega, with the standard
// error from the observed information.
struct exact_estimate {
  std::string name;  // "CL", "additive", "omega(V,V)"
  double value = 0.0;
  double se = 0.0;
};

// A fit or an evaluation whose exact outcome is known from adaptive Gauss-Hermite quadrature with
// 25 nodes a random effect and Newton steps to rest, by a program that shares no code with this
// one.
struct reference_problem {
  std::string title;
  task what = task::fit;
  std::string model;  // the model file; its data are "theophylline.csv"
  double minus2ll = 0.0;
  std::vector<exact_estimate> estimates;
};

const std::vector<reference_problem>& reference_problems();

}  // namespace varda
