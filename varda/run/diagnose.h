// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/host/job.h"
#include "varda/run/fit_result.h"
#include "varda/support/progress.h"

namespace varda {

// The diagnostics of a result: what follows from its estimates, their likelihood and their errors.
// Collective. False when a stop was asked for: what it left unfinished is left out.
bool diagnose(const population_model& model, const job& peers, const progress_listener& progress,
              fit_result& result);

}  // namespace varda
