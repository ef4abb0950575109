// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/folder/stored_fit.h"
#include "varda/model/specification.h"

namespace varda {

// Puts a fit's estimates into the start values of what has the same name in `file` and is not fixed
// there. Estimates outside the bounds of `file` are passed over. A variance takes its covariances
// along where the fit has them; otherwise the correlations of `file` stay. Returns the names of
// what was taken.
std::vector<std::string> start_from(const stored_fit& fit, model_specification& file);

}  // namespace varda
