// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "varda/host/engine_host.h"
#include "varda/run/fit_result.h"

namespace varda {

// Told after every iteration or pilot pass, and after every subject of the quadrature with the
// subjects so far as the iteration and their -2 log-likelihood; never null where a function takes
// one.
using progress_listener = std::function<void(const iteration_record&, int most_iterations)>;

inline void no_progress(const iteration_record&, int) {}

// The reason of a run that was stopped.
inline constexpr const char* stop_reason = "stopped on request";

// Throws bad_input where a fit could not begin although the model can be evaluated: the grid of its
// quadrature or the points of its passes are too many.
void check_fit(const population_model& model);

// Maximum likelihood estimates from the start values in the host. The host holds the estimates
// afterwards. A stop request ends the iterations: the result then holds the last complete iteration
// and is not converged.
fit_result fit(engine_host& host, const progress_listener& progress,
               const progress_listener& quadrature_progress = no_progress);

// The exact likelihood and the conditional moments at the start values, which stay as they are.
fit_result evaluate(engine_host& host, const progress_listener& progress,
                    const progress_listener& quadrature_progress = no_progress);

}  // namespace varda
