// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "varda/data/dataset.h"

namespace varda {

// The data set with the observations alone that have a value.
dataset observed_part(const dataset& data);

// The data set with observations without value at these times (ascending), of every endpoint, in
// place of its own. Each stands behind whatever happens at its time.
dataset on_grid(const dataset& data, const std::vector<double>& times, int endpoints);

}  // namespace varda
