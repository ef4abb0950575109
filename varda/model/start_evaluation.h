// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "varda/model/population.h"
#include "varda/support/finding.h"

namespace varda {

// A subject at the start values, all random effects 0.
struct start_evaluation {
  double minus2_log_density = 0.0;  // of the subject's observations; not defined after a failure
  std::optional<finding> failure;   // E-RUN-START, with the first row at fault
};

start_evaluation evaluate_start(const population_model& model, int subject);

// Throws bad_input at the first subject that cannot be evaluated at the start values.
void check_start(const population_model& model);

}  // namespace varda
