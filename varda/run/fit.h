// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/host/engine_host.h"
#include "varda/run/fit_result.h"
#include "varda/run/fit_state.h"
#include "varda/support/progress.h"

namespace varda {

// Throws bad_input where a fit could not begin although the model can be evaluated: the grid of its
// quadrature or the points of its passes are too many.
void check_fit(const population_model& model);

// Maximum likelihood estimates from the model's start values, or from a state that a fit of the
// same model, data and settings has reached before. The host holds the estimates afterwards. After
// a stop request the result holds what was complete by then and has not converged. Collective.
fit_result fit(engine_host& host, const progress_listener& progress, fit_listener& listener,
               fit_state state);
fit_result fit(engine_host& host, const progress_listener& progress);

// The exact likelihood and the conditional moments at the start values, which stay as they are.
fit_result evaluate(engine_host& host, const progress_listener& progress);

}  // namespace varda
