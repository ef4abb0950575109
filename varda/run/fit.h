// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/host/engine_host.h"
#include "varda/run/fit_result.h"
#include "varda/support/progress.h"

namespace varda {

// Throws bad_input where a fit could not begin although the model can be evaluated: the grid of its
// quadrature or the points of its passes are too many.
void check_fit(const population_model& model);

// Maximum likelihood estimates from the start values in the host. The host holds the estimates
// afterwards. A stop request ends the iterations: the result then holds the last complete iteration
// and is not converged.
fit_result fit(engine_host& host, const progress_listener& progress);

// The exact likelihood and the conditional moments at the start values, which stay as they are.
fit_result evaluate(engine_host& host, const progress_listener& progress);

}  // namespace varda
